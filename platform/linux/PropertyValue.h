// Parsing of property values the way Android's property readers parse them.
#pragma once

#include <cstdint>

namespace tavrel::host {

// Decimal or 0x/0X-hex digits after an optional sign; a leading zero does not mean octal.
// Returns false for an empty text, trailing characters, or a value outside [min, max].
bool parseInteger(const char* text, int64_t min, int64_t max, int64_t* out);

// Like parseInteger without a sign, over the whole unsigned 64-bit range (bit masks).
bool parseMask(const char* text, uint64_t* out);

// 1/y/yes/on/true give 1, 0/n/no/off/false give 0 (case-sensitive); anything else -1.
int parseBool(const char* text);

}  // namespace tavrel::host
