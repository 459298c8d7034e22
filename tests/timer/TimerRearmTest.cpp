// What a Timer sets its timerfd to when it re-arms itself after an expiry.
#include <gtest/gtest.h>

#include "utils/sys/TimerRearm.h"

namespace {

using NSCam::NSTavrel::rearmSetting;

bool same(const itimerspec& a, const itimerspec& b) {
    return a.it_interval.tv_sec == b.it_interval.tv_sec &&
           a.it_interval.tv_nsec == b.it_interval.tv_nsec &&
           a.it_value.tv_sec == b.it_value.tv_sec && a.it_value.tv_nsec == b.it_value.tv_nsec;
}

TEST(TimerRearmTest, KeepsWhatRemainsOfAnArmedTimer) {
    const itimerspec periodic = {{0, 1000000}, {0, 400000}};
    const itimerspec oneShot = {{0, 0}, {12, 500000000}};
    EXPECT_TRUE(same(rearmSetting(periodic, true), periodic));
    EXPECT_TRUE(same(rearmSetting(oneShot, true), oneShot));
}

TEST(TimerRearmTest, LeavesExpiredOneShotsAndFailedReadsDisarmed) {
    const itimerspec zero{};
    EXPECT_TRUE(same(rearmSetting(zero, true), zero));
    EXPECT_TRUE(same(rearmSetting({{0, 1000000}, {0, 400000}}, false), zero));
}

// An expiry that has passed but not yet fired reads back as nothing left; the period
// must survive that, so the timer is set to fire at once.
TEST(TimerRearmTest, FiresAPeriodicTimerWithNothingLeftAtOnce) {
    const itimerspec passedUnfired = {{0, 1000000}, {0, 0}};
    const itimerspec atOnce = {{0, 1000000}, {0, 1}};
    EXPECT_TRUE(same(rearmSetting(passedUnfired, true), atOnce));
    const itimerspec slowPeriod = {{3, 0}, {0, 0}};
    EXPECT_TRUE(same(rearmSetting(slowPeriod, true), itimerspec{{3, 0}, {0, 1}}));
}

}  // namespace
