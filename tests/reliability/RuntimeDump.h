// The monitor's runtime dump line read back into values, so that it can be compared with
// what a test expects regardless of the map's iteration order.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <utility>

namespace tavrel::test {

struct RuntimeDump {
    uint32_t attachCount = 0;
    uint32_t detachCount = 0;
    bool active = false;
    std::set<std::pair<int, std::string>> attached;  // (descriptor, observer pointer text)
    std::set<int> detached;                          // descriptors with a null entry
    std::string mapText;                             // the map's text as printed
};

// Reads "{ #attach=N #detach=N .mActive=B .mFdObserverMap={ attach=[ (fd, ptr) ... ]
// detach=[ fd ... ] } }" exactly; nothing when the text deviates in any way, including a
// descriptor listed twice.
std::optional<RuntimeDump> parseRuntimeDump(const std::string& text);

// `text` with every pointer ("0x" and hexadecimal digits) replaced by "@P", for the line
// patterns of MonitorTestSupport.
std::string maskPointers(const std::string& text);

}  // namespace tavrel::test
