// Real timerfds on a running monitor: when callbacks run and what the timer is left with.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "RunningMonitor.h"
#include "tavrel/Timer.h"

namespace tavrel::test {
namespace {

using NSCam::NSTavrel::Timer;

constexpr long kMs = 1000 * 1000;
constexpr timespec kOnce = {0, 0};

bool disarmed(const itimerspec& s) {
    return s.it_value.tv_sec == 0 && s.it_value.tv_nsec == 0 && s.it_interval.tv_sec == 0 &&
           s.it_interval.tv_nsec == 0;
}

// Long enough for a wrongly repeated expiry to have been dispatched.
void settle() {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
}

// Timers outlive the monitor thread: it is joined before they are detached and dropped,
// so no callback can still be running when they go.
void finish(RunningMonitor& monitor, std::initializer_list<Timer*> timers) {
    monitor.stop();
    for (Timer* timer : timers) monitor->detach(timer);
}

// Every dispatch re-arms the timer and so clears its expiration count: the
// edge-triggered registration reports the next expiry again, once.
TEST(TimerFiringTest, PeriodicTimerRunsOneCallbackPerExpiryAndKeepsRunning) {
    constexpr long kIntervalNs = 2 * kMs;
    constexpr int kExpiries = 300;
    RunningMonitor monitor;
    EventCounter fired;
    std::mutex timesMutex;
    int64_t firstNs = 0;
    int64_t lastNs = 0;
    auto timer = std::make_shared<Timer>("periodic", CLOCK_MONOTONIC, [&] {
        std::lock_guard<std::mutex> lock(timesMutex);
        lastNs = toNs(now());
        if (firstNs == 0) firstNs = lastNs;
        fired.add();
    });
    monitor->attach(timer.get(), timer->getEventType());
    const timespec interval = {0, kIntervalNs};
    const timespec start = addNs(now(), kIntervalNs);
    timer->startTimerAbsoluteTime(&start, &interval);

    ASSERT_TRUE(fired.waitFor(kExpiries));
    const int count = fired.count();
    {
        std::lock_guard<std::mutex> lock(timesMutex);
        // The kernel never expires the timer sooner than an interval after the last time,
        // so more callbacks than intervals elapsed would be callbacks without an expiry.
        EXPECT_LE(count - 1, (lastNs - firstNs) / kIntervalNs);
    }
    const itimerspec setting = settingOf(timer->getEventFD());
    EXPECT_EQ(toNs(setting.it_interval), kIntervalNs);
    EXPECT_GT(toNs(setting.it_value), 0);
    finish(monitor, {timer.get()});
}

// One callback per expiry, and the re-arm after it keeps what the callback left: one-shots
// due ahead or already past end disarmed, a periodic timer stopped from its callback stays
// stopped, and one given a far deadline from its callback keeps that deadline.
TEST(TimerFiringTest, ExpiryRunsOneCallbackAndTheReArmKeepsWhatItLeft) {
    RunningMonitor monitor;
    EventCounter aheadFired, pastFired, stopped, restarted;
    auto ahead = std::make_shared<Timer>("ahead", CLOCK_MONOTONIC, [&] { aheadFired.add(); });
    auto past = std::make_shared<Timer>("past", CLOCK_MONOTONIC, [&] { pastFired.add(); });
    std::shared_ptr<Timer> stopping;
    stopping = std::make_shared<Timer>("stop", CLOCK_MONOTONIC, [&] {
        stopping->stopTimer();
        stopped.add();
    });
    const timespec farDeadline = addNs(now(), 3600L * 1000 * kMs);
    std::shared_ptr<Timer> restarting;
    restarting = std::make_shared<Timer>("restart", CLOCK_MONOTONIC, [&] {
        restarting->startTimerAbsoluteTime(&farDeadline, &kOnce);
        restarted.add();
    });
    const std::initializer_list<Timer*> timers = {ahead.get(), past.get(), stopping.get(),
                                                  restarting.get()};
    for (Timer* timer : timers) monitor->attach(timer, timer->getEventType());
    const timespec aheadDeadline = addNs(now(), 20 * kMs);
    const timespec pastDeadline = addNs(now(), -1000 * kMs);
    const timespec interval = {0, 1 * kMs};
    const timespec soon = addNs(now(), 5 * kMs);
    ahead->startTimerAbsoluteTime(&aheadDeadline, &kOnce);
    past->startTimerAbsoluteTime(&pastDeadline, &kOnce);
    stopping->startTimerAbsoluteTime(&soon, &interval);
    restarting->startTimerAbsoluteTime(&soon, &interval);

    const std::initializer_list<EventCounter*> counters = {&aheadFired, &pastFired, &stopped,
                                                           &restarted};
    for (EventCounter* fired : counters) ASSERT_TRUE(fired->waitFor(1));
    settle();
    for (EventCounter* fired : counters) EXPECT_EQ(fired->count(), 1);
    for (Timer* timer : {ahead.get(), past.get(), stopping.get()})
        EXPECT_TRUE(disarmed(settingOf(timer->getEventFD()))) << timer->getEventName();
    const itimerspec kept = settingOf(restarting->getEventFD());
    EXPECT_EQ(toNs(kept.it_interval), 0);
    // What is left is close to the hour given, and certainly not the old period.
    EXPECT_GT(toNs(kept.it_value), 3500L * 1000 * kMs);
    EXPECT_LE(toNs(kept.it_value), 3600L * 1000 * kMs);
    finish(monitor, timers);
}

// Destroyed along with the Timer's callback that holds it: runs `onDestroy` then.
struct DestroyWitness {
    std::function<void()> onDestroy;
    ~DestroyWitness() { onDestroy(); }
};

TEST(TimerFiringTest, CallbackDroppingTheLastOwnerDestroysTheTimerAfterItReturns) {
    RunningMonitor monitor;
    std::thread::id callbackRanOn;
    std::thread::id diedOn;
    bool callbackHadReturned = false;
    std::atomic<bool> callbackReturned{false};
    EventCounter died;
    std::mutex ownerMutex;
    std::shared_ptr<Timer> owner;
    {
        // Records where and when the Timer went.
        auto witness = std::make_shared<DestroyWitness>();
        witness->onDestroy = [&] {
            diedOn = std::this_thread::get_id();
            callbackHadReturned = callbackReturned.load();
            died.add();
        };
        owner = std::make_shared<Timer>("drop", CLOCK_MONOTONIC, [&, witness] {
            callbackRanOn = std::this_thread::get_id();
            std::lock_guard<std::mutex> lock(ownerMutex);
            monitor->detach(owner.get());
            owner.reset();
            callbackReturned = true;
        });
    }
    monitor->attach(owner.get(), owner->getEventType());
    const timespec deadline = addNs(now(), 5 * kMs);
    {
        std::lock_guard<std::mutex> lock(ownerMutex);
        owner->startTimerAbsoluteTime(&deadline, &kOnce);
    }

    ASSERT_TRUE(died.waitFor(1));
    monitor.stop();
    EXPECT_TRUE(callbackHadReturned);
    EXPECT_EQ(diedOn, callbackRanOn);
    EXPECT_NE(diedOn, std::this_thread::get_id());
}

}  // namespace
}  // namespace tavrel::test
