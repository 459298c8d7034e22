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

struct GateCase {
    LogSwitches switches;
    size_t unified;     // how many of the four levels, error first, reach the unified route
    size_t debugPrint;  // and the debug-print route
};

// The mode picks the routes (bit 0 debug print, any other the unified logger), the details
// level and mask gate each level on both, and debug print also needs the module bit.
TEST(LogStatement, GatesAndRoutes) {
    const std::vector<int> kUnifiedLevels = {1, 2, 3, 5};
    const std::vector<int> kDebugLevels = {CAM_DEBUG_ERROR, CAM_DEBUG_WARNING, CAM_DEBUG_INFO,
                                           CAM_DEBUG_VERBOSE};
    const uint32_t kMaskWithoutModule = kDetailsMask & ~0x08000000u;
    const GateCase cases[] = {
        {{0, 5, kDetailsMask, true}, 0, 0}, {{1, 5, kDetailsMask, true}, 0, 4},
        {{2, 5, kDetailsMask, true}, 4, 0}, {{8, 5, kDetailsMask, true}, 4, 0},
        {{3, 5, kDetailsMask, true}, 4, 4}, {{3, 5, kDetailsMask, false}, 4, 0},
        {{3, 0, kDetailsMask, true}, 1, 1}, {{3, 1, kDetailsMask, true}, 1, 1},
        {{3, 2, kDetailsMask, true}, 2, 2}, {{3, 3, kDetailsMask, true}, 3, 3},
        {{3, 4, kDetailsMask, true}, 3, 3}, {{3, 5, kMaskWithoutModule, true}, 3, 3},
    };
    for (const GateCase& c : cases) {
        SCOPED_TRACE("mode " + std::to_string(c.switches.mode) + " details " +
                     std::to_string(c.switches.detailsLevel) + " mask " +
                     std::to_string(c.switches.detailsMask) + " module bit " +
                     std::to_string(c.switches.debugPrintModuleBit));
        LogCapture capture(c.switches);
        logAtEveryLevel();
        std::vector<int> unified;
        for (const auto& line : capture.unified()) unified.push_back(line.level);
        std::vector<int> debugPrint;
        for (const auto& line : capture.debugPrint()) debugPrint.push_back(line.level);
        EXPECT_EQ(unified,
                  std::vector<int>(kUnifiedLevels.begin(), kUnifiedLevels.begin() + c.unified));
        EXPECT_EQ(debugPrint,
                  std::vector<int>(kDebugLevels.begin(), kDebugLevels.begin() + c.debugPrint));
    }
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

constexpr uint64_t kCameraTag = 0x400;
constexpr uint64_t kQueueBit = uint64_t{1} << 9;

// A gate is tested afresh at each end of a section, so changing it inside leaves an end
// without its begin or a begin without its end. (Both gates closing a whole section is
// checked with the trace backend, in tests/platform.)
TEST(TraceSection, GatesChangedInsideUnbalanceIt) {
    std::vector<std::string> markers;
    tavrel::host::setTraceSink(
        [](void* self, const char* marker) {
            static_cast<std::vector<std::string>*>(self)->push_back(marker);
        },
        &markers);
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
    tavrel::host::setTraceSink(nullptr, nullptr);
    tavrel::host::setTavrelTraceBits(0);
    EXPECT_EQ(markers, (std::vector<std::string>{"E|" + pid, "B|" + pid + "|early"}));
}

}  // namespace
