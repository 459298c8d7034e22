// The log statement's gates and routes, the assertion report, and the printer that state
// dumps reach the logs through.
#include <cwchar>

#include "common/Support.h"
#include "tavrel/StdoutPrinter.h"
#include "tavrel/ULogPrinter.h"
#include "utils/log/FatalReport.h"
#include "utils/log/Log.h"

namespace tavrel::test {
namespace {

using NSCam::Utils::ULog::ULogPrinter;
using testing::HasSubstr;

constexpr NSCam::NSTavrel::Log::Site kLogSite{"tavrel-test", "tests/sys/LogTest"};
constexpr uint32_t kMask = 0x08002000;

TEST(LogStatement, EachRouteHasItsSwitchAndEachLevelItsDetailsGate) {
    // The switches; the levels that reached the debug-print route, and the unified one.
    // clang-format off
    const std::tuple<LogSwitches, const char*, const char*> rows[] = {
        {{3, 5, kMask}, "EWIV", "EWIV"}, {{0, 5, kMask}, "", ""}, {{1, 5, kMask, false}, "", ""},
        {{1, 5, kMask}, "EWIV", ""}, {{2, 5, kMask}, "", "EWIV"}, {{8, 5, kMask}, "", "EWIV"},
        {{3, 4, kMask}, "EWI", "EWI"}, {{3, 3, kMask}, "EWI", "EWI"}, {{3, 2, kMask}, "EW", "EW"},
        {{3, 1, kMask}, "E", "E"}, {{3, 0, kMask}, "E", "E"}, {{3, 5, 0x08000000}, "EWI", "EWI"},
        {{3, 5, 0x2000}, "EWI", "EWI"}, {{3, 5, ~0u}, "EWIV", "EWIV"}};
    // clang-format on
    for (const auto& [switches, debugLevels, unifiedLevels] : rows) {
        const LogCapture capture(switches);
        TAVREL_LOGE("[%s] E%d", "f", 1);
        TAVREL_LOGW("[%s] W%d", "f", 2);
        TAVREL_LOGI("[%s] I%d", "f", 3);
        TAVREL_LOGV("[%s] V%d", "f", 4);
        std::string debug, unified;
        // Each line named by the level it was written at: "I" only if info is 3 on both.
        for (const std::string& line : capture.debug()) debug += "VEWI"[line[0] - '0'];
        for (const std::string& line : capture.unified()) unified += "?EWI?V"[line[0] - '0'];
        EXPECT_EQ(debug + "/" + unified, std::string(debugLevels) + "/" + unifiedLevels)
            << switches.mode << " " << switches.details << " " << switches.mask;
    }
}

std::string sRawDebugLine;  // the latest debug-print line, line numbers and all

TEST(LogStatement, ReportsTheLineWhereTheStatementStarts) {
    const LogCapture capture;
    host::setDebugPrintSink(
        [](void*, const char*, cam_debug_level_t, const char* text) { sRawDebugLine = text; },
        nullptr);
    const int line = __LINE__ + 1;
    TAVREL_LOGE("[%s] a statement that clang-format wraps onto a second line: %s", "function",
                "second line");
    EXPECT_THAT(sRawDebugLine, HasSubstr(format("LogTest:%d TestBody()", line)));
    EXPECT_THAT(sRawDebugLine, HasSubstr(format("{#%d:tests/sys/LogTest}", line)));
}

// Shows on stderr, in order, what the unified logger is handed.
struct EchoLogger : ULogger {
    void writeLine(uint32_t module, const char* tag, int level, const char* text,
                   int length) override {
        std::fprintf(stderr, "unified %#x %s %d %d %s\n", module, tag, level, length, text);
    }
    void flush(int reason) override { std::fprintf(stderr, "flush %d\n", reason); }
};

[[noreturn]] void reportBadFd(uint32_t mode) {
    static EchoLogger logger;
    ULogger::sULogger = &logger;
    ULogger::sMode = mode;
    ULogger::sDetailsLevel = 0;
    TAVREL_FATAL_IN("fn", "[%s] Bad fd:%d", "x", -1);
}

TEST(FatalReportDeathTest, UnifiedLineAndFlushBeforeTheAssertionWhateverTheDetails) {
    const Lines assertion = {"[x] Bad fd:-1 (fn){#N:tests/sys/LogTest}",
                             "F tavrel-test: [x] Bad fd:-1 (fn){#N:tests/sys/LogTest}"},
                unified = Lines{"unified 0x8002001 tavrel-test 1 13 [x] Bad fd:-1", "flush 1"} +
                          assertion;
    for (const uint32_t mode : {2, 8, 1, 0})
        EXPECT_DEATH(reportBadFd(mode), entriesAre(mode >= 2 ? unified : assertion)) << mode;
}

// What one printer wrote: its Android-log entries, then its unified lines.
Lines printed(LogSwitches switches, uint32_t level, const char* tag,
              const std::function<void(ULogPrinter&)>& print) {
    const LogCapture capture(switches);
    const StderrCapture err;
    ULogPrinter printer(tag, 0x08002001, level, ANDROID_LOG_WARN, "pre:", false);
    print(printer);
    return logEntries(err.text()) + capture.unified();
}

TEST(ULogPrinter, LevelAndModuleGatesThenEachRouteBySwitch) {
    // The switches, the printer's level, whether its lines reached the Android log and the
    // unified logger.
    // clang-format off
    const std::tuple<LogSwitches, uint32_t, bool, bool> rows[] = {{{3, 0, 0}, 1, false, false},
        {{3, 1, 0}, 1, true, true}, {{1, 5, 0}, 1, true, false}, {{2, 5, 0}, 1, false, true},
        {{8, 5, 0}, 1, false, true}, {{3, 4, kMask}, 5, false, false}, {{3, 5, 0}, 5, false, false},
        {{3, 5, 0x08000000}, 5, false, false}, {{3, 5, 0x2000}, 5, false, false},
        {{3, 5, kMask}, 5, true, true}, {{3, 4, 0}, 4, true, true}};
    // clang-format on
    for (const auto& [switches, level, android, unified] : rows) {
        Lines expected;
        if (android) expected = {"W tavrel-p: pre:a", "W tavrel-p: pre:b2"};
        for (const char* text : {"1 a", "2 b2"})
            if (unified) expected.push_back(format("%u tavrel-p 0x8002001 %s", level, text));
        EXPECT_EQ(printed(switches, level, "tavrel-p",
                          [](auto& p) {
                              p.printLine("a");
                              p.printFormatLine("%s%d", "b", 2);
                          }),
                  expected)
            << switches.mode << " " << switches.details << " " << level;
    }
}

// Long and empty lines, from a log statement and from a printer with a long tag: the unified
// logger cuts a text to its buffer and keeps the length whole, and has a copy of the tag cut
// to 63 characters; the Android log has the tag as given, and cuts the prefixed line to its
// own 1023 characters.
TEST(ULogPrinter, LongEmptyUnformattableLinesAndLongTags) {
    const std::string text(2000, 'y'), tag(120, 't'), tag63 = tag.substr(0, 63);
    EXPECT_EQ(printed({}, 1, tag.c_str(),
                      [&](auto& p) {
                          TAVREL_LOGE("[%s] %s", "f", text.c_str());
                          TAVREL_LOGE("%s", "");  // no format of the library's is empty
                          p.printFormatLine("%s", text.c_str());
                          p.printFormatLine("%s", "");
                          p.printFormatLine("%lc", static_cast<wint_t>(0x100));
                      }),
              (Lines{"W " + tag + ": " + ("pre:" + text).substr(0, 1023),
                     "W " + tag + ": pre: ", "W " + tag + ": pre: ",
                     "1 tavrel-test 0x8002001 2004 " + ("[f] " + text).substr(0, 1023),
                     "1 tavrel-test 0x8002001 0 ",
                     "1 " + tag63 + " 0x8002001 2000 " + text.substr(0, 1023),
                     "1 " + tag63 + " 0x8002001 0 ", "1 " + tag63 + " 0x8002001 0 "}));
}

TEST(StdoutPrinter, WholeLinesWithoutALengthLimitAndStdoutLeftUnlocked) {
    NSCam::StdoutPrinter printer;
    const std::string text(5000, 'z');
    testing::internal::CaptureStdout();
    printer.printLine("plain");
    printer.printFormatLine("%s=%d", text.c_str(), 7);
    // A lock left held, or released once too often (then held after stdout's next use),
    // would keep every other thread's stdout waiting.
    std::fflush(stdout);
    int locked = -1;
    std::thread([&] { locked = ftrylockfile(stdout) == 0 ? (funlockfile(stdout), 0) : 1; }).join();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "plain\n" + text + "=7\n");
    EXPECT_EQ(locked, 0);
}

}  // namespace
}  // namespace tavrel::test
