#include "PropertyReport.h"

#include <cstdio>
#include <cstring>
#include <mutex>
#include <set>
#include <string>

#include "HostKeys.h"

namespace tavrel::host {
namespace {

constexpr const char* kReportPrefix = "tavrel-properties";

// What has been said already, so that a value read at every call is reported once.
struct Reported {
    std::mutex lock;             // guards said
    std::set<std::string> said;  // "key" for unknown keys, "key=value" for values
};

// Never destroyed: threads still reading properties during exit find it intact.
Reported& reported() {
    static Reported* const sReported = new Reported;
    return *sReported;
}

// True the first time `what` is asked about.
bool firstTime(const std::string& what) {
    Reported& r = reported();
    std::lock_guard<std::mutex> guard(r.lock);
    return r.said.insert(what).second;
}

bool isHostKey(const char* key) {
    for (const char* known : kHostKeys) {
        if (std::strcmp(key, known) == 0) return true;
    }
    return false;
}

std::string hostKeyList() {
    std::string list;
    for (const char* known : kHostKeys) {
        if (!list.empty()) list += ", ";
        list += known;
    }
    return list;
}

}  // namespace

void reportBadValue(const char* key, const char* value, const char* expected) {
    if (value[0] == '\0') return;
    if (!firstTime(std::string(key) + "=" + value)) return;
    std::fprintf(stderr, "%s: %s=%s ignored (expected %s)\n", kReportPrefix, key, value, expected);
}

void checkHostKey(const char* key, const char* where) {
    if (std::strncmp(key, kHostKeyPrefix, std::strlen(kHostKeyPrefix)) != 0) return;
    if (isHostKey(key) || !firstTime(key)) return;
    std::fprintf(stderr, "%s: %sunknown key %s ignored (expected one of %s)\n", kReportPrefix,
                 where, key, hostKeyList().c_str());
}

}  // namespace tavrel::host
