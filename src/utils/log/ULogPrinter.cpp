#include "tavrel/ULogPrinter.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "tavrel/platform/ULogger.h"
#include "utils/log/LogSite.h"

namespace NSCam::Utils::ULog {

namespace {

// From this level on, a line also needs its module enabled in the details mask.
constexpr uint32_t kModuleCheckedLevel = 5;
// The two halves of a module id that must both be enabled.
constexpr uint32_t kModuleGroupBits = 0xfff00000;
constexpr uint32_t kModuleUnitBits = 0x000ff000;

uint32_t loadSwitch(const std::atomic<uint32_t>& value) {
    return value.load(std::memory_order_relaxed);
}

// Whether the unified logger's switches want a line of `level` from `moduleId`.
bool wanted(uint32_t level, uint32_t moduleId) {
    if (loadSwitch(ULogger::sDetailsLevel) < level) return false;
    if (level < kModuleCheckedLevel) return true;
    const uint32_t module = moduleId & loadSwitch(ULogger::sNormalDetailsMask);
    return (module & kModuleGroupBits) != 0 && (module & kModuleUnitBits) != 0;
}

// Sends `text` down both routes, Android log first; `length` goes to the unified logger.
void write(android::LogPrinter& logPrinter, uint32_t moduleId, const char* tag, uint32_t level,
           const char* text, int length) {
    const uint32_t mode = loadSwitch(ULogger::sMode);
    if ((mode & NSTavrel::Log::kDebugPrintRouteBit) != 0) logPrinter.printLine(text);
    if ((mode & NSTavrel::Log::kUnifiedRouteBits) != 0) {
        ULogger::sULogger.load(std::memory_order_acquire)
            ->writeLine(moduleId, tag, static_cast<int>(level), text, length);
    }
}

}  // namespace

ULogPrinter::ULogPrinter(const char* tag, uint32_t moduleId, uint32_t level,
                         android_LogPriority priority, const char* prefix, bool ignoreBlankLines)
    : mLevel(level),
      mModuleId(moduleId),
      mTag(),
      mLogPrinter(tag, priority, prefix, ignoreBlankLines) {
    std::snprintf(mTag, sizeof(mTag), "%s", tag);
}

ULogPrinter::~ULogPrinter() = default;

void ULogPrinter::printLine(const char* line) {
    if (!wanted(mLevel, mModuleId)) return;
    write(mLogPrinter, mModuleId, mTag, mLevel, line, static_cast<int>(std::strlen(line)));
}

void ULogPrinter::printFormatLine(const char* format, ...) {
    if (!wanted(mLevel, mModuleId)) return;
    char text[NSTavrel::Log::kLineSize] = {};
    va_list args;
    va_start(args, format);
    // The untruncated length is passed on as it is, even past the buffer.
    int length = std::vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    if (length < 0) {
        text[0] = '\0';
        length = 0;
    }
    text[sizeof(text) - 1] = '\0';
    write(mLogPrinter, mModuleId, mTag, mLevel, text, length);
}

}  // namespace NSCam::Utils::ULog
