// Trace points gated by this library's category bits and the camera trace tag.
#pragma once

#include <cstdint>
#include <type_traits>

#include "tavrel/platform/Trace.h"

namespace NSCam::NSTavrel::Trace {

constexpr uint64_t bit(unsigned n) {
    return uint64_t{1} << n;
}

// No category: a trace point under it never fires (calls that are not traced).
inline constexpr uint64_t kNone = 0;
// Category bits, one per family of trace points.
inline constexpr uint64_t kFileCalls = bit(0);         // file, directory, descriptor creation
inline constexpr uint64_t kEventCalls = bit(1);        // epoll and timerfd calls
inline constexpr uint64_t kStatIoctl = bit(2);         // Stat, Ioctl, AddIova, DelIova
inline constexpr uint64_t kMonitorLife = bit(4);       // monitor lifecycle and interrupt
inline constexpr uint64_t kMediaAlloc = bit(5);        // AllocMediaRequest
inline constexpr uint64_t kMediaQueue = bit(8);        // QueueMediaRequest
inline constexpr uint64_t kQueueBuf = bit(9);          // QueueVideoNodeBuf
inline constexpr uint64_t kAttachModify = bit(10);     // attach and modify
inline constexpr uint64_t kHandleEvents = bit(12);     // handleEvents, tryEpoll
inline constexpr uint64_t kDispatch = bit(13);         // per-observer dispatch, DQueueVideoNodeBuf
inline constexpr uint64_t kDetach = bit(14);           // detach
inline constexpr uint64_t kDQueueEvent = bit(32);      // DQueueEvent
inline constexpr uint64_t kObserverCounter = bit(36);  // observer-count counter
inline constexpr uint64_t kObserverSpan = bit(37);     // per-descriptor async span

// The atrace tag that must be on for any of them.
inline constexpr uint64_t kCameraTag = 0x400;

// A gate is tested afresh at every trace point: nothing is remembered between a begin and
// its end. It reads the category bits first and then the camera tag.
inline bool categoryOn(uint64_t category) {
    return (get_tavrel_enabled_tracebits() & category) != 0;
}

inline bool cameraTagOn() {
    // Kept for the stack: the camera tag is read twice, as the platform's trace macros do.
    return (atrace_get_enabled_tags() & kCameraTag) != 0 &&
           (atrace_get_enabled_tags() & kCameraTag) != 0;
}

inline bool enabled(uint64_t category) {
    return categoryOn(category) && cameraTagOn();
}

// Brackets a scope. Entry and exit test the gate independently, so a change of the masks
// in between can leave a begin without its end or an end without its begin.
class Section {
public:
    Section(uint64_t category, const char* name) : mCategory(category) {
        if (enabled(mCategory)) atrace_begin_body(name);
    }
    // For names built at run time: `nameOf()` returns the name and is called only when the
    // section opens, so an untraced section builds none.
    template <typename NameOf,
              typename = std::enable_if_t<std::is_invocable_r_v<const char*, NameOf>>>
    Section(uint64_t category, NameOf nameOf) : mCategory(category) {
        if (enabled(mCategory)) atrace_begin_body(nameOf());
    }
    ~Section() {
        if (enabled(mCategory)) atrace_end_body();
    }
    Section(const Section&) = delete;
    Section& operator=(const Section&) = delete;

private:
    const uint64_t mCategory;  // the gate to test again at the end
};

inline void counter(uint64_t category, const char* name, int32_t value) {
    if (enabled(category)) atrace_int_body(name, value);
}

inline void asyncBegin(uint64_t category, const char* name, int32_t cookie) {
    if (enabled(category)) atrace_async_begin_body(name, cookie);
}

inline void asyncEnd(uint64_t category, const char* name, int32_t cookie) {
    if (enabled(category)) atrace_async_end_body(name, cookie);
}

}  // namespace NSCam::NSTavrel::Trace
