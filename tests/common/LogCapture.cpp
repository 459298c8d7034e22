#include "common/LogCapture.h"

namespace tavrel::test {

using NSCam::Utils::ULog::ULogger;

namespace {
constexpr uint64_t kModuleBit = uint64_t{1} << 55;
}

LogCapture::LogCapture(LogSwitches switches) {
    mSaved.mode = ULogger::sMode.load();
    mSaved.detailsLevel = ULogger::sDetailsLevel.load();
    mSaved.detailsMask = ULogger::sNormalDetailsMask.load();
    for (int i = 0; i < kLogInfoLevels; ++i) {
        mSavedMasks[i] = g_logInfoLv[i].enableMask.load();
        const uint64_t others = mSavedMasks[i] & ~kModuleBit;
        g_logInfoLv[i].enableMask.store(switches.debugPrintModuleBit ? others | kModuleBit
                                                                     : others);
    }
    tavrel::host::setDebugPrintSink(&LogCapture::onDebugPrint, this);
    mPrevious = ULogger::sULogger.exchange(this);
    ULogger::sMode.store(switches.mode);
    ULogger::sDetailsLevel.store(switches.detailsLevel);
    ULogger::sNormalDetailsMask.store(switches.detailsMask);
}

LogCapture::~LogCapture() {
    ULogger::sMode.store(mSaved.mode);
    ULogger::sDetailsLevel.store(mSaved.detailsLevel);
    ULogger::sNormalDetailsMask.store(mSaved.detailsMask);
    ULogger::sULogger.store(mPrevious);
    tavrel::host::setDebugPrintSink(nullptr, nullptr);
    for (int i = 0; i < kLogInfoLevels; ++i) g_logInfoLv[i].enableMask.store(mSavedMasks[i]);
}

void LogCapture::writeLine(uint32_t moduleId, const char* tag, int level, const char* text,
                           int length) {
    std::lock_guard<std::mutex> lock(mMutex);
    mUnified.push_back({moduleId, tag, level, text, length});
}

void LogCapture::flush(int reason) {
    std::lock_guard<std::mutex> lock(mMutex);
    mFlushes.push_back(reason);
}

void LogCapture::onDebugPrint(void* cookie, const char* tag, cam_debug_level_t level,
                              const char* text) {
    auto* self = static_cast<LogCapture*>(cookie);
    std::lock_guard<std::mutex> lock(self->mMutex);
    self->mDebugPrint.push_back({tag, level, text});
}

std::vector<UnifiedLine> LogCapture::unified() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mUnified;
}

std::vector<DebugPrintLine> LogCapture::debugPrint() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mDebugPrint;
}

std::vector<std::string> LogCapture::unifiedTexts() const {
    std::lock_guard<std::mutex> lock(mMutex);
    std::vector<std::string> texts;
    for (const auto& line : mUnified) texts.push_back(line.text);
    return texts;
}

std::vector<int> LogCapture::flushes() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mFlushes;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(mMutex);
    mUnified.clear();
    mDebugPrint.clear();
    mFlushes.clear();
}

}  // namespace tavrel::test
