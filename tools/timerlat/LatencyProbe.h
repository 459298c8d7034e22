// One periodic Timer and the record of how late each of its callbacks ran.
#pragma once

#include <time.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ThreadState.h"
#include "tavrel/Timer.h"

namespace tavrel::timerlat {

class LatencyProbe {
public:
    // Any thread, before the monitor thread starts. Creates the timer, disarmed; it is
    // to expire first at `firstDeadlineNs` on `clock`. `loops` 0: no limit. With
    // `traceCounter`, each latency goes to the trace as a counter named after the timer.
    LatencyProbe(int index, clockid_t clock, int64_t firstDeadlineNs, int64_t intervalNs,
                 int64_t loops, bool traceCounter);

    // The timer, to attach to a monitor.
    const std::shared_ptr<NSCam::NSTavrel::Timer>& timer() const { return mTimer; }

    // Any thread, once. Arms the timer.
    void start();

    // Any thread. Progress, for the live line.
    int64_t count() const { return mCount.load(std::memory_order_relaxed); }
    int64_t maxNs() const { return mMaxNs.load(std::memory_order_relaxed); }
    bool done() const { return mDone.load(std::memory_order_acquire); }

    // Only once the monitor thread has been joined.
    const std::vector<int64_t>& latencies() const { return mLatencies; }
    const std::vector<int64_t>& slips() const { return mSlips; }
    int64_t missed() const { return mMissed; }
    const ThreadState& thread() const { return mThread; }

private:
    // Monitor thread: the timer's callback.
    void onExpiry();

    const clockid_t mClock;           // the timer's clock, also used to take the wake-up time
    const int64_t mIntervalNs;        // the timer's period
    const int64_t mLoops;             // expiries to record before stopping the timer; 0: all
    const int64_t mFirstDeadlineNs;   // what start() arms; never changes
    const bool mTraceCounter;         // write each latency to the trace
    int64_t mFloorNs;                 // the next expiry cannot be due before this
    int64_t mPreviousNextNs;          // the kernel's next deadline at the last expiry
    bool mFirst = true;               // the first expiry has no previous deadline to slip from
    std::vector<int64_t> mLatencies;  // wake-up minus deadline, per expiry
    std::vector<int64_t> mSlips;      // how far each re-arm moved the next deadline
    int64_t mMissed = 0;              // deadlines passed without a callback of their own
    ThreadState mThread;              // the monitor thread's scheduling at the first expiry
    std::atomic<int64_t> mCount{0};   // expiries recorded so far
    std::atomic<int64_t> mMaxNs{0};   // largest latency so far
    std::atomic<bool> mDone{false};   // mLoops reached and the timer stopped
    std::shared_ptr<NSCam::NSTavrel::Timer> mTimer;  // the timer measured
};

}  // namespace tavrel::timerlat
