// Starting, stopping and re-arming one Timer from many threads at once.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "RunningMonitor.h"
#include "tavrel/Timer.h"

namespace tavrel::test {
namespace {

using NSCam::NSTavrel::Timer;

constexpr int kThreads = 6;
constexpr int kRounds = 2000;
constexpr long kNsPerSec = 1000000000L;

// Thread k always arms a period of k + 1 seconds due (k + 1) hours from the start: what
// the timer is left with tells which thread set it, and the two halves must agree.
timespec periodOf(int thread) {
    return {thread + 1, 0};
}
long aheadOf(int thread) {
    return (thread + 1) * 3600L * kNsPerSec;
}

TEST(TimerConcurrencyTest, ConcurrentStartsStopsAndRearmsNeverMixSettings) {
    auto timer = std::make_shared<Timer>("busy", CLOCK_MONOTONIC, [] {});
    const timespec start = now();
    std::vector<std::thread> threads;
    for (int k = 0; k < kThreads; ++k) {
        threads.emplace_back([&, k] {
            const timespec deadline = addNs(start, aheadOf(k));
            const timespec period = periodOf(k);
            for (int round = 0; round < kRounds; ++round) {
                timer->startTimerAbsoluteTime(&deadline, &period);
                timer->enableEdgeTrigger();
                if (round % 3 == 0) timer->stopTimer();
            }
            timer->startTimerAbsoluteTime(&deadline, &period);
        });
    }
    for (auto& thread : threads) thread.join();

    // Every thread's last call armed the timer; re-arms only ever keep a setting whole.
    const itimerspec left = settingOf(timer->getEventFD());
    const int64_t elapsedNs = toNs(now()) - toNs(start);
    int setter = -1;
    for (int k = 0; k < kThreads; ++k) {
        if (toNs(left.it_interval) == toNs(periodOf(k))) setter = k;
    }
    ASSERT_NE(setter, -1) << "period left: " << toNs(left.it_interval);
    EXPECT_LE(toNs(left.it_value), aheadOf(setter));
    EXPECT_GE(toNs(left.it_value), aheadOf(setter) - elapsedNs);
}

}  // namespace
}  // namespace tavrel::test
