// The printer state dumps are written to when they belong in the log: each line goes to
// the Android log and to the unified logger, each route only when the unified logger's
// switches ask for it. One object serves this library's dumpState and any platform
// routine that takes an android::Printer.
#pragma once

#include <android/log.h>
#include <utils/Printer.h>

#include <cstdint>

#include "tavrel/Export.h"
#include "tavrel/IPrinter.h"

namespace NSCam::Utils::ULog {

class TAVREL_SYS_API ULogPrinter : public NSCam::IPrinter, public android::Printer {
public:
    // The Android log gets `tag` whole and the unified logger a copy of at most 63
    // characters; `tag` and `prefix` (put before each Android-log line) must outlive the
    // printer.
    ULogPrinter(const char* tag, uint32_t moduleId, uint32_t level, android_LogPriority priority,
                const char* prefix, bool ignoreBlankLines);
    ~ULogPrinter() override;

    ULogPrinter(const ULogPrinter&) = delete;
    ULogPrinter& operator=(const ULogPrinter&) = delete;

    void printLine(const char* line) override;
    void printFormatLine(const char* format, ...) override __attribute__((format(printf, 2, 3)));

private:
    static constexpr int kTagSize = 64;

    uint32_t mLevel;                  // unified-log level of every line
    uint32_t mModuleId;               // unified-log module id of every line
    char mTag[kTagSize];              // the unified logger's copy of the tag
    android::LogPrinter mLogPrinter;  // the Android-log route
};

}  // namespace NSCam::Utils::ULog
