// The two ways this library ends the process: the assertion report for a broken
// invariant, and the driver report for a failed driver request.
#pragma once

#include <android/log.h>

#include <cerrno>
#include <cstring>

#include "tavrel/platform/CrashReporter.h"
#include "utils/log/Log.h"

namespace NSCam::NSTavrel::Log {

// Unified route first (with the logger flushed, so its buffer survives the abort), then
// the Android log's assertion, which aborts. No details gate and no debug-print route.
template <typename... Args>
[[noreturn]] void assertionReport(const Site& site, int line, const char* function,
                                  const char* format, const char* longFormat, Args... args) {
    if (unifiedRouteOn()) {
        writeUnified(site.tag, routeOf(Level::kError).unifiedLevel, format, args...);
        ULogger::sULogger.load(std::memory_order_acquire)->flush(1);
    }
    __android_log_assert(nullptr, site.tag, longFormat, args..., function, line, site.path);
}

// Module name under which driver failures are reported.
inline constexpr const char* kDriverModule = "varnok";

// Reports a failed driver request with its dispatch key and asks for the service to end.
// Returns if the service survives; the caller then returns -err as usual.
void driverReport(const char* format, int err);

}  // namespace NSCam::NSTavrel::Log

// Ends the process after a broken invariant: TAVREL_FATAL(format, args...), or with the
// function's name first, TAVREL_FATAL_IN(function, format, args...).
#define TAVREL_FATAL_IN_(function, format, ...)                                           \
    do {                                                                                  \
        if (false) ::NSCam::NSTavrel::Log::checkFormat(format, __VA_ARGS__);              \
        ::NSCam::NSTavrel::Log::assertionReport(kLogSite, tavrelLine, function, format,   \
                                                format TAVREL_ERROR_SUFFIX, __VA_ARGS__); \
    } while (0)
#define TAVREL_FATAL_(format, ...) TAVREL_FATAL_IN_(__func__, format, __VA_ARGS__)
#define TAVREL_FATAL_IN TAVREL_AT_THIS_LINE TAVREL_FATAL_IN_
#define TAVREL_FATAL TAVREL_AT_THIS_LINE TAVREL_FATAL_

// The driver report's format for `request`, the request's name as a literal, e.g.
// "VIDIOC_QBUF".
#define TAVREL_DRIVER_FORMAT(request) \
    request " err=%d(%s) Please check VarnokKernel.\nCRDISPATCH_KEY:VarnokKernel"

// `err` is the saved errno.
#define TAVREL_DRIVER_REPORT(request, err) \
    ::NSCam::NSTavrel::Log::driverReport(TAVREL_DRIVER_FORMAT(request), err)
