#include "LatencyProbe.h"

#include <algorithm>
#include <string>

#include "Deadline.h"

namespace tavrel::timerlat {
namespace {

constexpr int64_t kNsPerSec = 1000 * 1000 * 1000;
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

int64_t nowNs(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return toNs(now);
}

}  // namespace

LatencyProbe::LatencyProbe(int index, clockid_t clock, int64_t firstDeadlineNs, int64_t intervalNs,
                           int64_t loops)
    : mClock(clock),
      mIntervalNs(intervalNs),
      mLoops(loops),
      mFirstDeadlineNs(firstDeadlineNs),
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
    if (!mFirst) mSlips.push_back(slipOf(deadlines.dueNs, mPreviousNextNs, mIntervalNs));
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
