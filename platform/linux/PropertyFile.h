// Reading of an Android-style `key=value` properties file.
#pragma once

#include <map>
#include <string>

namespace tavrel::host {

// Adds the properties of the file at `path` to `into`, a later line winning over an
// earlier one. Blank lines and lines starting with '#' are ignored; whitespace around
// key and value is dropped. A line without '=' or with an empty key is reported on
// stderr with the file name and line number and skipped; so is a file that cannot be
// opened, and a tavrel.host.* key that no host service reads (its value is kept). Called once per
// process, by the store, on the thread that first reads it.
void loadPropertyFile(const char* path, std::map<std::string, std::string>* into);

}  // namespace tavrel::host
