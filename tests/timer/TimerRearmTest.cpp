// What a Timer sets its timerfd to when it re-arms itself after an expiry.
#include <gtest/gtest.h>

#include <array>

#include "utils/sys/TimerRearm.h"

namespace {

using NSCam::NSTavrel::rearmSetting;

// Interval, then value, seconds before nanoseconds: printable and comparable as a whole.
std::array<long, 4> fieldsOf(const itimerspec& s) {
    return {s.it_interval.tv_sec, s.it_interval.tv_nsec, s.it_value.tv_sec, s.it_value.tv_nsec};
}

TEST(TimerRearmTest, SettingFollowsWhatWasRead) {
    const struct {
        itimerspec read;
        bool readOk;
        itimerspec expected;
    } cases[] = {
        // An armed timer keeps what remains of it.
        {{{0, 1000000}, {0, 400000}}, true, {{0, 1000000}, {0, 400000}}},
        {{{0, 0}, {12, 500000000}}, true, {{0, 0}, {12, 500000000}}},
        // Expired one-shots and failed reads are left disarmed.
        {{}, true, {}},
        {{{0, 1000000}, {0, 400000}}, false, {}},
        // An expiry that has passed but not yet fired reads back as nothing left; the period
        // must survive that, so the timer is set to fire at once.
        {{{0, 1000000}, {0, 0}}, true, {{0, 1000000}, {0, 1}}},
        {{{3, 0}, {0, 0}}, true, {{3, 0}, {0, 1}}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(fieldsOf(rearmSetting(c.read, c.readOk)), fieldsOf(c.expected))
            << "read " << testing::PrintToString(fieldsOf(c.read)) << " ok " << c.readOk;
    }
}

}  // namespace
