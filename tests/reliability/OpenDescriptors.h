// The process's open descriptors, to show that a run leaves none behind.
#pragma once

#include <map>
#include <string>

namespace tavrel::test {

// Descriptor number to what it leads to, from /proc/self/fd (without the listing's own).
using DescriptorTable = std::map<int, std::string>;

DescriptorTable openDescriptors();

// Entries that differ between the two tables: opened, closed or replaced in between.
int descriptorDifference(const DescriptorTable& before, const DescriptorTable& after);

}  // namespace tavrel::test
