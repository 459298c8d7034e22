#include "Deadline.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>

namespace tavrel::timerlat {
namespace {

constexpr int64_t kNsPerSec = 1000 * 1000 * 1000;

int64_t nowNs(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return int64_t{now.tv_sec} * kNsPerSec + now.tv_nsec;
}

// Expirations not yet drained; 0 when there are none (the timerfd does not block).
int64_t drainExpiries(int fd) {
    uint64_t expiries = 0;
    return ::read(fd, &expiries, sizeof(expiries)) == sizeof(expiries)
               ? static_cast<int64_t>(expiries)
               : 0;
}

}  // namespace

bool isConsistent(const TimerLook& look) {
    // The kernel read its clock at beforeNs or later, so its next deadline came no sooner
    // than beforeNs + remainingNs; if that is past afterNs, read() ran before it.
    return look.remainingNs > 0 && look.expiries > 0 && look.afterNs >= look.beforeNs &&
           look.beforeNs + look.remainingNs > look.afterNs;
}

ExpiryDeadlines deadlinesOf(const TimerLook& look, int64_t intervalNs, int64_t floorNs) {
    if (look.remainingNs <= 0 || look.expiries < 1) {
        // No next deadline known (a failed call, or one that passed without firing yet), or
        // no expiry to count back from: only the floor is known, and the next deadline comes
        // after the look (the re-arm sets it in the future).
        return {floorNs, std::max(floorNs, look.afterNs)};
    }
    // The kernel's reading of its clock is somewhere in [beforeNs, afterNs]: the early end
    // keeps both deadlines from being placed later than they are. Every deadline from the
    // one due up to the reading was drained by read(), which can only have counted more
    // (any that passed after the reading), which moves the due one earlier still.
    const int64_t nextNs = look.beforeNs + look.remainingNs;
    const int64_t dueNs = std::max(nextNs - look.expiries * intervalNs, floorNs);
    return {dueNs, nextNs};
}

int64_t slipOf(int64_t dueNs, int64_t previousNextNs, int64_t intervalNs) {
    const int64_t half = intervalNs / 2;
    // Floor modulo, so that negative differences reduce the same way as positive ones.
    int64_t slip = (dueNs - previousNextNs + half) % intervalNs;
    if (slip < 0) slip += intervalNs;
    return slip - half;
}

TimerLook lookAt(int fd, clockid_t clock, int64_t tightNs, int maxLooks) {
    // Plain system calls, not the library's wrappers: no trace or log work may widen the
    // bracket of clock readings.
    TimerLook look;
    int64_t expiries = 0;
    for (int taken = 1;; ++taken) {
        itimerspec setting{};
        look.beforeNs = nowNs(clock);
        const bool readOk = ::timerfd_gettime(fd, &setting) == 0;
        expiries += drainExpiries(fd);
        look.afterNs = nowNs(clock);
        look.remainingNs =
            readOk ? int64_t{setting.it_value.tv_sec} * kNsPerSec + setting.it_value.tv_nsec : -1;
        look.expiries = expiries;
        const bool tight = look.afterNs - look.beforeNs <= tightNs;
        if ((isConsistent(look) && tight) || taken >= maxLooks) return look;
    }
}

}  // namespace tavrel::timerlat
