// Records what the library writes on both log routes while it is alive, with every log
// switch set as the test asks and restored afterwards.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "tavrel/platform/DebugPrint.h"
#include "tavrel/platform/ULogger.h"

namespace tavrel::test {

struct UnifiedLine {
    uint32_t moduleId;
    std::string tag;
    int level;
    std::string text;
    int length;  // as reported by the writer, may exceed text.size()
};

struct DebugPrintLine {
    std::string tag;
    cam_debug_level_t level;
    std::string text;  // header and message, as finally formatted
};

struct LogSwitches {
    uint32_t mode = 0x3;        // both routes
    uint32_t detailsLevel = 5;  // every level
    uint32_t detailsMask = 0x08002000;
    bool debugPrintModuleBit = true;  // bit 55 on every level's record
};

class LogCapture : public NSCam::Utils::ULog::ULogger {
public:
    explicit LogCapture(LogSwitches switches = {});
    ~LogCapture() override;

    void writeLine(uint32_t moduleId, const char* tag, int level, const char* text,
                   int length) override;
    void flush(int reason) override;

    std::vector<UnifiedLine> unified() const;
    std::vector<DebugPrintLine> debugPrint() const;
    // The unified lines' texts alone.
    std::vector<std::string> unifiedTexts() const;
    std::vector<int> flushes() const;
    void clear();

private:
    static void onDebugPrint(void* cookie, const char* tag, cam_debug_level_t level,
                             const char* text);

    mutable std::mutex mMutex;                // guards the three records below
    std::vector<UnifiedLine> mUnified;        // unified-route lines, in order
    std::vector<DebugPrintLine> mDebugPrint;  // debug-print lines, in order
    std::vector<int> mFlushes;                // arguments of flush()
    NSCam::Utils::ULog::ULogger* mPrevious;   // logger to put back
    LogSwitches mSaved;                       // switches to put back
    uint64_t mSavedMasks[kLogInfoLevels];     // debug-print enable masks to put back
};

}  // namespace tavrel::test
