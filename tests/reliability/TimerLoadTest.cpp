// A hundred 1 ms periodic Timers on one monitor while another thread keeps a core busy:
// every Timer keeps firing to the end of the run and none is left disarmed. A periodic
// Timer that reads back no time left is set to fire at once; the run counts how often
// that happened, from the Timers' own verbose re-arm lines.
#include <gtest/gtest.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <numeric>
#include <optional>
#include <thread>
#include <vector>

#include "ReliabilitySupport.h"
#include "common/LogCapture.h"
#include "tavrel/Timer.h"
#include "tavrel/platform/Properties.h"
#include "timer/RunningMonitor.h"

namespace tavrel::test {
namespace {

using NSCam::NSTavrel::Timer;

constexpr int kTimers = 100;
constexpr long kPeriodNs = 1000000;
constexpr std::chrono::milliseconds kReleaseDuration{2000};
// Expiries of all Timers together; at 1 ms each, time is the usual limit.
constexpr uint64_t kReleaseExpiries = 1000000;
// Every Timer must have fired in this last share of the run.
constexpr int kLastPartDivisor = 4;
// The run under valgrind, which executes one thread at a time: it dispatches a few
// thousand expiries a second, so a hundred Timers served in turn each get one every few
// tens of milliseconds, and the last part must be some of those long (a share of its
// release duration would leave it 20 ms).
constexpr std::chrono::milliseconds kShortestUnderValgrind{1000};
constexpr std::chrono::milliseconds kProgressPause{10};
// A running periodic Timer can read back zero just as it expires; a few looks apart
// tell that from one that has stopped.
constexpr int kSettingLooks = 5;
constexpr std::chrono::milliseconds kSettingPause{2};
constexpr const char* kLogvProperty = "persist.vendor.camera.tavrel.timer.logv";

// Counts the Timers' re-arm lines on the unified route instead of keeping them: how many
// expiries were re-armed and how many of those found a periodic timer with no time left
// and set it to fire at once.
class RearmCounter : public LogCapture {
public:
    RearmCounter() : LogCapture(unifiedOnly()) {}

    void writeLine(uint32_t, const char* tag, int, const char* text, int) override {
        constexpr const char kRearmHead[] = "[enableEdgeTrigger] ";
        if (std::strcmp(tag, "tavrel-Timer") != 0 ||
            std::strncmp(text, kRearmHead, sizeof(kRearmHead) - 1) != 0)
            return;
        mRearms.fetch_add(1, std::memory_order_relaxed);
        // Fire-at-once keeps the period; a setting read back with time left ends otherwise.
        if (std::strstr(text, ".it_value=0.1 }") != nullptr &&
            std::strstr(text, ".it_interval=0.0 ") == nullptr)
            mFiredAtOnce.fetch_add(1, std::memory_order_relaxed);
    }

    uint64_t rearms() const { return mRearms.load(); }
    uint64_t firedAtOnce() const { return mFiredAtOnce.load(); }

private:
    static LogSwitches unifiedOnly() {
        LogSwitches switches;
        switches.mode = 0x2;
        return switches;
    }

