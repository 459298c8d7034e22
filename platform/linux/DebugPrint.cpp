// Debug print on Linux hosts: lines go to the host's Android log, or to an installed sink.
#include "tavrel/platform/DebugPrint.h"

#include <android/log.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <shared_mutex>

#include "HostKeys.h"
#include "PropertyReport.h"
#include "PropertyValue.h"
#include "tavrel/platform/Properties.h"

namespace {

constexpr uint64_t kDefaultModuleMask = uint64_t{1} << 55;
constexpr int kLineSize = 1024;
constexpr int kValueSize = 96;
constexpr int kPathTextSize = 1024;

// Android log priority of each debug level, indexed by cam_debug_level_t.
constexpr android_LogPriority kPriorities[kLogInfoLevels] = {ANDROID_LOG_VERBOSE, ANDROID_LOG_ERROR,
                                                             ANDROID_LOG_WARN, ANDROID_LOG_INFO};

// The installed sink; readers hold the lock shared while they call it, so removing a
// sink waits until no call into it is left running.
std::shared_mutex sSinkMutex;
tavrel::host::DebugPrintSink sSink = nullptr;  // guarded by sSinkMutex
void* sSinkCookie = nullptr;                   // guarded by sSinkMutex
// Lets lines skip the lock while no sink is installed, the usual case.
std::atomic<bool> sSinkInstalled{false};

bool deliverToSink(const char* tag, cam_debug_level_t level, const char* text) {
    if (!sSinkInstalled.load(std::memory_order_acquire)) return false;
    std::shared_lock<std::shared_mutex> lock(sSinkMutex);
    if (sSink == nullptr) return false;
    sSink(sSinkCookie, tag, level, text);
    return true;
}

// Runs before ordinary static initialisers, so that no line is judged by a default mask
// that the properties are about to replace.
__attribute__((constructor(101))) void applyDebugPrintProperties() {
    char text[kValueSize];
    uint64_t mask = kDefaultModuleMask;
    if (tavrel::host::property_get(tavrel::host::kDebugPrintModulesKey, text, sizeof(text)) &&
        !tavrel::host::parseMask(text, &mask)) {
        tavrel::host::reportBadValue(tavrel::host::kDebugPrintModulesKey, text,
                                     tavrel::host::kExpectMask64);
        mask = kDefaultModuleMask;
    }
    for (LogInfoLevel& record : g_logInfoLv) record.enableMask.store(mask);
}

}  // namespace

// The Android log already shows each line's priority, so the prefixes stay empty.
LogInfoLevel g_logInfoLv[kLogInfoLevels] = {
    {{kDefaultModuleMask}, ""},
    {{kDefaultModuleMask}, ""},
    {{kDefaultModuleMask}, ""},
    {{kDefaultModuleMask}, ""},
};

void log_dbg_print(const char* tag, cam_debug_level_t level, const char* fmt, ...) {
    char line[kLineSize] = {};
    va_list args;
    va_start(args, fmt);
    const int length = std::vsnprintf(line, sizeof(line), fmt, args);
    va_end(args);
    if (length < 0) line[0] = '\0';
    if (deliverToSink(tag, level, line)) return;
    const bool known = level >= 0 && level < kLogInfoLevels;
    __android_log_write(known ? kPriorities[level] : ANDROID_LOG_DEFAULT, tag, line);
}

// The file is shown by its base name: source paths are long and alike up to the last
// '/'. A '%' would be read as a conversion by the caller's format, so it becomes '_'.
// The text lies in `path` itself or, when a '%' was replaced, in a buffer of the calling
// thread that stays valid until that thread's next call.
const char* get_filename_log_control(const char* path) {
    if (path == nullptr) return "";
    const char* slash = std::strrchr(path, '/');
    const char* name = slash != nullptr ? slash + 1 : path;
    if (std::strchr(name, '%') == nullptr) return name;
    thread_local char sText[kPathTextSize];
    std::snprintf(sText, sizeof(sText), "%s", name);
    for (char* c = sText; *c != '\0'; ++c) {
        if (*c == '%') *c = '_';
    }
    return sText;
}

namespace tavrel::host {

void setDebugPrintSink(DebugPrintSink sink, void* cookie) {
    std::unique_lock<std::shared_mutex> lock(sSinkMutex);
    sSink = sink;
    sSinkCookie = sink != nullptr ? cookie : nullptr;
    sSinkInstalled.store(sink != nullptr, std::memory_order_release);
}

}  // namespace tavrel::host
