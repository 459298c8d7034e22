// The one line of figures each reliability test leaves in the CI log, also recorded as
// test properties for the XML report.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "RunBudget.h"

namespace tavrel::test {

using Figures = std::vector<std::pair<std::string, int64_t>>;

// Prints "[ figures ] <test> name=value ... build=... soak=..." and records each figure.
void reportFigures(const std::string& test, const Figures& figures, const RunBudget& budget);
// The same for a test bounded by its own fixed counts: only the build is added.
void reportFigures(const std::string& test, const Figures& figures);

}  // namespace tavrel::test
