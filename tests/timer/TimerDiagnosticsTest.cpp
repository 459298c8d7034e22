// The Timer's names, dumps and verbose lines.
#include <gtest/gtest.h>

#include <cstdarg>
#include <memory>
#include <string>
#include <vector>

#include "RunningMonitor.h"
#include "common/LogCapture.h"
#include "tavrel/IPrinter.h"
#include "tavrel/Timer.h"
#include "tavrel/platform/Properties.h"

namespace {

using NSCam::NSTavrel::Timer;
using tavrel::test::LogCapture;

constexpr const char* kLogvProperty = "persist.vendor.camera.tavrel.timer.logv";
constexpr timespec kOnce = {0, 0};

class RecordingPrinter : public NSCam::IPrinter {
public:
    void printLine(const char* line) override { lines.push_back(line); }
    void printFormatLine(const char* format, ...) override {
        char line[256];
        va_list args;
        va_start(args, format);
        vsnprintf(line, sizeof(line), format, args);
        va_end(args);
        lines.push_back(line);
    }
    std::vector<std::string> lines;  // every line printed, in order
};

// Sets the verbose property for the Timers made while it lives.
class LogvProperty {
public:
    explicit LogvProperty(const char* value) { tavrel::host::property_set(kLogvProperty, value); }
    ~LogvProperty() { tavrel::host::property_set(kLogvProperty, nullptr); }
};

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
    RecordingPrinter printer;
    timer->dumpState(&printer);
    EXPECT_EQ(printer.lines, std::vector<std::string>{expected});
}

TEST(TimerDiagnosticsTest, VerboseLinesWhenLogvIsOn) {
    LogvProperty logv("1");
    auto timer = makeTimer("p2");
    auto unnamed = makeTimer("");
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

    EXPECT_EQ(capture.unifiedTexts(),
              (std::vector<std::string>{
                  "[startTimerAbsoluteTime] Timer-p2: { .it_interval=0.0 .it_value=5.1000 }",
                  "[stopTimer] Timer-p2: { .it_interval=0.0 .it_value=0.0 }",
                  "[stopTimer] Timer- : { .it_interval=0.0 .it_value=0.0 }",
                  "[startTimerAbsoluteTime] Timer-p2: { .it_interval=0.250000000 "
                  ".it_value=5.1000 }",
                  "[stopTimer] Timer-p2: { .it_interval=0.0 .it_value=0.0 }",
                  "[enableEdgeTrigger] Timer-p2: { .it_interval=0.0 .it_value=0.0 }",
              }));
    for (const auto& line : capture.unified()) {
        EXPECT_EQ(line.tag, "tavrel-Timer");
        EXPECT_EQ(line.level, 5);
    }
    EXPECT_EQ(capture.debugPrint().size(), 6u);
}

TEST(TimerDiagnosticsTest, NoVerboseLinesWhenLogvIsOff) {
    for (const char* value : {"0", static_cast<const char*>(nullptr)}) {
        LogvProperty logv(value);
        auto timer = makeTimer("p2");
        LogCapture capture;
        const timespec deadline = {5, 1000};
        timer->startTimerAbsoluteTime(&deadline, &kOnce);
        timer->enableEdgeTrigger();
        timer->stopTimer();
        EXPECT_TRUE(capture.unified().empty());
        EXPECT_TRUE(capture.debugPrint().empty());
    }
}

}  // namespace
