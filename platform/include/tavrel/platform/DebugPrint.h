// The camera stack's debug-print service: leveled printf-style lines on the Android log.
#pragma once

#include <atomic>
#include <cstdint>

#include "tavrel/platform/Export.h"

enum cam_debug_level_t : int {
    CAM_DEBUG_VERBOSE = 0,
    CAM_DEBUG_ERROR = 1,
    CAM_DEBUG_WARNING = 2,
    CAM_DEBUG_INFO = 3,
};

// One record per debug level: which modules may print, and the text put before each line.
struct LogInfoLevel {
    std::atomic<uint64_t> enableMask;  // bit 55 enables this library
    const char* prefix;                // never contains '%': it becomes part of a format
};

inline constexpr int kLogInfoLevels = 4;

// Indexed by cam_debug_level_t. Masks may be changed at run time by any thread.
extern TAVREL_PLATFORM_API LogInfoLevel g_logInfoLv[kLogInfoLevels];

// Any thread. Formats `fmt` with the arguments and writes it at `level`.
TAVREL_PLATFORM_API void log_dbg_print(const char* tag, cam_debug_level_t level, const char* fmt,
                                       ...);

// Any thread. The text shown for `path` in a debug-print header; never contains '%'.
TAVREL_PLATFORM_API const char* get_filename_log_control(const char* path);

namespace tavrel::host {

// Receives each finished debug-print line instead of the Android log while installed.
using DebugPrintSink = void (*)(void* cookie, const char* tag, cam_debug_level_t level,
                                const char* text);

// Any thread. A null sink restores the Android log. The sink runs on the logging thread.
TAVREL_PLATFORM_API void setDebugPrintSink(DebugPrintSink sink, void* cookie);

}  // namespace tavrel::host
