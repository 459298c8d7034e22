// The log statement's gates and routes, and the trace section's gate, through a log site
// of the test's own.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "common/LogCapture.h"
#include "utils/log/Log.h"
#include "utils/log/TraceSection.h"

namespace {

using tavrel::test::LogCapture;
using tavrel::test::LogSwitches;

constexpr NSCam::NSTavrel::Log::Site kLogSite{"tavrel-test", "tests/sys/LogStatementTest"};
constexpr uint32_t kModuleId = 0x08002001;
constexpr uint32_t kDetailsMask = 0x08002000;

int sErrorLine = 0;  // where logAtEveryLevel's error statement stands

void logAtEveryLevel() {
    sErrorLine = __LINE__ + 1;
    TAVREL_LOGE("[%s] e %d", __func__, 1);
    TAVREL_LOGW("[%s] w %d", __func__, 2);
    TAVREL_LOGI("[%s] i %d", __func__, 3);
    TAVREL_LOGV("[%s] v %d", __func__, 4);
}

std::vector<int> unifiedLevels(const LogCapture& capture) {
    std::vector<int> levels;
    for (const auto& line : capture.unified()) levels.push_back(line.level);
    return levels;
}

std::vector<int> debugPrintLevels(const LogCapture& capture) {
    std::vector<int> levels;
    for (const auto& line : capture.debugPrint()) levels.push_back(line.level);
    return levels;
}

struct ModeCase {
    uint32_t mode;
    bool debugPrint;  // lines expected on the debug-print route
    bool unified;     // lines expected on the unified route
};

TEST(LogStatement, ModeSelectsTheRoutes) {
    const std::vector<int> kUnifiedLevels = {1, 2, 3, 5};
    const std::vector<int> kDebugLevels = {CAM_DEBUG_ERROR, CAM_DEBUG_WARNING, CAM_DEBUG_INFO,
                                           CAM_DEBUG_VERBOSE};
    for (const ModeCase c :
         {ModeCase{0, false, false}, ModeCase{1, true, false}, ModeCase{2, false, true},
          ModeCase{8, false, true}, ModeCase{3, true, true}}) {
        SCOPED_TRACE("sMode " + std::to_string(c.mode));
        LogCapture capture(LogSwitches{c.mode, 5, kDetailsMask, true});
        logAtEveryLevel();
        EXPECT_EQ(unifiedLevels(capture), c.unified ? kUnifiedLevels : std::vector<int>{});
        EXPECT_EQ(debugPrintLevels(capture), c.debugPrint ? kDebugLevels : std::vector<int>{});
    }
}

TEST(LogStatement, DebugPrintNeedsTheModuleBit) {
    LogCapture capture(LogSwitches{1, 5, kDetailsMask, false});
    logAtEveryLevel();
    EXPECT_TRUE(capture.debugPrint().empty());
}

TEST(LogStatement, LinesAreWhole) {
    LogCapture capture(LogSwitches{3, 5, kDetailsMask, true});
    logAtEveryLevel();
    const auto unified = capture.unified();
    ASSERT_EQ(unified.size(), 4u);
    EXPECT_EQ(unified[0].text, "[logAtEveryLevel] e 1");
    EXPECT_EQ(unified[0].length, 21);
    EXPECT_EQ(unified[0].tag, "tavrel-test");
    EXPECT_EQ(unified[0].moduleId, kModuleId);
    EXPECT_EQ(unified[3].text, "[logAtEveryLevel] v 4");
    const auto debug = capture.debugPrint();
    ASSERT_EQ(debug.size(), 4u);
    const std::string line = std::to_string(sErrorLine);
    // The host's prefixes are empty and its file text is the path's last part.
    EXPECT_EQ(debug[0].text, "[tavrel-test] LogStatementTest:" + line +
                                 " logAtEveryLevel() [logAtEveryLevel] e 1 (logAtEveryLevel){#" +
                                 line + ":tests/sys/LogStatementTest}");
    EXPECT_EQ(debug[0].tag, "tavrel-test");
    EXPECT_EQ(debug[1].text, "[tavrel-test] LogStatementTest:" + std::to_string(sErrorLine + 1) +
                                 " logAtEveryLevel() [logAtEveryLevel] w 2");
}

struct DetailsCase {
    uint32_t detailsLevel;
    uint32_t detailsMask;
    std::vector<int> unifiedLevels;  // levels that get through
};

TEST(LogStatement, DetailsGateEachLevel) {
    const uint32_t kMaskWithoutModule = kDetailsMask & ~0x08000000u;
    for (const DetailsCase& c : {
             DetailsCase{0, kDetailsMask, {1}},
             DetailsCase{1, kDetailsMask, {1}},
             DetailsCase{2, kDetailsMask, {1, 2}},
             DetailsCase{3, kDetailsMask, {1, 2, 3}},
             DetailsCase{4, kDetailsMask, {1, 2, 3}},
             DetailsCase{5, kMaskWithoutModule, {1, 2, 3}},
             DetailsCase{5, kDetailsMask, {1, 2, 3, 5}},
         }) {
        SCOPED_TRACE("details " + std::to_string(c.detailsLevel) + " mask " +
                     std::to_string(c.detailsMask));
        LogCapture capture(LogSwitches{3, c.detailsLevel, c.detailsMask, true});
        logAtEveryLevel();
        EXPECT_EQ(unifiedLevels(capture), c.unifiedLevels);
        EXPECT_EQ(capture.debugPrint().size(), c.unifiedLevels.size());
    }
}

TEST(LogStatement, LongLineIsCutButKeepsItsLength) {
    const std::string text(2000, 'x');
    LogCapture capture(LogSwitches{3, 5, kDetailsMask, true});
    TAVREL_LOGE("[%s] %s", __func__, text.c_str());
    const auto unified = capture.unified();
    ASSERT_EQ(unified.size(), 1u);
    const std::string head = "[TestBody] ";
    EXPECT_EQ(unified[0].length, static_cast<int>(head.size() + text.size()));
    EXPECT_EQ(unified[0].text, (head + text).substr(0, 1023));
    const auto debug = capture.debugPrint();
    ASSERT_EQ(debug.size(), 1u);
    EXPECT_EQ(debug[0].text.size(), 1023u);
    EXPECT_EQ(debug[0].text.substr(0, 14), "[tavrel-test] ");
}

// Records every atrace marker while alive, with the gates set to nothing.
class TraceRecorder {
public:
    TraceRecorder() { tavrel::host::setTraceSink(&TraceRecorder::onMarker, this); }
    ~TraceRecorder() {
        tavrel::host::setTraceSink(nullptr, nullptr);
        tavrel::host::setTavrelTraceBits(0);
        tavrel::host::setAtraceEnabledTags(0);
    }
    std::vector<std::string> markers;  // in the order they were written

private:
    static void onMarker(void* self, const char* marker) {
        static_cast<TraceRecorder*>(self)->markers.push_back(marker);
    }
};

constexpr uint64_t kCameraTag = 0x400;
constexpr uint64_t kQueueBit = uint64_t{1} << 9;

TEST(TraceSection, BothGatesOpenTheSection) {
    TraceRecorder recorder;
    const std::string pid = std::to_string(getpid());
    tavrel::host::setTavrelTraceBits(kQueueBit);
    tavrel::host::setAtraceEnabledTags(kCameraTag);
    { NSCam::NSTavrel::Trace::Section section(kQueueBit, "traced"); }
    tavrel::host::setAtraceEnabledTags(~kCameraTag);
    { NSCam::NSTavrel::Trace::Section section(kQueueBit, "no camera tag"); }
    tavrel::host::setAtraceEnabledTags(kCameraTag);
    tavrel::host::setTavrelTraceBits(~kQueueBit);
    { NSCam::NSTavrel::Trace::Section section(kQueueBit, "no category"); }
    EXPECT_EQ(recorder.markers, (std::vector<std::string>{"B|" + pid + "|traced", "E|" + pid}));
}

TEST(TraceSection, GatesChangedInsideUnbalanceIt) {
    TraceRecorder recorder;
    const std::string pid = std::to_string(getpid());
    tavrel::host::setTavrelTraceBits(kQueueBit);
    {
        NSCam::NSTavrel::Trace::Section section(kQueueBit, "late");
        tavrel::host::setAtraceEnabledTags(kCameraTag);
    }
    {
        NSCam::NSTavrel::Trace::Section section(kQueueBit, "early");
        tavrel::host::setAtraceEnabledTags(0);
    }
    EXPECT_EQ(recorder.markers, (std::vector<std::string>{"E|" + pid, "B|" + pid + "|early"}));
}

}  // namespace
