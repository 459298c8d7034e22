// The log statement: one message over the debug-print route and the unified-log route,
// each behind its own gate, all gates tested before anything is formatted.
//
// A source file defines `kLogSite` (its tag and path) and then uses the macros:
//   TAVREL_LOGE("[%s] read(%d) failed", __func__, fd);
// Every short format starts with "[%s]".
// Kept for the stack: its argument is given by hand at every statement, although the macros
// know the function's name.
#pragma once

#include <cstdio>
#include <cstdlib>

#include "tavrel/platform/DebugPrint.h"
#include "tavrel/platform/ULogger.h"
#include "utils/log/LogSite.h"

namespace NSCam::NSTavrel::Log {

enum class Level { kError, kWarning, kInfo, kVerbose };

// What a level means on each route.
struct LevelRoute {
    cam_debug_level_t debugLevel;  // debug-print level and g_logInfoLv record
    int unifiedLevel;              // unified-logger level
};

constexpr LevelRoute routeOf(Level level) {
    switch (level) {
        case Level::kError:
            return {CAM_DEBUG_ERROR, 1};
        case Level::kWarning:
            return {CAM_DEBUG_WARNING, 2};
        case Level::kInfo:
            return {CAM_DEBUG_INFO, 3};
        case Level::kVerbose:
            break;
    }
    return {CAM_DEBUG_VERBOSE, 5};
}

using NSCam::Utils::ULog::ULogger;

inline uint32_t loadSwitch(const std::atomic<uint32_t>& value) {
    return value.load(std::memory_order_relaxed);
}

// The details gate that comes before either route; errors have none.
template <Level L>
inline bool detailsAdmit() {
    if constexpr (L == Level::kError) {
        return true;
    } else if constexpr (L == Level::kWarning) {
        return loadSwitch(ULogger::sDetailsLevel) >= 2;
    } else if constexpr (L == Level::kInfo) {
        return loadSwitch(ULogger::sDetailsLevel) >= 3;
    } else {
        return loadSwitch(ULogger::sDetailsLevel) >= 5 &&
               (loadSwitch(ULogger::sNormalDetailsMask) & kDetailsMask) == kDetailsMask;
    }
}

inline bool debugPrintRouteOn(cam_debug_level_t level) {
    return (loadSwitch(ULogger::sMode) & kDebugPrintRouteBit) != 0 &&
           (g_logInfoLv[level].enableMask.load(std::memory_order_relaxed) & kDebugPrintModuleBit) !=
               0;
}

inline bool unifiedRouteOn() {
    return (loadSwitch(ULogger::sMode) & kUnifiedRouteBits) != 0;
}

// Formats into a heap buffer and hands the line to the unified logger.
// Kept for the stack: the length passed is the untruncated one the formatting reported, even
// when the text was cut.
template <typename... Args>
void writeUnified(const char* tag, int level, const char* format, Args... args) {
    char* line = static_cast<char*>(std::malloc(kLineSize));
    if (line == nullptr) return;
    const int length = std::snprintf(line, kLineSize, format, args...);
    if (length >= 0) {
        line[kLineSize - 1] = '\0';
        ULogger::sULogger.load(std::memory_order_acquire)
            ->writeLine(kModuleId, tag, level, line, length);
    }
    std::free(line);
}

// Builds the header into a format of its own and lets log_dbg_print format the message
// with it.
// Kept for the stack: a '%' in the prefix or the file text would be interpreted; the
// platform promises there is none.
template <typename... Args>
void writeDebugPrint(const Site& site, int line, const char* function, cam_debug_level_t level,
                     const char* longFormat, Args... args) {
    char format[kLineSize] = {};
    std::snprintf(format, sizeof(format), "%s[%s] %s:%d %s() %s", g_logInfoLv[level].prefix,
                  site.tag, get_filename_log_control(site.path), line, function, longFormat);
    log_dbg_print(site.tag, level, format, args...);
}

template <Level L, typename... Args>
inline void statement(const Site& site, int line, const char* function, const char* format,
                      const char* errorFormat, Args... args) {
    if (!detailsAdmit<L>()) return;
    constexpr LevelRoute route = routeOf(L);
    if (debugPrintRouteOn(route.debugLevel)) {
        if constexpr (L == Level::kError) {
            writeDebugPrint(site, line, function, route.debugLevel, errorFormat, args..., function,
                            line, site.path);
        } else {
            writeDebugPrint(site, line, function, route.debugLevel, format, args...);
        }
    }
    if (unifiedRouteOn()) writeUnified(site.tag, route.unifiedLevel, format, args...);
}

// Lets the compiler check a statement's format against its arguments; never called.
__attribute__((format(printf, 1, 2))) inline void checkFormat(const char*, ...) {}

}  // namespace NSCam::NSTavrel::Log

