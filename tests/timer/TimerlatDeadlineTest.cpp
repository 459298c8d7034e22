// How tavrel-timerlat places the deadline an expiry was due at, from what a callback can
// see of its timerfd: on looks built from a model of the kernel, then on a real timerfd.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <thread>

#include "Deadline.h"
#include "RunningMonitor.h"

namespace tavrel::timerlat {
namespace {

using tavrel::test::addNs;
using tavrel::test::now;
using tavrel::test::toNs;

constexpr int64_t kNsPerUs = 1000;
constexpr int64_t kNsPerMs = 1000 * kNsPerUs;
constexpr int64_t kNsPerSec = 1000 * kNsPerMs;

// A periodic timerfd as the kernel keeps it: expiries due at dueNs + n * intervalNs.
struct KernelTimer {
    int64_t dueNs;
    int64_t intervalNs;

    // Deadlines that have passed when the kernel reads `clockNs`.
    int64_t passedAt(int64_t clockNs) const {
        return clockNs < dueNs ? 0 : (clockNs - dueNs) / intervalNs + 1;
    }
    // What timerfd_gettime gives when the kernel reads `clockNs`: to the first deadline
    // after it.
    int64_t remainingAt(int64_t clockNs) const {
        return dueNs + passedAt(clockNs) * intervalNs - clockNs;
    }
    // A look whose clock readings are `beforeNs` and `afterNs`, with the kernel reading its
    // clock at `getNs` in timerfd_gettime and at `readNs` in read().
    TimerLook look(int64_t beforeNs, int64_t getNs, int64_t readNs, int64_t afterNs) const {
        return {beforeNs, afterNs, remainingAt(getNs), passedAt(readNs)};
    }
};

constexpr int64_t kInterval = 200 * kNsPerUs;
constexpr int64_t kDue = 7 * kNsPerSec + 123457;

// The run that reported -22.5 us: the callback was preempted for about 120 us between
// taking its wake-up time and the kernel's reading of the clock, so no single point between
// the two readings stands for the kernel's. Whatever point it was, the deadline found must
// not be later than the one in force, and the latency not below zero.
TEST(TimerlatDeadlineTest, APreemptedLookNeverPlacesTheDeadlineLate) {
    const KernelTimer kernel{kDue, kInterval};
    const int64_t wokeNs = kDue + 10 * kNsPerUs;
    const int64_t beforeNs = wokeNs + 200;
    const int64_t afterNs = beforeNs + 124 * kNsPerUs;
    for (int64_t getNs = beforeNs; getNs < afterNs; getNs += kNsPerUs) {
        SCOPED_TRACE(getNs - beforeNs);
        const TimerLook look = kernel.look(beforeNs, getNs, getNs + 300, afterNs);
        const ExpiryDeadlines deadlines = deadlinesOf(look, kInterval, kDue - kInterval);
        EXPECT_LE(deadlines.dueNs, kDue);
        EXPECT_GE(deadlines.dueNs, kDue - (afterNs - beforeNs));
        EXPECT_GE(wokeNs - deadlines.dueNs, 0);
    }
}

// The cases a guess of the nearest whole number of intervals gets wrong: expiries late by
// more than half an interval or by several, and re-arms that moved the deadline by more than
// half an interval. The count of expirations settles them; with the kernel's reading of the
// clock at the start of the look, the deadlines are exact.
TEST(TimerlatDeadlineTest, IsExactForLateExpiriesAndLargeSlips) {
    for (int64_t lateNs : {int64_t{0}, kInterval * 3 / 5, kInterval * 7 / 5, kInterval * 10 + 9}) {
        for (int64_t slipNs : {int64_t{0}, kInterval * 3 / 5, kInterval * 8 / 5}) {
            SCOPED_TRACE(testing::Message() << "late " << lateNs << " slip " << slipNs);
            const KernelTimer kernel{kDue, kInterval};
            const int64_t at = kDue + lateNs;
            const TimerLook look = kernel.look(at, at, at, at + 500);
            ASSERT_TRUE(isConsistent(look));
            const ExpiryDeadlines deadlines = deadlinesOf(look, kInterval, kDue - slipNs);
            EXPECT_EQ(deadlines.dueNs, kDue);
            EXPECT_EQ(deadlines.nextNs, kDue + (lateNs / kInterval + 1) * kInterval);
        }
    }
}

// Every placement of the kernel's two readings of the clock inside the bracket, with the
// expiry on time or intervals late: the deadlines are never later than the true ones, and
// no earlier than the width of the bracket when the look is consistent.
TEST(TimerlatDeadlineTest, BracketsTheTrueDeadlinesFromBelow) {
    const KernelTimer kernel{kDue, kInterval};
    int consistent = 0;
    int inconsistent = 0;
    for (int64_t lateNs : {int64_t{3000}, kInterval / 2 + 1, kInterval * 3 + 17}) {
        const int64_t beforeNs = kDue + lateNs;
        for (int64_t widthNs : {int64_t{800}, kInterval / 3, kInterval * 5 / 2}) {
            const int64_t afterNs = beforeNs + widthNs;
            for (int64_t getNs = beforeNs; getNs <= afterNs; getNs += widthNs / 7) {
                for (int64_t readNs = getNs; readNs <= afterNs; readNs += widthNs / 5) {
                    SCOPED_TRACE(testing::Message()
                                 << "late " << lateNs << " width " << widthNs << " get +"
                                 << getNs - beforeNs << " read +" << readNs - beforeNs);
                    const TimerLook look = kernel.look(beforeNs, getNs, readNs, afterNs);
                    const ExpiryDeadlines d = deadlinesOf(look, kInterval, kDue - kInterval);
                    const int64_t trueNextNs = getNs + kernel.remainingAt(getNs);
                    EXPECT_LE(d.dueNs, kDue);
                    EXPECT_LE(d.nextNs, trueNextNs);
                    if (isConsistent(look)) {
                        ++consistent;
                        EXPECT_GE(d.dueNs, kDue - widthNs);
                        EXPECT_GE(d.nextNs, trueNextNs - widthNs);
                    } else {
                        ++inconsistent;
                    }
                }
            }
        }
    }
    // Both kinds of look were met.
    EXPECT_GT(consistent, 0);
    EXPECT_GT(inconsistent, 0);
}

// A deadline that passes between timerfd_gettime and read() is counted by read() but is
// not the one timerfd_gettime measured to: such a look is not to be taken at its word.
TEST(TimerlatDeadlineTest, ALookADeadlineFellInsideIsNotConsistent) {
    const KernelTimer kernel{kDue, kInterval};
    const int64_t getNs = kDue + kInterval - 100;
    const TimerLook look = kernel.look(getNs - 50, getNs, getNs + 300, getNs + 400);
    EXPECT_EQ(look.expiries, 2);
    EXPECT_FALSE(isConsistent(look));
    EXPECT_LE(deadlinesOf(look, kInterval, 0).dueNs, kDue);

    TimerLook backwards = kernel.look(kDue + 10, kDue + 10, kDue + 10, kDue + 10);
    ASSERT_TRUE(isConsistent(backwards));
    backwards.afterNs = backwards.beforeNs - 1;
    EXPECT_FALSE(isConsistent(backwards));
}

// The floor is a time the deadline is known not to precede. A look can place the deadline
// earlier (a wide bracket): the floor is then the better of the two. A failed
// timerfd_gettime, a deadline passed but not yet fired, and a look that drained no expiry
// place nothing: the floor stands.
TEST(TimerlatDeadlineTest, NeverPlacesTheDeadlineBeforeTheFloor) {
    const KernelTimer kernel{kDue, kInterval};
    const int64_t getNs = kDue + 90 * kNsPerUs;
    const TimerLook look = kernel.look(kDue + 1000, getNs, getNs, getNs + 100);
    ASSERT_TRUE(isConsistent(look));
    EXPECT_EQ(deadlinesOf(look, kInterval, 0).dueNs, kDue - (getNs - (kDue + 1000)));
    EXPECT_EQ(deadlinesOf(look, kInterval, kDue - 10).dueNs, kDue - 10);

    const int64_t floorNs = kDue - 40 * kNsPerUs;
    const TimerLook failed{kDue + 5000, kDue + 6000, -1, 1};
    EXPECT_EQ(deadlinesOf(failed, kInterval, floorNs).dueNs, floorNs);
    EXPECT_EQ(deadlinesOf(failed, kInterval, floorNs).nextNs, failed.afterNs);
    const TimerLook passedUnfired{kDue + 5000, kDue + 6000, 0, 1};
    EXPECT_EQ(deadlinesOf(passedUnfired, kInterval, floorNs).dueNs, floorNs);
    const TimerLook nothingDrained{kDue + 5000, kDue + 6000, 150 * kNsPerUs, 0};
    EXPECT_FALSE(isConsistent(nothingDrained));
    EXPECT_EQ(deadlinesOf(nothingDrained, kInterval, floorNs).dueNs, floorNs);
}

TEST(TimerlatDeadlineTest, SlipLeavesOutTheIntervalsTheKernelSkipped) {
    EXPECT_EQ(slipOf(kDue + 7000, kDue, kInterval), 7000);
    EXPECT_EQ(slipOf(kDue + 3 * kInterval + 7000, kDue, kInterval), 7000);
    EXPECT_EQ(slipOf(kDue - 300, kDue, kInterval), -300);
    EXPECT_EQ(slipOf(kDue + kInterval / 2, kDue, kInterval), -kInterval / 2);
    EXPECT_EQ(slipOf(kDue + kInterval / 2 - 1, kDue, kInterval), kInterval / 2 - 1);
}

// A real timerfd armed for a known absolute deadline, looked at only once two more
// deadlines have passed: the look places the deadline no later than it was set and, when
// consistent, no earlier than its own width; its next deadline is one of the timer's.
TEST(TimerlatDeadlineTest, PlacesARealTimerfdsDeadline) {
    constexpr int64_t kPeriod = 20 * kNsPerMs;
    const int fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    ASSERT_GE(fd, 0);
    const int64_t dueNs = toNs(now()) + 5 * kNsPerMs;
    const itimerspec setting{addNs({}, kPeriod), addNs({}, dueNs)};
    ASSERT_EQ(timerfd_settime(fd, TFD_TIMER_ABSTIME, &setting, nullptr), 0);
    pollfd ready{fd, POLLIN, 0};
    ASSERT_EQ(poll(&ready, 1, 10 * 1000), 1);
    while (toNs(now()) < dueNs + 2 * kPeriod + kNsPerMs) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const int64_t sinceNs = toNs(now());

    const TimerLook look = lookAt(fd, CLOCK_MONOTONIC, 5 * kNsPerUs, 8);
    close(fd);
    const ExpiryDeadlines d = deadlinesOf(look, kPeriod, 0);
    const KernelTimer kernel{dueNs, kPeriod};
    EXPECT_GE(look.expiries, kernel.passedAt(sinceNs));
    EXPECT_GE(look.expiries, 3);
    EXPECT_LE(d.dueNs, dueNs);
    // A deadline 20 ms away cannot fall inside a look unless the machine stalls for that long
    // eight times over.
    ASSERT_TRUE(isConsistent(look));
    const int64_t widthNs = look.afterNs - look.beforeNs;
    EXPECT_GE(d.dueNs, dueNs - widthNs);
    const int64_t periodsToNext = (d.nextNs - dueNs + kPeriod - 1) / kPeriod;
    EXPECT_LE(dueNs + periodsToNext * kPeriod - d.nextNs, widthNs);
    EXPECT_EQ(periodsToNext, look.expiries);
}

}  // namespace
}  // namespace tavrel::timerlat
