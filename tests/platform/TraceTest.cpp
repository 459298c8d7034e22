// The trace backend: gates, marker texts, the ftrace text file and the load-time settings.
#include <gtest/gtest.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "tavrel/platform/Trace.h"
#include "utils/log/TraceSection.h"

namespace {

using tavrel::test::readFile;
using tavrel::test::splitLines;
using tavrel::test::TempDir;
namespace Trace = NSCam::NSTavrel::Trace;

constexpr uint64_t kCameraTag = 0x400;
constexpr size_t kHeaderLines = 10;

// Collects markers through the sink, with every trace setting restored afterwards.
class TraceTest : public testing::Test {
protected:
    void SetUp() override {
        mSavedBits = get_tavrel_enabled_tracebits();
        mSavedTags = atrace_get_enabled_tags();
        tavrel::host::setTraceSink(&TraceTest::collect, this);
    }
    void TearDown() override {
        tavrel::host::setTraceSink(nullptr, nullptr);
        tavrel::host::setTraceFile(nullptr);
        tavrel::host::setTavrelTraceBits(mSavedBits);
        tavrel::host::setAtraceEnabledTags(mSavedTags);
    }
    static void collect(void* cookie, const char* marker) {
        static_cast<TraceTest*>(cookie)->mMarkers.push_back(marker);
    }
    static std::string pid() { return std::to_string(getpid()); }

    std::vector<std::string> mMarkers;  // markers in the order they were written
    uint64_t mSavedBits = 0;            // category mask to put back
    uint64_t mSavedTags = 0;            // atrace tags to put back
};

// The body of a trace file line, after the task, tid, cpu, flags and timestamp columns.
std::string markerOf(const std::string& line) {
    static const std::regex kLine(R"(^ *(.{1,15})-(\d+) +\[\d{3}\] \.\.\.\.\. \d+\.\d{6}: )"
                                  R"(tracing_mark_write: (.*)$)");
    std::smatch match;
    if (!std::regex_match(line, match, kLine)) return "unparsed: " + line;
    return match[3];
}

TEST_F(TraceTest, SectionIsWrittenOnlyWhenCategoryAndTagAreOn) {
    tavrel::host::setAtraceEnabledTags(kCameraTag);
    tavrel::host::setTavrelTraceBits(Trace::kFileCalls);
    { Trace::Section section(Trace::kFileCalls, "Read"); }
    { Trace::Section section(Trace::kEventCalls, "EPollWait"); }
    tavrel::host::setAtraceEnabledTags(0);
    { Trace::Section section(Trace::kFileCalls, "Write"); }
    EXPECT_EQ(mMarkers, (std::vector<std::string>{"B|" + pid() + "|Read", "E|" + pid()}));
}

TEST_F(TraceTest, EveryMarkerKindHasItsText) {
    atrace_int_body("observers", 3);
    atrace_async_begin_body("fd:7", 7);
    atrace_async_end_body("fd:7", -7);
    atrace_begin_body("NOTIFY_READY fd:7");
    atrace_end_body();
    const std::string p = pid();
    EXPECT_EQ(mMarkers, (std::vector<std::string>{"C|" + p + "|observers|3", "S|" + p + "|fd:7|7",
                                                  "F|" + p + "|fd:7|-7",
                                                  "B|" + p + "|NOTIFY_READY fd:7", "E|" + p}));
}

TEST_F(TraceTest, TraceFileHoldsHeaderAndOneFtraceLinePerMarker) {
    TempDir dir;
    const std::string path = dir.path() + "/trace.txt";
    ASSERT_TRUE(tavrel::host::setTraceFile(path.c_str()));
    EXPECT_STREQ(tavrel::host::traceFilePath(), path.c_str());
    atrace_begin_body("handleEvents");
    atrace_int_body("observers", 2);
    atrace_end_body();
    tavrel::host::setTraceFile(nullptr);
    EXPECT_EQ(tavrel::host::traceFilePath(), nullptr);
    atrace_begin_body("after the file was dropped");

    const std::vector<std::string> lines = splitLines(readFile(path));
    ASSERT_EQ(lines.size(), kHeaderLines + 3);
    EXPECT_EQ(lines[0], "# tracer: nop");
    EXPECT_EQ(lines[kHeaderLines - 2], "#           TASK-PID     CPU#  |||||  TIMESTAMP  FUNCTION");
    const std::string p = pid();
    EXPECT_EQ(markerOf(lines[kHeaderLines]), "B|" + p + "|handleEvents");
    EXPECT_EQ(markerOf(lines[kHeaderLines + 1]), "C|" + p + "|observers|2");
    EXPECT_EQ(markerOf(lines[kHeaderLines + 2]), "E|" + p);
    const std::string taskAndTid = std::to_string(gettid());
    EXPECT_NE(lines[kHeaderLines].find("-" + taskAndTid + " "), std::string::npos);
}

TEST_F(TraceTest, LinesOfConcurrentThreadsStayWhole) {
    TempDir dir;
    const std::string path = dir.path() + "/trace.txt";
    ASSERT_TRUE(tavrel::host::setTraceFile(path.c_str()));
    tavrel::host::setTraceSink(nullptr, nullptr);
    constexpr int kThreads = 4;
    constexpr int kMarkersPerThread = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < kMarkersPerThread; ++i) atrace_int_body("busy", i);
        });
    }
    for (std::thread& thread : threads) thread.join();
    const std::vector<std::string> lines = splitLines(readFile(path));
    ASSERT_EQ(lines.size(), kHeaderLines + kThreads * kMarkersPerThread);
    const std::regex kCounter("C\\|" + pid() + "\\|busy\\|\\d+");
    for (size_t i = kHeaderLines; i < lines.size(); ++i) {
        EXPECT_TRUE(std::regex_match(markerOf(lines[i]), kCounter)) << lines[i];
    }
}