// The long form of an error line ends with the function, line and source path.
#define TAVREL_ERROR_SUFFIX " (%s){#%d:%s}"

// A statement reports the line of its macro's name. Inside a function-like macro call that
// spans lines __LINE__ is the first line to GCC and the last to Clang, so every statement
// macro is object-like: it fixes the line where its name stands, then takes its arguments
// through a function-like macro of its own.
#define TAVREL_AT_THIS_LINE                              \
    switch (const int tavrelLine = __LINE__; tavrelLine) \
    default:

// `function` names the statement's function where __func__ would not (inside a lambda
// that logs for the function that made it).
#define TAVREL_LOG_IN_(level, function, format, ...)                                       \
    do {                                                                                   \
        if (false) ::NSCam::NSTavrel::Log::checkFormat(format, __VA_ARGS__);               \
        ::NSCam::NSTavrel::Log::statement<level>(kLogSite, tavrelLine, function, format,   \
                                                 format TAVREL_ERROR_SUFFIX, __VA_ARGS__); \
    } while (0)

#define TAVREL_LOGE_IN_(function, format, ...) \
    TAVREL_LOG_IN_(::NSCam::NSTavrel::Log::Level::kError, function, format, __VA_ARGS__)
#define TAVREL_LOGW_IN_(function, format, ...) \
    TAVREL_LOG_IN_(::NSCam::NSTavrel::Log::Level::kWarning, function, format, __VA_ARGS__)
#define TAVREL_LOGE_(format, ...) TAVREL_LOGE_IN_(__func__, format, __VA_ARGS__)
#define TAVREL_LOGW_(format, ...) TAVREL_LOGW_IN_(__func__, format, __VA_ARGS__)
#define TAVREL_LOGI_IN_(function, format, ...) \
    TAVREL_LOG_IN_(::NSCam::NSTavrel::Log::Level::kInfo, function, format, __VA_ARGS__)
#define TAVREL_LOGI_(format, ...) TAVREL_LOGI_IN_(__func__, format, __VA_ARGS__)
#define TAVREL_LOGV_(format, ...) \
    TAVREL_LOG_IN_(::NSCam::NSTavrel::Log::Level::kVerbose, __func__, format, __VA_ARGS__)
// A verbose line of a class: its own switch (mLogv) is tested before anything else.
#define TAVREL_CLASS_LOGV_(classLogv, format, ...)        \
    do {                                                  \
        if (classLogv) TAVREL_LOGV_(format, __VA_ARGS__); \
    } while (0)

// The statements: TAVREL_LOGE(format, args...) and so on; the _IN forms take the
// function's name first.
#define TAVREL_LOGE_IN TAVREL_AT_THIS_LINE TAVREL_LOGE_IN_
#define TAVREL_LOGW_IN TAVREL_AT_THIS_LINE TAVREL_LOGW_IN_
#define TAVREL_LOGI_IN TAVREL_AT_THIS_LINE TAVREL_LOGI_IN_
#define TAVREL_LOGE TAVREL_AT_THIS_LINE TAVREL_LOGE_
#define TAVREL_LOGW TAVREL_AT_THIS_LINE TAVREL_LOGW_
#define TAVREL_LOGI TAVREL_AT_THIS_LINE TAVREL_LOGI_
#define TAVREL_LOGV TAVREL_AT_THIS_LINE TAVREL_LOGV_
#define TAVREL_CLASS_LOGV TAVREL_AT_THIS_LINE TAVREL_CLASS_LOGV_
