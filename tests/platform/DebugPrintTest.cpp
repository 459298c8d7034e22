#include <android/log.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "ChildProcess.h"
#include "tavrel/platform/DebugPrint.h"

namespace tavrel::test {
namespace {

constexpr size_t kLineLimit = 1023;

struct SinkRecord {
    std::mutex mutex;                       // guards lines
    std::vector<std::string> lines;         // "tag|level|text" per call
    std::atomic<bool> removed{false};       // set once the sink was taken away
    std::atomic<int> callsAfterRemoval{0};  // calls that arrived after removal
};

void recordLine(void* cookie, const char* tag, cam_debug_level_t level, const char* text) {
    auto* record = static_cast<SinkRecord*>(cookie);
    if (record->removed.load()) record->callsAfterRemoval.fetch_add(1);
    std::lock_guard<std::mutex> lock(record->mutex);
    record->lines.push_back(std::string(tag) + "|" + std::to_string(level) + "|" + text);
}

void printLine(void*, const char* tag, cam_debug_level_t level, const char* text) {
    std::printf("sink %s %d %s\n", tag, static_cast<int>(level), text);
}

// Prints the masks, then one line per level to the Android log (which is told to let
// verbose lines through), one to a sink, and one after the sink was removed.
void logToAndroid() {
    for (const LogInfoLevel& record : g_logInfoLv) {
        std::printf("mask=0x%llx\n", static_cast<unsigned long long>(record.enableMask.load()));
    }
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    log_dbg_print("tavrel-test", CAM_DEBUG_VERBOSE, "verbose %d", 0);
    log_dbg_print("tavrel-test", CAM_DEBUG_ERROR, "error %s", "one");
    log_dbg_print("tavrel-test", CAM_DEBUG_WARNING, "warning %c", '2');
    log_dbg_print("tavrel-test", CAM_DEBUG_INFO, "info %x", 0x3f);
    host::setDebugPrintSink(printLine, nullptr);
    log_dbg_print("tavrel-test", CAM_DEBUG_INFO, "to the sink");
    host::setDebugPrintSink(nullptr, nullptr);
    log_dbg_print("tavrel-test", CAM_DEBUG_INFO, "after the sink");
}
const ChildMode kAndroidMode("dbgprint-android", logToAndroid);

// Whatever the modules property says, lines reach the Android log at their level's priority,
// or the sink while one is installed; the property sets only every level's module mask.
TEST(DebugPrintTest, LinesReachTheAndroidLogUnlessASinkIsInstalledAndModulesSetTheMasks) {
    const std::string defaultMask = "0x80000000000000";
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"", defaultMask, ""},
        {"tavrel.host.dbgprint.modules=0x3\n", "0x3", ""},
        {"tavrel.host.dbgprint.modules=lots\n", defaultMask,
         "tavrel-properties: tavrel.host.dbgprint.modules=lots ignored (expected an unsigned "
         "64-bit mask, decimal or 0x hex)"}};
    for (const auto& [properties, mask, report] : cases) {
        TempDir dir;
        const ChildResult child = runWithProperties("dbgprint-android", properties, dir);
        ASSERT_EQ(0, child.status) << child.err;
        const std::string maskLine = "mask=" + mask + "\n";
        EXPECT_EQ(maskLine + maskLine + maskLine + maskLine + "sink tavrel-test 3 to the sink\n",
                  child.out);
        std::vector<std::string> logged = splitLines(child.err);
        if (!report.empty()) {
            ASSERT_FALSE(logged.empty());
            EXPECT_EQ(report, logged.front());
            logged.erase(logged.begin());
        }
        for (std::string& line : logged) line = androidLogEntry(line, "tavrel-test", child.pid);
        EXPECT_EQ((std::vector<std::string>{"V verbose 0", "E error one", "W warning 2",
                                            "I info 3f", "I after the sink"}),
                  logged);
    }
}

TEST(DebugPrintTest, SinkGetsFormattedLinesCutAt1023AndPrefixesHoldNoPercent) {
    SinkRecord record;
    host::setDebugPrintSink(recordLine, &record);
    log_dbg_print("tag-a", CAM_DEBUG_ERROR, "[%s] fd:%d", "Read", 3);
    log_dbg_print("tag-b", CAM_DEBUG_VERBOSE, "%s", std::string(2000, 'x').c_str());
    host::setDebugPrintSink(nullptr, nullptr);
    EXPECT_EQ((std::vector<std::string>{"tag-a|1|[Read] fd:3",
                                        "tag-b|0|" + std::string(kLineLimit, 'x')}),
              record.lines);
    for (const LogInfoLevel& level : g_logInfoLv) {
        ASSERT_NE(nullptr, level.prefix);
        EXPECT_EQ(nullptr, std::strchr(level.prefix, '%'));
    }
}

TEST(DebugPrintTest, RemovedSinkIsNeverCalledAgainWhileOthersLog) {
    constexpr int kRounds = 500;
    std::atomic<bool> done{false};
    std::thread logger([&done] {
        // Verbose lines that find no sink are dropped by the Android log's default level.
        while (!done.load()) log_dbg_print("tag-c", CAM_DEBUG_VERBOSE, "busy");
    });
    for (int i = 0; i < kRounds; ++i) {
        SinkRecord record;
        host::setDebugPrintSink(recordLine, &record);
        host::setDebugPrintSink(nullptr, nullptr);
        record.removed.store(true);
        EXPECT_EQ(0, record.callsAfterRemoval.load());
    }
    done.store(true);
    logger.join();
}

TEST(DebugPrintTest, FileTextIsTheBaseNameWithoutPercent) {
    EXPECT_STREQ("SystemCall", get_filename_log_control("src/utils/sys/SystemCall"));
    EXPECT_STREQ("Timer.cpp", get_filename_log_control("Timer.cpp"));
    EXPECT_STREQ("b_c_", get_filename_log_control("a%/dir/b%c%"));
    EXPECT_STREQ("", get_filename_log_control("dir/"));
    EXPECT_STREQ("", get_filename_log_control(nullptr));
}

}  // namespace
}  // namespace tavrel::test
