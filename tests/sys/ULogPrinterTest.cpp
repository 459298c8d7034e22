// ULogPrinter: which lines it lets through, and what each route receives.
#include <gtest/gtest.h>

#include <cstdio>
#include <regex>
#include <string>
#include <vector>

#include "StderrCapture.h"
#include "common/LogCapture.h"
#include "tavrel/ULogPrinter.h"

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

// Every field of the unified lines, one text a line, to compare whole.
Lines unifiedLines(const LogCapture& logs) {
    Lines lines;
    for (const auto& line : logs.unified()) {
        char head[96];
        std::snprintf(head, sizeof(head), "%s %d %#x %d|", line.tag.c_str(), line.level,
                      line.moduleId, line.length);
        lines.push_back(head + line.text);
    }
    return lines;
}

struct RouteCase {
    LogSwitches switches;
    uint32_t level;  // the printer's
    bool android;    // the Android log gets the lines
    bool unified;    // the unified logger gets them
};

// The mode picks the routes; the details level gates every line, and from the verbose
// level on both halves of the module id must be enabled in the details mask.
TEST(ULogPrinter, GatesAndRoutes) {
    for (const RouteCase c : {
             RouteCase{{1, 5, 0, true}, kErrorLevel, true, false},
             RouteCase{{2, 5, 0, true}, kErrorLevel, false, true},
             RouteCase{{8, 5, 0, true}, kErrorLevel, false, true},
             RouteCase{{3, 5, 0, true}, kErrorLevel, true, true},
             RouteCase{{0, 5, 0, true}, kErrorLevel, false, false},
             RouteCase{{3, 0, 0, true}, kErrorLevel, false, false},
             // The module id's high part is enabled, its unit part is not.
             RouteCase{{3, UINT32_MAX, 0x08000000, true}, kVerboseLevel, false, false},
             RouteCase{{3, 5, 0x08002000, true}, kVerboseLevel, true, true},
         }) {
        SCOPED_TRACE("sMode " + std::to_string(c.switches.mode) + " details " +
                     std::to_string(c.switches.detailsLevel) + " level " + std::to_string(c.level));
        LogCapture logs(c.switches);
        StderrCapture err;
        ULogPrinter printer(kTag, kModuleId, c.level, ANDROID_LOG_ERROR, "pre:", false);
        printer.printLine("one");
        printer.printFormatLine("two %d", 2);
        EXPECT_EQ(androidTexts(err), c.android ? (Lines{"pre:one", "pre:two 2"}) : Lines{});
        const std::string head = "tavrel-printer " + std::to_string(c.level) + " 0x8002001 ";
        EXPECT_EQ(unifiedLines(logs),
                  c.unified ? (Lines{head + "3|one", head + "5|two 2"}) : Lines{});
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

// A formatted line is cut to the line size but keeps its untruncated length; an empty one
// is still written, which the Android log shows as one space.
TEST(ULogPrinter, FormattedLineIsCutButKeepsItsLength) {
    const std::string text(2000, 'y');
    LogCapture logs(LogSwitches{3, 5, 0, true});
    StderrCapture err;
    ULogPrinter printer(kTag, kModuleId, kErrorLevel, ANDROID_LOG_ERROR, nullptr, false);
    printer.printFormatLine("%s", text.c_str());
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-zero-length"
    printer.printFormatLine("");
#pragma GCC diagnostic pop
    EXPECT_EQ(androidTexts(err), (Lines{text.substr(0, 1023), " "}));
    EXPECT_EQ(unifiedLines(logs), (Lines{"tavrel-printer 1 0x8002001 2000|" + text.substr(0, 1023),
                                         "tavrel-printer 1 0x8002001 0|"}));
}

TEST(ULogPrinter, BothFacesAndTheTagCopy) {
    const std::string longTag(80, 't');
    LogCapture logs(LogSwitches{2, 5, 0, true});
    ULogPrinter printer(longTag.c_str(), kModuleId, kErrorLevel, ANDROID_LOG_ERROR, nullptr, false);
    android::Printer& androidFace = printer;
    NSCam::IPrinter& libraryFace = printer;
    androidFace.printFormatLine("android %d", 1);
    libraryFace.printLine("library");
    const std::string head = longTag.substr(0, 63) + " 1 0x8002001 ";
    EXPECT_EQ(unifiedLines(logs), (Lines{head + "9|android 1", head + "7|library"}));
}

}  // namespace
