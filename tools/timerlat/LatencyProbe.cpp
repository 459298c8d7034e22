#include "LatencyProbe.h"

#include <algorithm>
#include <string>

#include "Deadline.h"
#include "tavrel/platform/Trace.h"

namespace tavrel::timerlat {
namespace {

constexpr int64_t kNsPerUs = 1000;
constexpr int64_t kNsPerSec = 1000 * kNsPerUs * 1000;
// A look at the timer is taken again when its clock readings are further apart than this,
// up to kMaxLooks times: the deadlines it gives can be early by that much. Its two system
// calls take about a microsecond, except in the first look after an expiry, in which the
// kernel restarts the timer; a look much wider than that was preempted.
constexpr int64_t kTightLookNs = 5 * 1000;
constexpr int kMaxLooks = 8;

int64_t toNs(const timespec& t) {
    return int64_t{t.tv_sec} * kNsPerSec + t.tv_nsec;
}

timespec toTimespec(int64_t ns) {
    return {ns / kNsPerSec, ns % kNsPerSec};
}

// The largest latency a trace counter can show, in microseconds.
constexpr int64_t kMaxCounterUs = INT32_MAX;

int64_t nowNs(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return toNs(now);
}

}  // namespace

LatencyProbe::LatencyProbe(int index, clockid_t clock, int64_t firstDeadlineNs, int64_t intervalNs,
                           int64_t loops, bool traceCounter)
    : mClock(clock),
      mIntervalNs(intervalNs),
      mLoops(loops),
      mFirstDeadlineNs(firstDeadlineNs),
      mTraceCounter(traceCounter),
      // start() arms this deadline as an absolute time: the first expiry is due exactly then.
      mFloorNs(firstDeadlineNs),
      mPreviousNextNs(firstDeadlineNs),
      mTimer(std::make_shared<NSCam::NSTavrel::Timer>(std::to_string(index).c_str(), clock,
                                                      [this] { onExpiry(); })) {}

void LatencyProbe::start() {
    const timespec value = toTimespec(mFirstDeadlineNs);
    const timespec interval = toTimespec(mIntervalNs);
    mTimer->startTimerAbsoluteTime(&value, &interval);
}

void LatencyProbe::onExpiry() {
    const int64_t wokeNs = nowNs(mClock);
    if (done()) return;
    // Before the Timer re-arms: the kernel still counts expirations from the deadline the
    // last re-arm (or start()) set, which is the one this expiry was due at.
    const TimerLook look = lookAt(mTimer->getEventFD(), mClock, kTightLookNs, kMaxLooks);
    const ExpiryDeadlines deadlines = deadlinesOf(look, mIntervalNs, mFloorNs);
    const int64_t latencyNs = wokeNs - deadlines.dueNs;
    mLatencies.push_back(latencyNs);
    if (mTraceCounter) {
        const int64_t us = std::clamp<int64_t>(latencyNs / kNsPerUs, 0, kMaxCounterUs);
        atrace_int_body(mTimer->getEventName().c_str(), static_cast<int32_t>(us));
    }
    // The deadlines read() counted beyond the due one ran no callback; neither did those
    // a re-arm skipped: whole intervals between the last next deadline and this due one.
    mMissed += std::max<int64_t>(look.expiries - 1, 0);
    if (mFirst) {
        mThread = observeThisThread();
    } else {
        const int64_t slipNs = slipOf(deadlines.dueNs, mPreviousNextNs, mIntervalNs);
        mSlips.push_back(slipNs);
        mMissed += std::max<int64_t>((deadlines.dueNs - mPreviousNextNs - slipNs) / mIntervalNs, 0);
    }
    mFirst = false;
    mPreviousNextNs = deadlines.nextNs;
    // The re-arm that follows sets a deadline no sooner than the kernel's next one, and in
    // the future of everything this callback has seen.
    mFloorNs = std::max(deadlines.nextNs, look.afterNs);
    if (latencyNs > maxNs()) mMaxNs.store(latencyNs, std::memory_order_relaxed);
    const int64_t count = mCount.fetch_add(1, std::memory_order_relaxed) + 1;
    if (mLoops != 0 && count >= mLoops) {
        mTimer->stopTimer();
        mDone.store(true, std::memory_order_release);
    }
}

}  // namespace tavrel::timerlat
