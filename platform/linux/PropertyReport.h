// Mistakes in the properties, each said once on stderr: a tavrel.host.* key that no host
// service reads, and a value that does not parse. The value is then left alone (its
// reader takes its default), as a malformed line of the properties file is.
#pragma once

namespace tavrel::host {

// What a value of each kind must look like, in the words of the report.
inline constexpr const char* kExpectUnsigned32 = "an unsigned 32-bit number, decimal or 0x hex";
inline constexpr const char* kExpectMask64 = "an unsigned 64-bit mask, decimal or 0x hex";
inline constexpr const char* kExpectInt32 = "a signed 32-bit number, decimal or 0x hex";
inline constexpr const char* kExpectBool = "1, y, yes, on, true, 0, n, no, off or false";

// Any thread. Says that `value` of `key` was ignored and what was expected, once per key
// and value. An empty value means "unset" and is not a mistake.
void reportBadValue(const char* key, const char* value, const char* expected);

// Any thread. Says, once per key, that `key` is a tavrel.host.* key that no host service
// reads, listing the ones there are; `where` ("<file>:<line>: " or "") comes first.
// Does nothing for any other key.
void checkHostKey(const char* key, const char* where);

}  // namespace tavrel::host
