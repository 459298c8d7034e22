// System trace: category masks and atrace markers.
//
// The atrace_* functions are declared here with C++ linkage on purpose: the host's own
// libcutils (pulled in by libutils) exports C symbols of the same names as empty stubs,
// and which one a C-linkage call binds to would depend on link and load order. Mangled
// names cannot collide, so every call made through this header reaches this backend.
#pragma once

#include <atomic>
#include <cstdint>

#include "tavrel/platform/Export.h"

namespace tavrel::host {

// The masks live in exported atomics so that a gate costs one relaxed load, not a call.
extern TAVREL_PLATFORM_API std::atomic<uint64_t> gTavrelTraceBits;
extern TAVREL_PLATFORM_API std::atomic<uint64_t> gAtraceEnabledTags;

// Any thread. Replace the masks (initially from properties at load).
TAVREL_PLATFORM_API void setTavrelTraceBits(uint64_t bits);
TAVREL_PLATFORM_API void setAtraceEnabledTags(uint64_t tags);

// Receives each atrace marker ("B|pid|name", "E|pid", "C|pid|name|value",
// "S|pid|name|cookie", "F|pid|name|cookie") in addition to the trace file while installed.
using TraceSink = void (*)(void* cookie, const char* marker);

// Any thread. A null sink removes it. The sink runs on the tracing thread.
TAVREL_PLATFORM_API void setTraceSink(TraceSink sink, void* cookie);

// The path of the trace file being written, or null when markers go to the kernel's
// trace_marker or nowhere.
TAVREL_PLATFORM_API const char* traceFilePath();

// Any thread. Makes `path` the trace file (appended to; the ftrace header is written when
// it is empty), or with null sends markers nowhere; the trace properties no longer apply
// afterwards. Returns false, keeping the current output, when the file cannot be opened.
// A path returned earlier by traceFilePath() is invalid afterwards.
TAVREL_PLATFORM_API bool setTraceFile(const char* path);

}  // namespace tavrel::host

// Category bits of this library's trace points.
inline uint64_t get_tavrel_enabled_tracebits() {
    return tavrel::host::gTavrelTraceBits.load(std::memory_order_relaxed);
}

// Enabled atrace tags (bit 10, 0x400, is the camera tag).
inline uint64_t atrace_get_enabled_tags() {
    return tavrel::host::gAtraceEnabledTags.load(std::memory_order_relaxed);
}

TAVREL_PLATFORM_API void atrace_begin_body(const char* name);
TAVREL_PLATFORM_API void atrace_end_body();
TAVREL_PLATFORM_API void atrace_int_body(const char* name, int32_t value);
TAVREL_PLATFORM_API void atrace_async_begin_body(const char* name, int32_t cookie);
TAVREL_PLATFORM_API void atrace_async_end_body(const char* name, int32_t cookie);
