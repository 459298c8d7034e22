// Where the expiry that woke a periodic Timer's callback was due, worked out from inside
// the callback, before the Timer re-arms itself.
//
// The kernel only ever tells how long remains to its next deadline, measured on a reading
// of the clock that user space cannot see; the thread can be preempted on either side of
// that reading. So every deadline here is bracketed by two readings of our own and taken
// at the early end of the bracket: it is never later than the true one, and a latency
// measured against it is never below the true latency, which is never below zero.
#pragma once

#include <time.h>

#include <cstdint>

namespace tavrel::timerlat {

// One look at a periodic timerfd: timerfd_gettime, then read() of the expirations, between
// two readings of the timer's own clock.
struct TimerLook {
    int64_t beforeNs = 0;      // the timer's clock just before timerfd_gettime
    int64_t afterNs = 0;       // the timer's clock just after the read() that follows it
    int64_t remainingNs = -1;  // it_value of timerfd_gettime; -1: the call failed, 0: passed
    int64_t expiries = 0;      // expirations drained by read() in this callback, all looks
};

// The deadlines a look implies, both no later than the true ones.
struct ExpiryDeadlines {
    int64_t dueNs;   // when the expiry that woke the callback was due
    int64_t nextNs;  // the kernel's next deadline, before the re-arm moves it
};

// Whether the look can be taken at its word: the kernel gave a remaining time and its next
// deadline cannot have passed before read() ran, so `expiries` counts exactly the
// deadlines from the one due up to, not including, that next one.
bool isConsistent(const TimerLook& look);

// The deadlines of `look` on a timer of period `intervalNs`. `floorNs` is a time the due
// deadline is known not to precede (the previous expiry's next deadline: a re-arm only
// ever moves a deadline later); it is also what is left when the look tells nothing. A
// consistent look is exact to within its width, afterNs - beforeNs.
ExpiryDeadlines deadlinesOf(const TimerLook& look, int64_t intervalNs, int64_t floorNs);

// How far a re-arm moved the schedule: `dueNs` against the kernel's next deadline at the
// previous expiry, less the whole intervals the kernel skipped in between, so within
// [-intervalNs / 2, intervalNs / 2).
int64_t slipOf(int64_t dueNs, int64_t previousNextNs, int64_t intervalNs);

// Looks at the periodic timerfd `fd` on `clock` until a look is consistent and no wider
// than `tightNs`, or `maxLooks` have been taken, and returns the last look. Drains the
// timerfd's expirations: only for a callback whose timer re-arms itself afterwards.
TimerLook lookAt(int fd, clockid_t clock, int64_t tightNs, int maxLooks);

}  // namespace tavrel::timerlat
