// What tavrel-timerlat's report says of latencies below zero, which only a clock that went
// backwards can produce: they are shown as measured, with a warning, never hidden.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "Report.h"

namespace {

using tavrel::timerlat::Options;
using tavrel::timerlat::printReport;
using tavrel::timerlat::TimerResult;

std::string reportOf(const std::vector<int64_t>& latencies) {
    Options options;
    options.intervalUs = 200;
    const TimerResult timer{"0", latencies, {}};
    const TimerResult all{"all", latencies, {}};
    std::ostringstream out;
    printReport(out, options, 1.0, {timer}, all);
    return out.str();
}

TEST(TimerlatReportTest, WarnsOfLatenciesBelowZeroAndStillShowsThem) {
    std::string report = reportOf({12000, -22500, 30000, -1000});
    EXPECT_NE(report.find("    -22.5 "), std::string::npos) << report;
    EXPECT_NE(report.find("warning: 2 callbacks ran before their deadline: the monotonic clock "
                          "went backwards\n"),
              std::string::npos)
        << report;
    // Without one, nothing is said of the clock.
    report = reportOf({0, 12000, 30000});
    EXPECT_NE(report.find("all            3       0.0"), std::string::npos) << report;
    EXPECT_EQ(report.find("warning"), std::string::npos) << report;
}

}  // namespace
