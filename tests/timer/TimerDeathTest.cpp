// The ways a Timer ends the process.
#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "tavrel/Timer.h"

namespace {

using NSCam::NSTavrel::IEventObserver;
using NSCam::NSTavrel::Timer;

// No such clock: timerfd_create fails with EINVAL.
constexpr int kNoSuchClock = -1;

TEST(TimerDeathTest, TimerfdThatCannotBeCreatedEndsTheProcess) {
    EXPECT_DEATH(Timer("p2", kNoSuchClock, [] {}),
                 "\\[Timer\\] Bad fd:-22 \\(Timer\\)\\{#[0-9]+:src/utils/sys/Timer\\}");
}

TEST(TimerDeathTest, EmptyCallbackEndsTheProcess) {
    EXPECT_DEATH(Timer("p2", CLOCK_MONOTONIC, std::function<void()>()),
                 "\\[Timer\\] Bad mNotifyTimeout \\(Timer\\)\\{#[0-9]+:src/utils/sys/Timer\\}");
}

TEST(TimerDeathTest, EventForATimerNoSharedPtrOwnsEndsTheProcess) {
    Timer unowned("p2", CLOCK_MONOTONIC, [] {});
    const IEventObserver::OnEvent event = {nullptr, 0x1};
    // The message is all the child writes. Under qemu user-mode the emulator reports the
    // signal the child died by on a line of its own after it; that line alone may follow.
    EXPECT_DEATH(unowned.onEvent(event),
                 "^bad_weak_ptr was thrown in -fno-exceptions mode\n"
                 "(qemu: uncaught target signal [^\n]*\n)?$");
}

}  // namespace
