// Real timerfds on a running monitor: when callbacks run and what the timer is left with.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>

#include "RunningMonitor.h"
#include "tavrel/Timer.h"

namespace {

using NSCam::NSTavrel::Timer;
using tavrel::test::addNs;
using tavrel::test::EventCounter;
using tavrel::test::now;
using tavrel::test::RunningMonitor;
using tavrel::test::settingOf;

constexpr long kMs = 1000 * 1000;
constexpr timespec kOnce = {0, 0};

int64_t toNs(const timespec& t) {
    return int64_t{t.tv_sec} * 1000000000 + t.tv_nsec;
}

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

TEST(TimerFiringTest, OneShotDeadlinesFireOnceAndLeaveTheTimerDisarmed) {
    for (long aheadMs : {20L, -1000L}) {  // in the future, and already past
        SCOPED_TRACE(aheadMs);
        RunningMonitor monitor;
        EventCounter fired;
        auto timer = std::make_shared<Timer>("p2", CLOCK_MONOTONIC, [&] { fired.add(); });
        monitor->attach(timer.get(), timer->getEventType());
        const timespec deadline = addNs(now(), aheadMs * kMs);
        timer->startTimerAbsoluteTime(&deadline, &kOnce);

        ASSERT_TRUE(fired.waitFor(1));
        settle();
        EXPECT_EQ(fired.count(), 1);
        EXPECT_TRUE(disarmed(settingOf(timer->getEventFD())));
        finish(monitor, {timer.get()});
    }
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

TEST(TimerFiringTest, CallbackCanStopOrRestartItsOwnTimer) {
    RunningMonitor monitor;
    // Stopped from the callback: the re-arm keeps it stopped.
    EventCounter stopped;
    std::shared_ptr<Timer> stopping;
    stopping = std::make_shared<Timer>("stop", CLOCK_MONOTONIC, [&] {
        stopping->stopTimer();
        stopped.add();
    });
    // Given a far deadline from the callback: the re-arm keeps that deadline.
    EventCounter restarted;
    const timespec farDeadline = addNs(now(), 3600L * 1000 * kMs);
    std::shared_ptr<Timer> restarting;
    restarting = std::make_shared<Timer>("restart", CLOCK_MONOTONIC, [&] {
        restarting->startTimerAbsoluteTime(&farDeadline, &kOnce);
        restarted.add();
    });
    const timespec interval = {0, 1 * kMs};
    const timespec soon = addNs(now(), 5 * kMs);
    for (Timer* timer : {stopping.get(), restarting.get()}) {
        monitor->attach(timer, timer->getEventType());
        timer->startTimerAbsoluteTime(&soon, &interval);
    }

    ASSERT_TRUE(stopped.waitFor(1));
    ASSERT_TRUE(restarted.waitFor(1));
    settle();
    EXPECT_EQ(stopped.count(), 1);
    EXPECT_EQ(restarted.count(), 1);
    EXPECT_TRUE(disarmed(settingOf(stopping->getEventFD())));
    const itimerspec kept = settingOf(restarting->getEventFD());
    EXPECT_EQ(toNs(kept.it_interval), 0);
    // What is left is close to the hour given, and certainly not the old period.
    EXPECT_GT(toNs(kept.it_value), 3500L * 1000 * kMs);
    EXPECT_LE(toNs(kept.it_value), 3600L * 1000 * kMs);
    finish(monitor, {stopping.get(), restarting.get()});
}

// Destroyed along with the Timer's callback: records where and when that happened.
class DeathWitness {
public:
    DeathWitness(std::thread::id* diedOn, bool* callbackHadReturned,
                 const std::atomic<bool>* callbackReturned, EventCounter* died)
        : mDiedOn(diedOn),
          mCallbackHadReturned(callbackHadReturned),
          mCallbackReturned(callbackReturned),
          mDied(died) {}
    DeathWitness(const DeathWitness&) = delete;
    DeathWitness& operator=(const DeathWitness&) = delete;

    ~DeathWitness() {
        *mDiedOn = std::this_thread::get_id();
        *mCallbackHadReturned = mCallbackReturned->load();
        mDied->add();
    }

private:
    std::thread::id* mDiedOn;                    // where the Timer was destroyed
    bool* mCallbackHadReturned;                  // whether its callback had finished by then
    const std::atomic<bool>* mCallbackReturned;  // set by the callback as it finishes
    EventCounter* mDied;                         // counts the destruction
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
        auto witness =
            std::make_shared<DeathWitness>(&diedOn, &callbackHadReturned, &callbackReturned, &died);
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
