// The assertion report: the unified line and the logger's flush first, then the Android
// log's assertion with the long form, which ends the process.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "tavrel/platform/ULogger.h"
#include "utils/log/FatalReport.h"

namespace {

using NSCam::Utils::ULog::ULogger;

constexpr NSCam::NSTavrel::Log::Site kLogSite{"tavrel-test", "tests/sys/FatalReportTest"};

// Shows on stderr, in order, what the logger is handed, so the parent can read it.
class StderrLogger : public ULogger {
public:
    void writeLine(uint32_t moduleId, const char* tag, int level, const char* text,
                   int length) override {
        std::fprintf(stderr, "unified %#x %s %d %d %s\n", moduleId, tag, level, length, text);
    }
    void flush(int reason) override { std::fprintf(stderr, "flush %d\n", reason); }
};

[[noreturn]] void reportBadFd(uint32_t mode) {
    static StderrLogger logger;
    ULogger::sULogger.store(&logger);
    ULogger::sMode.store(mode);
    TAVREL_FATAL_IN("fn", "[%s] Bad fd:%d", "x", -1);
}

// The Android log's assertion text: the long form with function, line and source path.
constexpr const char* kAssertion =
    "\\[x\\] Bad fd:-1 \\(fn\\)\\{#[0-9]+:tests/sys/FatalReportTest\\}";

TEST(FatalReportDeathTest, UnifiedLineAndFlushComeFirst) {
    EXPECT_DEATH(reportBadFd(2),
                 std::string("^unified 0x8002001 tavrel-test 1 13 \\[x\\] Bad fd:-1\nflush 1\n") +
                     kAssertion);
    // With every route off, the assertion alone.
    EXPECT_DEATH(reportBadFd(0), std::string("^") + kAssertion);
}

}  // namespace
