// ULogPrinter: which lines it lets through, and what each route receives.
#include <gtest/gtest.h>

#include <cstdio>
#include <regex>
#include <string>
#include <vector>

#include "StderrCapture.h"
#include "common/LogCapture.h"
#include "utils/log/ULogPrinter.h"

namespace {

using NSCam::Utils::ULog::ULogger;
using NSCam::Utils::ULog::ULogPrinter;
using tavrel::test::LogCapture;
using tavrel::test::LogSwitches;
using tavrel::test::StderrCapture;
using Lines = std::vector<std::string>;

constexpr const char* kTag = "tavrel-printer";
constexpr uint32_t kModuleId = 0x08002001;
constexpr uint32_t kErrorLevel = 1;
constexpr uint32_t kVerboseLevel = 5;

// The texts of the Android-log lines of kTag, without the host's header.
std::vector<std::string> androidTexts(const StderrCapture& capture) {
    static const std::regex kHeader("^tavrel-printer E [0-9-]+ [0-9:]+ +[0-9]+ +[0-9]+ ");
    std::vector<std::string> texts;
    for (const std::string& line : capture.lines()) {
        std::smatch header;
        if (std::regex_search(line, header, kHeader)) texts.push_back(header.suffix());
    }
    return texts;
}

struct RouteCase {
    uint32_t mode;
    bool android;  // the Android log gets the line
    bool unified;  // the unified logger gets it
};

TEST(ULogPrinter, ModeSelectsTheRoutes) {
    for (const RouteCase c :
         {RouteCase{1, true, false}, RouteCase{2, false, true}, RouteCase{8, false, true},
          RouteCase{3, true, true}, RouteCase{0, false, false}}) {
        SCOPED_TRACE("sMode " + std::to_string(c.mode));
        LogCapture logs(LogSwitches{c.mode, 5, 0, true});
        StderrCapture err;
        ULogPrinter printer(kTag, kModuleId, kErrorLevel, ANDROID_LOG_ERROR, "pre:", false);
        printer.printLine("one");
        printer.printFormatLine("two %d", 2);
        const Lines expected = c.android ? Lines{"pre:one", "pre:two 2"} : Lines{};
        EXPECT_EQ(androidTexts(err), expected);
        const auto unified = logs.unified();
        ASSERT_EQ(unified.size(), c.unified ? 2u : 0u);
        if (!c.unified) continue;
        EXPECT_EQ(unified[0].text, "one");
        EXPECT_EQ(unified[0].length, 3);
        EXPECT_EQ(unified[1].text, "two 2");
        EXPECT_EQ(unified[1].length, 5);
        EXPECT_EQ(unified[1].tag, kTag);
        EXPECT_EQ(unified[1].level, 1);
        EXPECT_EQ(unified[1].moduleId, kModuleId);
    }
}

// Marks on stderr where the unified line falls among the Android-log lines.
class MarkingLogger : public ULogger {
public:
    void writeLine(uint32_t, const char*, int, const char* text, int) override {
        std::fprintf(stderr, "unified %s\n", text);
    }
};

TEST(ULogPrinter, AndroidRouteComesFirst) {
    LogCapture logs(LogSwitches{3, 5, 0, true});
    MarkingLogger marking;
    ULogger::sULogger.store(&marking);
    StderrCapture err;
    ULogPrinter printer(kTag, kModuleId, kErrorLevel, ANDROID_LOG_ERROR, "pre:", false);
    printer.printLine("first");
    const auto lines = err.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[0].find(" pre:first"), std::string::npos) << lines[0];
    EXPECT_EQ(lines[1], "unified first");
}

TEST(ULogPrinter, DetailsAndModuleGates) {
    {
        LogCapture logs(LogSwitches{3, 0, 0, true});
        StderrCapture err;
        ULogPrinter printer(kTag, kModuleId, kErrorLevel, ANDROID_LOG_ERROR, nullptr, false);
        printer.printLine("hidden");
        printer.printFormatLine("hidden %d", 1);
        EXPECT_TRUE(androidTexts(err).empty());
        EXPECT_TRUE(logs.unified().empty());
    }
    {
        // The module id's high part is enabled, its unit part is not.
        LogCapture logs(LogSwitches{3, UINT32_MAX, 0x08000000, true});
        StderrCapture err;
        ULogPrinter printer(kTag, kModuleId, kVerboseLevel, ANDROID_LOG_ERROR, nullptr, false);
        printer.printLine("hidden");
        printer.printFormatLine("hidden %d", 1);
        EXPECT_TRUE(androidTexts(err).empty());
        EXPECT_TRUE(logs.unified().empty());
    }
    {
        LogCapture logs(LogSwitches{2, 5, 0x08002000, true});
        ULogPrinter printer(kTag, kModuleId, kVerboseLevel, ANDROID_LOG_ERROR, nullptr, false);
        printer.printLine("shown");
        EXPECT_EQ(logs.unifiedTexts(), std::vector<std::string>{"shown"});
    }
}

TEST(ULogPrinter, LongLineIsCutButKeepsItsLength) {
    const std::string text(2000, 'y');
    LogCapture logs(LogSwitches{3, 5, 0, true});
    StderrCapture err;
    ULogPrinter printer(kTag, kModuleId, kErrorLevel, ANDROID_LOG_ERROR, nullptr, false);
    printer.printFormatLine("%s", text.c_str());
    EXPECT_EQ(androidTexts(err), std::vector<std::string>{text.substr(0, 1023)});
    const auto unified = logs.unified();
    ASSERT_EQ(unified.size(), 1u);
    EXPECT_EQ(unified[0].text, text.substr(0, 1023));
    EXPECT_EQ(unified[0].length, 2000);
}

TEST(ULogPrinter, EmptyFormatWritesAnEmptyLine) {
    LogCapture logs(LogSwitches{3, 5, 0, true});
    StderrCapture err;
    ULogPrinter printer(kTag, kModuleId, kErrorLevel, ANDROID_LOG_ERROR, nullptr, false);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-zero-length"
    printer.printFormatLine("");
#pragma GCC diagnostic pop
    // The Android log shows a blank line as one space.
    EXPECT_EQ(androidTexts(err), Lines{" "});
    const auto unified = logs.unified();
    ASSERT_EQ(unified.size(), 1u);
    EXPECT_EQ(unified[0].text, "");
    EXPECT_EQ(unified[0].length, 0);
}

TEST(ULogPrinter, BothFacesAndTheTagCopy) {
    const std::string longTag(80, 't');
    LogCapture logs(LogSwitches{2, 5, 0, true});
    ULogPrinter printer(longTag.c_str(), kModuleId, kErrorLevel, ANDROID_LOG_ERROR, nullptr, false);
    android::Printer& androidFace = printer;
    NSCam::IPrinter& libraryFace = printer;
    androidFace.printFormatLine("android %d", 1);
    libraryFace.printLine("library");
    const auto unified = logs.unified();
    ASSERT_EQ(unified.size(), 2u);
    EXPECT_EQ(unified[0].text, "android 1");
    EXPECT_EQ(unified[1].text, "library");
    EXPECT_EQ(unified[1].tag, longTag.substr(0, 63));
}

}  // namespace
