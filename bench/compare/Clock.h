// The one clock every measurement here reads.
#pragma once

#include <time.h>

#include <cstdint>

namespace tavrel::bench {

inline constexpr int64_t kNsPerSec = 1'000'000'000;

inline int64_t readNs(clockid_t clock) {
    timespec ts;
    ::clock_gettime(clock, &ts);
    return ts.tv_sec * kNsPerSec + ts.tv_nsec;
}

inline int64_t nowNs() {
    return readNs(CLOCK_MONOTONIC);
}

}  // namespace tavrel::bench
