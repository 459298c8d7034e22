// Crash reports with a dispatch key, and the request to end the camera service.
#pragma once

#include "tavrel/platform/Export.h"

namespace NSCam::NSTavrel {

// Any thread. Writes a crash report for `module` with the formatted text at fatal
// priority to the Android log (and to a report file when configured), then returns.
TAVREL_PLATFORM_API void tavrel_ruvex_trigger_exception(const char* module, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

}  // namespace NSCam::NSTavrel

namespace NSCam::Utils {

// Exit status of a process ended by terminateService() on Linux hosts.
inline constexpr int kTerminateServiceExitStatus = 70;

// Any thread. Flushes the loggers and ends the process with kTerminateServiceExitStatus.
TAVREL_PLATFORM_API void terminateService();

}  // namespace NSCam::Utils
