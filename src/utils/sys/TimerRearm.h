// What a Timer sets its timerfd to when it re-arms itself with what remains of its setting.
#pragma once

#include <time.h>

namespace NSCam::NSTavrel {

// Soonest possible expiry: the timer fires as soon as it is set.
inline constexpr timespec kFireAtOnce = {0, 1};

inline bool isZero(const timespec& t) {
    return t.tv_sec == 0 && t.tv_nsec == 0;
}

// `read` is what timerfd_gettime gave, `readOk` whether it succeeded, `armed` whether the
// last setting the kernel accepted armed the timer (a refused one changes nothing). A failed
// read disarms, as does a one-shot timer that has expired (it reads back all zeros).
//
// A periodic timer can read back a zero remaining time: its expiry has passed but the
// kernel has not fired it yet. Set back relative to now, that zero would disarm the timer
// for good, so such a timer is set to fire at once instead and keeps its period. A timer
// that was disarmed on purpose reads back the same zero (the kernel keeps the period) and
// stays disarmed.
inline itimerspec rearmSetting(const itimerspec& read, bool readOk, bool armed) {
    if (!readOk) return itimerspec{};
    if (!armed || isZero(read.it_interval) || !isZero(read.it_value)) return read;
    return itimerspec{read.it_interval, kFireAtOnce};
}

}  // namespace NSCam::NSTavrel
