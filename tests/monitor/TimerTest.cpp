// The Timer: its names and dump, its verbose lines, re-arming with what remains and when the
// kernel refuses a read or a setting, firing on a running monitor, callbacks that restart, stop or
// drop their own timer. (Many timers firing at once: the stress test.)
#include <poll.h>
#include <sys/timerfd.h>

#include "common/Support.h"

namespace tavrel::test {
namespace {

constexpr timespec kNone{}, kLongPast{0, 1};  // absolute times on the monotonic clock
constexpr timespec kMillisecond{0, 1'000'000}, kSecond{1, 0};
constexpr timespec kOutOfRange{0, 1'000'000'000}, kBadPeriod{0, -1};  // refused by the kernel
constexpr const char* kRefused =
    "[TimerFDSetTime] timerfd_settime(%d) return -1: err=-22(Invalid argument)";

// An absolute time `after` from now on the monotonic clock.
timespec in(std::chrono::seconds after) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return {now.tv_sec + after.count(), now.tv_nsec};
}

itimerspec settingOf(const Timer& timer) {
    itimerspec setting{};
    timerfd_gettime(timer.getEventFD(), &setting);
    return setting;
}

bool disarmed(const Timer& timer) {
    return settingOf(timer).it_value.tv_sec == 0 && settingOf(timer).it_value.tv_nsec == 0;
}

TEST(Timer, NameDumpMaskAndVerboseLinesAsTheLogvPropertyOfItsConstructionSays) {
    // The logv value (unset, then any value but 0 turns the lines on) and the name.
    const std::pair<const char*, const char*> rows[] = {{nullptr, nullptr}, {"1", "p2"}, {"7", ""}};
    for (const auto& [logvValue, given] : rows) {
        const ScopedProperty logv("persist.vendor.camera.tavrel.timer.logv", logvValue);
        const auto timer = std::make_shared<Timer>(given, CLOCK_MONOTONIC, [] {});
        const std::string name = given != nullptr ? std::string("Timer-") + given : "Timer-?";
        const std::string text =
            format("{ %s .fd=%d .event=80000001 }", name.c_str(), timer->getEventFD());
        EXPECT_EQ(Lines({timer->getEventName(), timer->toString()}) + dumpOf(*timer),
                  Lines({name, text, text}));
        EXPECT_EQ(timer->getEventType(), uint32_t(EPOLLIN | EPOLLET));
        const LogCapture capture;
        // A zero value disarms though the kernel keeps the period, and a setting the kernel
        // refuses changes nothing: the re-arm must not revive the timer.
        timer->startTimerAbsoluteTime(&kNone, &kSecond);
        timer->startTimerAbsoluteTime(&kOutOfRange, &kSecond);
        timer->enableEdgeTrigger();
        EXPECT_TRUE(disarmed(*timer));
        timer->stopTimer();
        Lines expected;
        for (const char* text :
             {"[startTimerAbsoluteTime] %-7s: { .it_interval=1.0 .it_value=0.0 }",
              "[startTimerAbsoluteTime] %-7s: { .it_interval=1.0 .it_value=0.1000000000 }",
              "[enableEdgeTrigger] %-7s: { .it_interval=1.0 .it_value=0.0 }",
              "[stopTimer] %-7s: { .it_interval=0.0 .it_value=0.0 }"}) {
            const std::string line = format(text, timer->getEventName().c_str());
            if (logvValue != nullptr)
                expected.push_back(format("5 tavrel-Timer 0x8002001 %zu ", line.size()) + line);
        }
        // The refusal is an error, logged whatever logv says, before the start's own line.
        const std::string refused = format(kRefused, timer->getEventFD());
        expected.insert(expected.begin() + (logvValue != nullptr),
                        format("1 tavrel-syscall 0x8002001 %zu ", refused.size()) + refused);
        EXPECT_EQ(capture.unified(), expected);
    }
}

TEST(Timer, ReArmingKeepsWhatRemainsClearsTheExpirationsAndOutlivesRefusals) {
    const auto timer = std::make_shared<Timer>("rearm", CLOCK_MONOTONIC, [] {});
    const int t = timer->getEventFD();
    pollfd readable{t, POLLIN, 0};
    const auto fired = [&] { return ::poll(&readable, 1, 0) == 1; };
    const std::string passed = bytesOf(itimerspec{kSecond, kNone});  // expired, not yet fired
    // The setting started (from the past, with its expiry pending); the call that then fails
    // with the errno or answers `passed`; whether a start the kernel refuses comes first; the
    // refusal logged; what the kernel holds after the re-arm.
    // clang-format off
    const struct { timespec value, interval; long call; int err; bool refusedStart; const char *line, *state; } rows[] = {
        {in(10s), kNone, 0, 0, false, nullptr, "armed every 0s"},  // the same deadline, now relative
        {kLongPast, kNone, 0, 0, false, nullptr, "disarmed every 0s"},
        {kLongPast, kSecond, SYS_timerfd_gettime, EFAULT, false,
            "[TimerFDGetTime] timerfd_gettime(%d) return -1: err=-14(Bad address)", "disarmed every 0s"},
        {kLongPast, kSecond, SYS_timerfd_settime, ECANCELED, false,
            "[TimerFDSetTime] timerfd_settime(%d) return -1: err=-125(Operation canceled)",
            "armed every 1s, expired"},
        // The last setting the kernel took armed the timer: the passed expiry fires at once.
        {kLongPast, kSecond, SYS_timerfd_gettime, 0, true, kRefused, "armed every 1s, expired"}};
    // clang-format on
    for (const auto& row : rows) {
        timer->startTimerAbsoluteTime(&row.value, &row.interval);
        ASSERT_TRUE(row.value.tv_sec != 0 || waitUntil(fired));
        if (row.call != 0) SKIP_WITHOUT_FAULTS();
        // The child shares the timer with this process: what it sets is seen here.
        EXPECT_EXIT(
            (row.refusedStart ? timer->startTimerAbsoluteTime(&kNone, &kBadPeriod) : void(),
             row.call != 0 ? inject(row.call, 0, t, row.err, 0, {}, 1, passed) : void(),
             timer->enableEdgeTrigger(), _exit(0)),
            testing::ExitedWithCode(0),
            entriesAre(row.line != nullptr ? Lines{"E tavrel-syscall: " + format(row.line, t)}
                                           : Lines{}));
        if (row.refusedStart) waitUntil(fired);
        uint64_t expirations = 0;
        EXPECT_EQ(format("%s every %lds%s", disarmed(*timer) ? "disarmed" : "armed",
                         long(settingOf(*timer).it_interval.tv_sec),
                         ::read(t, &expirations, 8) == 8 ? ", expired" : ""),
                  row.state);
    }
}

TEST(Timer, ACallbackMayRestartStopOrDropItsOwnTimer) {
    std::atomic<int> calls{0};
    const RunningMonitor running;  // stopped before the timers go
    // Each callback counts its call; the second one also restarts its timer ten seconds on,
    // the third stops it and the fourth drops it, as its last owner: the timer goes once its
    // onEvent has returned.
    std::shared_ptr<Timer> timers[4];
    for (int i = 0; i < 4; ++i)
        timers[i] = std::make_shared<Timer>("callback", CLOCK_MONOTONIC, [&, i] {
            const timespec later = in(10s);
            if (i == 1) timers[1]->startTimerAbsoluteTime(&later, &kNone);
            if (i == 2) timers[2]->stopTimer();
            if (i == 3) running.monitor->detach(timers[3].get());
            if (i == 3) timers[3].reset();
            ++calls;
        });
    const std::weak_ptr<Timer> gone = timers[3];
    // The first once, the others every millisecond. Not through `timers` once started: the
    // fourth callback resets its entry.
    for (Timer* timer : {timers[0].get(), timers[1].get(), timers[2].get(), timers[3].get()}) {
        running.monitor->attach(timer, int(timer->getEventType()));
        timer->startTimerAbsoluteTime(&kLongPast,
                                      timer == timers[0].get() ? &kNone : &kMillisecond);
    }
    ASSERT_TRUE(waitUntil([&] {
        return gone.expired() && calls == 4 && settingOf(*timers[1]).it_value.tv_sec >= 8;
    }));
    std::this_thread::sleep_for(5ms);  // time for one more expiry, if any was left armed
    EXPECT_EQ(settingOf(*timers[1]).it_interval.tv_nsec, 0);
    EXPECT_TRUE(disarmed(*timers[0]) && disarmed(*timers[2]));
    EXPECT_EQ(calls, 4);
    for (int i = 0; i < 3; ++i) running.monitor->detach(timers[i].get());
}

}  // namespace
}  // namespace tavrel::test
