#include "LatencyProbe.h"

#include <cmath>
#include <string>

#include "tavrel/SystemCall.h"

namespace tavrel::timerlat {
namespace {

constexpr int64_t kNsPerSec = 1000 * 1000 * 1000;

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
      mExpectedNs(firstDeadlineNs),
      mTimer(std::make_shared<NSCam::NSTavrel::Timer>(std::to_string(index).c_str(), clock,
                                                      [this] { onExpiry(); })) {}

void LatencyProbe::start() {
    const timespec value = toTimespec(mFirstDeadlineNs);
    const timespec interval = toTimespec(mIntervalNs);
    mTimer->startTimerAbsoluteTime(&value, &interval);
}

// The Timer re-arms itself relative to the time of the re-arm, so every deadline after the
// first is the one the kernel had scheduled plus the re-arm's own slip. The kernel knows
// the deadline that follows this one (it has moved the timer past now by whole intervals),
// so this one is that minus the number of intervals that lands nearest to the expected
// deadline; the slip is far below half an interval, which makes the choice exact.
LatencyProbe::Reading LatencyProbe::readDeadlines(int64_t wokeNs) {
    itimerspec setting{};
    const int readResult = NSCam::NSTavrel::System::TimerFDGetTime(mTimer->getEventFD(), &setting);
    const int64_t readNs = nowNs(mClock);
    const int64_t remainingNs = toNs(setting.it_value);
    if (readResult < 0 || remainingNs == 0) return {mExpectedNs, mExpectedNs + mIntervalNs};
    // The kernel read its clock between the two readings of ours.
    const int64_t nextNs = wokeNs + (readNs - wokeNs) / 2 + remainingNs;
    const double periods = std::round(static_cast<double>(nextNs - mExpectedNs) / mIntervalNs);
    const int64_t back = periods < 1 ? 1 : static_cast<int64_t>(periods);
    return {nextNs - back * mIntervalNs, nextNs};
}

void LatencyProbe::onExpiry() {
    const int64_t wokeNs = nowNs(mClock);
    if (done()) return;
    const Reading reading = readDeadlines(wokeNs);
    const int64_t latencyNs = wokeNs - reading.deadlineNs;
    mLatencies.push_back(latencyNs);
    if (!mFirst) mSlips.push_back(reading.deadlineNs - mExpectedNs);
    mFirst = false;
    mExpectedNs = reading.nextNs;
    if (latencyNs > maxNs()) mMaxNs.store(latencyNs, std::memory_order_relaxed);
    const int64_t count = mCount.fetch_add(1, std::memory_order_relaxed) + 1;
    if (mLoops != 0 && count >= mLoops) {
        mTimer->stopTimer();
        mDone.store(true, std::memory_order_release);
    }
}

}  // namespace tavrel::timerlat