    std::atomic<uint64_t> mRearms{0};       // re-arm lines seen
    std::atomic<uint64_t> mFiredAtOnce{0};  // of those, periodic timers set to fire at once
};

// Turns the Timers' verbose lines on for the Timers made while it lives.
class TimerLogv {
public:
    TimerLogv() { host::property_set(kLogvProperty, "1"); }
    ~TimerLogv() { host::property_set(kLogvProperty, nullptr); }
};

// Keeps a core busy until it goes.
class Spinner {
public:
    Spinner()
        : mThread([this] {
              while (!mStop.load(std::memory_order_relaxed))
                  mSpins.fetch_add(1, std::memory_order_relaxed);
          }) {}
    ~Spinner() {
        mStop.store(true);
        mThread.join();
    }
    uint64_t spins() const { return mSpins.load(); }

private:
    std::atomic<bool> mStop{false};
    std::atomic<uint64_t> mSpins{0};
    std::thread mThread;  // declared last: starts once the flags exist
};

bool stopped(int fd) {
    for (int look = 0; look < kSettingLooks; ++look) {
        const itimerspec setting = settingOf(fd);
        if (setting.it_value.tv_sec != 0 || setting.it_value.tv_nsec != 0) return false;
        std::this_thread::sleep_for(kSettingPause);
    }
    return true;
}

TEST(ReliabilityTimerLoad, HundredPeriodicTimersKeepFiringOnABusyMachine) {
    RearmCounter rearms;
    std::vector<std::atomic<uint64_t>> fired(kTimers);
    std::vector<std::shared_ptr<Timer>> timers;
    std::vector<uint64_t> atLastPart, atEnd;
    int stoppedAtEnd = 0;
    uint64_t spins = 0;
    {
        TimerLogv logv;
        for (int i = 0; i < kTimers; ++i) {
            timers.push_back(std::make_shared<Timer>("load", CLOCK_MONOTONIC, [&fired, i] {
                fired[static_cast<size_t>(i)].fetch_add(1, std::memory_order_relaxed);
            }));
        }
    }
    std::optional<RunBudget> budget;
    RunningMonitor monitor;
    {
        Spinner spinner;
        const timespec period = {0, kPeriodNs};
        const timespec first = addNs(now(), kPeriodNs);
        for (auto& timer : timers) {
            monitor->attach(timer.get(), static_cast<int>(timer->getEventType()));
            timer->startTimerAbsoluteTime(&first, &period);
        }
        // The run is timed from here: making and attaching a hundred Timers can take a
        // slow build (valgrind) longer than its whole share of the release duration.
        budget.emplace(kReleaseDuration, kReleaseExpiries, kShortestUnderValgrind);
        const auto snapshot = [&] {
            std::vector<uint64_t> counts;
            for (const auto& count : fired) counts.push_back(count.load());
            return counts;
        };
        const auto total = [&] {
            const std::vector<uint64_t> counts = snapshot();
            return std::accumulate(counts.begin(), counts.end(), uint64_t{0});
        };
        const auto lastPart = budget->deadline() - budget->duration() / kLastPartDivisor;
        while (std::chrono::steady_clock::now() < lastPart && total() < budget->count())
            std::this_thread::sleep_for(kProgressPause);
        atLastPart = snapshot();
        while (!budget->expired() && total() < budget->count())
            std::this_thread::sleep_for(kProgressPause);
        atEnd = snapshot();
        spins = spinner.spins();
    }
    monitor.stop();
    for (auto& timer : timers) stoppedAtEnd += stopped(timer->getEventFD()) ? 1 : 0;
    for (auto& timer : timers) monitor->detach(timer.get());

    uint64_t expiries = 0, quietInLastPart = 0, fewestInLastPart = UINT64_MAX;
    for (size_t i = 0; i < fired.size(); ++i) {
        const uint64_t late = atEnd[i] - atLastPart[i];
        expiries += fired[i].load();
        quietInLastPart += late == 0 ? 1 : 0;
        fewestInLastPart = std::min(fewestInLastPart, late);
    }
    reportFigures("timer_load",
                  {{"timers", kTimers},
                   {"expiries", expiries},
                   {"rearms", rearms.rearms()},
                   {"rearms_fired_at_once", rearms.firedAtOnce()},
                   {"fewest_in_last_part", fewestInLastPart},
                   {"quiet_in_last_part", quietInLastPart},
                   {"stopped_at_end", stoppedAtEnd},
                   {"spins", spins}},
                  budget->describe());
    EXPECT_EQ(quietInLastPart, 0u);
    EXPECT_EQ(stoppedAtEnd, 0);
    EXPECT_EQ(rearms.rearms(), expiries);
}

}  // namespace
}  // namespace tavrel::test
