// The trace backend: gates, marker texts, the ftrace text file and the load-time settings.
#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "tavrel/platform/Trace.h"
#include "utils/log/TraceSection.h"

namespace tavrel::test {
namespace {

namespace Trace = NSCam::NSTavrel::Trace;

constexpr uint64_t kCameraTag = 0x400;
constexpr size_t kHeaderLines = 10;

// Collects markers through the sink, with every trace setting restored afterwards.
class TraceTest : public testing::Test {
protected:
    void SetUp() override {
        mSavedBits = get_tavrel_enabled_tracebits();
        mSavedTags = atrace_get_enabled_tags();
        host::setTraceSink(&TraceTest::collect, this);
    }
    void TearDown() override {
        host::setTraceSink(nullptr, nullptr);
        host::setTraceFile(nullptr);
        host::setTavrelTraceBits(mSavedBits);
        host::setAtraceEnabledTags(mSavedTags);
    }
    static void collect(void* cookie, const char* marker) {
        static_cast<TraceTest*>(cookie)->mMarkers.push_back(marker);
    }
    static std::string pid() { return std::to_string(getpid()); }

    std::vector<std::string> mMarkers;  // markers in the order they were written
    uint64_t mSavedBits = 0;            // category mask to put back
    uint64_t mSavedTags = 0;            // atrace tags to put back
};

// The markers of a trace file, each as "<tid> <marker>" from a line in ftrace's text format
// (task, tid, cpu, flags and timestamp columns first), or what is wrong with the file.
std::vector<std::string> markersIn(const std::string& path) {
    const std::vector<std::string> lines = splitLines(readFile(path));
    if (lines.size() < kHeaderLines || lines[0] != "# tracer: nop" ||
        lines[kHeaderLines - 2] != "#           TASK-PID     CPU#  |||||  TIMESTAMP  FUNCTION") {
        return {"no ftrace header"};
    }
    std::vector<std::string> markers;
    for (size_t i = kHeaderLines; i < lines.size(); ++i) {
        const std::vector<std::string> match =
            matchWhole(lines[i],
                       " *.{1,15}-([0-9]+) +\\[[0-9]{3}] \\.{5} [0-9]+\\.[0-9]{6}: "
                       "tracing_mark_write: (.*)");
        markers.push_back(match.empty() ? "unparsed: " + lines[i] : match[1] + " " + match[2]);
    }
    return markers;
}

// Markers pass the gates only with both the category and the camera tag on, and reach the
// sink and, as one ftrace line each, the trace file until it is dropped.
TEST_F(TraceTest, MarkersReachTheSinkAndTheTraceFileAsFtraceLines) {
    TempDir dir;
    const std::string path = dir.path() + "/trace.txt";
    ASSERT_TRUE(host::setTraceFile(path.c_str()));
    host::setAtraceEnabledTags(kCameraTag);
    host::setTavrelTraceBits(Trace::kFileCalls);
    { Trace::Section section(Trace::kFileCalls, "Read"); }
    { Trace::Section section(Trace::kEventCalls, "EPollWait"); }
    host::setAtraceEnabledTags(0);
    { Trace::Section section(Trace::kFileCalls, "Write"); }
    atrace_int_body("observers", 3);
    atrace_async_begin_body("fd:7", 7);
    atrace_async_end_body("fd:7", -7);
    host::setTraceFile(nullptr);
    atrace_begin_body("after the file was dropped");

    const std::string p = pid();
    std::vector<std::string> expected = {"B|" + p + "|Read", "E|" + p, "C|" + p + "|observers|3",
                                         "S|" + p + "|fd:7|7", "F|" + p + "|fd:7|-7"};
    std::vector<std::string> inFile;
    for (const std::string& marker : expected)
        inFile.push_back(std::to_string(gettid()) + " " + marker);
    EXPECT_EQ(markersIn(path), inFile);
    expected.push_back("B|" + p + "|after the file was dropped");
    EXPECT_EQ(mMarkers, expected);
}

TEST_F(TraceTest, LinesOfConcurrentThreadsStayWhole) {
    TempDir dir;
    const std::string path = dir.path() + "/trace.txt";
    ASSERT_TRUE(host::setTraceFile(path.c_str()));
    host::setTraceSink(nullptr, nullptr);
    constexpr int kThreads = 4;
    constexpr int kMarkersPerThread = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < kMarkersPerThread; ++i) atrace_int_body("busy", i);
        });
    }
    for (std::thread& thread : threads) thread.join();
    // Each thread's counters follow one another in its own lines, whatever came between.
    std::map<std::string, int> next;  // the next counter value of each tid
    for (const std::string& marker : markersIn(path)) {
        const std::string tid = marker.substr(0, marker.find(' '));
        EXPECT_EQ(marker, tid + " C|" + pid() + "|busy|" + std::to_string(next[tid]++));
    }
    EXPECT_EQ(next.size(), static_cast<size_t>(kThreads));
    for (const auto& [tid, count] : next) EXPECT_EQ(count, kMarkersPerThread) << tid;
}

// Child mode: reports the masks and the trace file taken from the properties at load, and
// writes one marker.
void reportLoadedSettings() {
    printf("bits=0x%llx tags=0x%llx file=%s\n",
           static_cast<unsigned long long>(get_tavrel_enabled_tracebits()),
           static_cast<unsigned long long>(atrace_get_enabled_tags()),
           host::traceFilePath() == nullptr ? "none" : host::traceFilePath());
    atrace_begin_body("fromProperties");
}
const ChildMode kLoadedSettings("trace-loaded-settings", reportLoadedSettings);

TEST(TraceSettingsTest, MasksAndFileComeFromPropertiesAtLoadAndMalformedOnesLeaveTracingOff) {
    TempDir dir;
    const std::string trace = dir.path() + "/child-trace.txt";
    const ChildResult set = runWithProperties("trace-loaded-settings",
                                              "tavrel.host.trace.bits=0x3000000011\n"
                                              "tavrel.host.trace.tags=1024\n"
                                              "tavrel.host.trace.kernel_marker=false\n"
                                              "tavrel.host.trace.file=" +
                                                  trace + "\n",
                                              dir);
    ASSERT_EQ(set.status, 0) << set.err;
    EXPECT_EQ(set.out, "bits=0x3000000011 tags=0x400 file=" + trace + "\n");
    const std::string id = std::to_string(set.pid);
    EXPECT_EQ(markersIn(trace), std::vector<std::string>{id + " B|" + id + "|fromProperties"});

    const ChildResult malformed = runWithProperties(
        "trace-loaded-settings", "tavrel.host.trace.bits=0x\ntavrel.host.trace.tags=12junk\n", dir);
    ASSERT_EQ(malformed.status, 0) << malformed.err;
    EXPECT_EQ(malformed.out, "bits=0x0 tags=0x0 file=none\n");
}

}  // namespace
}  // namespace tavrel::test