// Child mode: reports the masks and the trace file taken from the properties at load, and
// writes one marker.
void reportLoadedSettings() {
    printf("bits=0x%llx tags=0x%llx file=%s\n",
           static_cast<unsigned long long>(get_tavrel_enabled_tracebits()),
           static_cast<unsigned long long>(atrace_get_enabled_tags()),
           tavrel::host::traceFilePath() == nullptr ? "none" : tavrel::host::traceFilePath());
    atrace_begin_body("fromProperties");
}
const tavrel::test::ChildMode kLoadedSettings("trace-loaded-settings", reportLoadedSettings);

TEST(TraceSettingsTest, MasksAndFileComeFromPropertiesAtLoad) {
    TempDir dir;
    const std::string trace = dir.path() + "/child-trace.txt";
    const std::string props = dir.write("props",
                                        "tavrel.host.trace.bits=0x3000000011\n"
                                        "tavrel.host.trace.tags=1024\n"
                                        "tavrel.host.trace.kernel_marker=false\n"
                                        "tavrel.host.trace.file=" +
                                            trace + "\n");
    const auto child =
        tavrel::test::runChild("trace-loaded-settings", {"TAVREL_PROPERTIES=" + props}, dir);
    ASSERT_EQ(child.status, 0) << child.err;
    EXPECT_EQ(child.out, "bits=0x3000000011 tags=0x400 file=" + trace + "\n");
    const std::vector<std::string> lines = splitLines(readFile(trace));
    ASSERT_EQ(lines.size(), kHeaderLines + 1);
    EXPECT_EQ(markerOf(lines[kHeaderLines]), "B|" + std::to_string(child.pid) + "|fromProperties");
}

TEST(TraceSettingsTest, MalformedOrMissingSettingsLeaveTracingOff) {
    TempDir dir;
    const std::string props = dir.write("props",
                                        "tavrel.host.trace.bits=0x\n"
                                        "tavrel.host.trace.tags=12junk\n");
    const auto child =
        tavrel::test::runChild("trace-loaded-settings", {"TAVREL_PROPERTIES=" + props}, dir);
    ASSERT_EQ(child.status, 0) << child.err;
    EXPECT_EQ(child.out, "bits=0x0 tags=0x0 file=none\n");
}

}  // namespace
