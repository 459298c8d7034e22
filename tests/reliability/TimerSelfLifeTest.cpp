// Timers whose callback, on successive expiries, restarts its own Timer, stops it, and
// finally detaches it and drops its last owner: each Timer goes through all three in one
// life, many at a time, and is destroyed on the monitor thread after its callback returned.
#include <gtest/gtest.h>
#include <sys/timerfd.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "DrainObserver.h"
#include "Figures.h"
#include "RunBudget.h"
#include "tavrel/Timer.h"
#include "timer/RunningMonitor.h"

namespace tavrel::test {
namespace {

using NSCam::NSTavrel::IEpollMonitor;
using NSCam::NSTavrel::Timer;

constexpr std::chrono::milliseconds kReleaseDuration{1500};
constexpr uint64_t kReleaseLives = 4000;
constexpr int kTimersAtOnce = 8;
constexpr long kSoonNs = 200000;
constexpr long kPeriodNs = 1000000;
constexpr long kRestartPeriodNs = 2000000;
constexpr timespec kOnce = {0, 0};

enum Phase : int { kRestarts = 1, kStops = 2, kDrops = 3 };

// One Timer's life, seen from both sides; the Timer's only owner lives here.
struct Life {
    std::mutex ownerMutex;  // the owner is reset on the monitor thread
    std::shared_ptr<Timer> owner;
    std::weak_ptr<Timer> watch;
    std::atomic<int> phase{0};  // expiries seen by the callback
    std::atomic<bool> callbackReturned{false};
    std::atomic<bool> destroyed{false};
    std::atomic<bool> destroyedAfterReturn{false};
    std::atomic<bool> destroyedOnCallbackThread{false};
    std::thread::id callbackThread;
    int fd = -1;
};

// Destroyed along with the Timer's callback: tells when and where the Timer went.
class Witness {
public:
    explicit Witness(Life* life) : mLife(life) {}
    Witness(const Witness&) = delete;
    Witness& operator=(const Witness&) = delete;
    ~Witness() {
        mLife->destroyedAfterReturn = mLife->callbackReturned.load();
        mLife->destroyedOnCallbackThread = mLife->callbackThread == std::this_thread::get_id();
        mLife->destroyed = true;
    }

private:
    Life* mLife;  // outlives the Timer
};

void onExpiry(Life* life, IEpollMonitor* monitor) {
    life->callbackThread = std::this_thread::get_id();
    const int phase = life->phase.load() + 1;
    std::lock_guard<std::mutex> lock(life->ownerMutex);
    if (phase == kRestarts) {
        // A new deadline and period replace the first; the re-arm after this callback
        // keeps them. Periodic, because a one-shot deadline that passes before that
        // re-arm reads back as spent and its expiry would be cleared unseen.
        const timespec soon = addNs(now(), kSoonNs);
        const timespec period = {0, kRestartPeriodNs};
        life->owner->startTimerAbsoluteTime(&soon, &period);
    } else if (phase == kStops) {
        life->owner->stopTimer();
    } else {
        monitor->detach(life->owner.get());
        life->owner.reset();
        life->callbackReturned = true;
    }
    life->phase = phase;
}

void begin(Life& life, IEpollMonitor& monitor) {
    auto witness = std::make_shared<Witness>(&life);
    auto timer = std::make_shared<Timer>("self", CLOCK_MONOTONIC,
                                         [&life, &monitor, witness] { onExpiry(&life, &monitor); });
    life.fd = timer->getEventFD();
    life.watch = timer;
    monitor.attach(timer.get(), static_cast<int>(timer->getEventType()));
    std::lock_guard<std::mutex> lock(life.ownerMutex);
    life.owner = std::move(timer);
    const timespec first = addNs(now(), kSoonNs);
    const timespec period = {0, kPeriodNs};
    life.owner->startTimerAbsoluteTime(&first, &period);
}

bool disarmed(int fd) {
    const itimerspec setting = settingOf(fd);
    return setting.it_value.tv_sec == 0 && setting.it_value.tv_nsec == 0 &&
           setting.it_interval.tv_sec == 0 && setting.it_interval.tv_nsec == 0;
}

TEST(ReliabilityTimerSelfLife, CallbackRestartsStopsAndDropsItsOwnTimerInTurn) {
    const RunBudget budget(kReleaseDuration, kReleaseLives);
    RunningMonitor monitor;
    DispatchBarrier barrier(*monitor);
    uint64_t lives = 0, stoppedSeen = 0, restartedFromOutside = 0, good = 0, lost = 0;
    while (lives < budget.count() && !budget.expired()) {
        std::vector<std::unique_ptr<Life>> batch;
        for (int i = 0; i < kTimersAtOnce; ++i) {
            batch.push_back(std::make_unique<Life>());
            begin(*batch.back(), *monitor);
        }
        for (auto& life : batch) {
            if (!waitUntil([&] { return life->phase.load() >= kStops; })) ++lost;
        }
        // A restart from here must wait until the stopping expiry's own re-arm has run:
        // a one-shot deadline reached before that re-arm reads back as spent, and the
        // re-arm would clear its expiry unseen.
        if (!barrier.pass()) ++lost;
        for (auto& life : batch) {
            if (life->phase.load() < kStops) continue;
            // The callback stopped it; its re-arm keeps it stopped until someone restarts it.
            stoppedSeen += disarmed(life->fd) ? 1 : 0;
            // Through the one owner, under its lock: a second owner held here could
            // outlive the callback's drop and move the destruction to this thread.
            std::lock_guard<std::mutex> lock(life->ownerMutex);
            if (life->owner != nullptr) {
                const timespec soon = addNs(now(), kSoonNs);
                life->owner->startTimerAbsoluteTime(&soon, &kOnce);
                ++restartedFromOutside;
            }
        }
        for (auto& life : batch) {
            if (!waitUntil([&] { return life->destroyed.load(); })) {
                ++lost;
                continue;
            }
            const bool whole = life->phase.load() == kDrops && life->destroyedAfterReturn.load() &&
                               life->destroyedOnCallbackThread.load() && life->watch.expired();
            good += whole ? 1 : 0;
            ++lives;
        }
        if (lost != 0) break;
    }
    monitor.stop();
    reportFigures("timer_self_life",
                  {{"lives", static_cast<int64_t>(lives)},
                   {"stopped_by_callback", static_cast<int64_t>(stoppedSeen)},
                   {"restarted_from_outside", static_cast<int64_t>(restartedFromOutside)},
                   {"destroyed_after_callback_on_monitor_thread", static_cast<int64_t>(good)},
                   {"lost", static_cast<int64_t>(lost)}},
                  budget);
    EXPECT_EQ(lost, 0u);
    EXPECT_GT(lives, 0u);
    EXPECT_EQ(stoppedSeen, lives);
    EXPECT_EQ(restartedFromOutside, lives);
    EXPECT_EQ(good, lives);
}

}  // namespace
}  // namespace tavrel::test
