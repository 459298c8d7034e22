// The Timer's names, dumps and verbose lines.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "common/LogCapture.h"
#include "monitor/MonitorTestSupport.h"
#include "tavrel/Timer.h"
#include "tavrel/platform/Properties.h"

namespace {

using NSCam::NSTavrel::Timer;
using tavrel::test::LinePrinter;
using tavrel::test::LogCapture;

constexpr const char* kLogvProperty = "persist.vendor.camera.tavrel.timer.logv";
constexpr timespec kOnce = {0, 0};

std::shared_ptr<Timer> makeTimer(const char* name) {
    return std::make_shared<Timer>(name, CLOCK_MONOTONIC, [] {});
}

TEST(TimerDiagnosticsTest, NamesAndStateLine) {
    EXPECT_EQ(makeTimer(nullptr)->getEventName(), "Timer-?");
    EXPECT_EQ(makeTimer("")->getEventName(), "Timer-");
    auto timer = makeTimer("p2");
    EXPECT_EQ(timer->getEventName(), "Timer-p2");
    EXPECT_EQ(timer->getEventType(), 0x80000001u);
    const std::string expected =
        "{ Timer-p2 .fd=" + std::to_string(timer->getEventFD()) + " .event=80000001 }";
    EXPECT_EQ(timer->toString(), expected);
    LinePrinter printer;
    timer->dumpState(&printer);
    EXPECT_EQ(printer.lines, std::vector<std::string>{expected});
}

TEST(TimerDiagnosticsTest, VerboseLinesOnlyWhenLogvIsOn) {
    const std::vector<std::string> verboseLines = {
        "[startTimerAbsoluteTime] Timer-p2: { .it_interval=0.0 .it_value=5.1000 }",
        "[stopTimer] Timer-p2: { .it_interval=0.0 .it_value=0.0 }",
        "[stopTimer] Timer- : { .it_interval=0.0 .it_value=0.0 }",
        "[startTimerAbsoluteTime] Timer-p2: { .it_interval=0.250000000 .it_value=5.1000 }",
        "[stopTimer] Timer-p2: { .it_interval=0.0 .it_value=0.0 }",
        "[enableEdgeTrigger] Timer-p2: { .it_interval=0.0 .it_value=0.0 }",
    };
    for (const char* logv : {"1", "0", static_cast<const char*>(nullptr)}) {
        SCOPED_TRACE(logv != nullptr ? logv : "unset");
        // The property is read as a Timer is made.
        tavrel::host::property_set(kLogvProperty, logv);
        auto timer = makeTimer("p2");
        auto unnamed = makeTimer("");
        tavrel::host::property_set(kLogvProperty, nullptr);
        LogCapture capture;
        // 5 s and 1000 ns after the clock's start: long past, so it expires at once.
        const timespec longAgo = {5, 1000};
        const timespec interval = {0, 250000000};
        timer->startTimerAbsoluteTime(&longAgo, &kOnce);
        timer->stopTimer();
        unnamed->stopTimer();
        timer->startTimerAbsoluteTime(&longAgo, &interval);
        timer->stopTimer();
        timer->enableEdgeTrigger();

        const bool on = logv != nullptr && std::string(logv) == "1";
        EXPECT_EQ(capture.unifiedTexts(), on ? verboseLines : std::vector<std::string>());
        for (const auto& line : capture.unified()) {
            EXPECT_EQ(line.tag, "tavrel-Timer");
            EXPECT_EQ(line.level, 5);
        }
        EXPECT_EQ(capture.debugPrint().size(), on ? 6u : 0u);
    }
}

}  // namespace
