// The unified logger: the camera stack's structured log sink, with process-wide switches.
#pragma once

#include <atomic>
#include <cstdint>

#include "tavrel/platform/Export.h"

namespace NSCam::Utils::ULog {

class TAVREL_PLATFORM_API ULogger {
public:
    virtual ~ULogger();

    // Any thread. Writes one line. `length` is what the caller's formatting reported and
    // may exceed the text's real length (the text was cut to its buffer); trust `text`.
    virtual void writeLine(uint32_t moduleId, const char* tag, int level, const char* text,
                           int length);

    // Any thread. Pushes out what the logger holds; the fatal report calls it with 1
    // just before the process aborts.
    virtual void flush(int reason);

    // Switches read afresh by every log statement (relaxed loads: a change takes effect
    // at the next statement). Initial values come from properties at load.
    // sMode bit 0: debug-print route on; bits 1 and 3 (0xA): unified route on.
    static std::atomic<uint32_t> sMode;
    static std::atomic<uint32_t> sDetailsLevel;
    static std::atomic<uint32_t> sNormalDetailsMask;

    // The process's logger. Never null; programs and tests may install their own and
    // must keep it alive while it is installed.
    static std::atomic<ULogger*> sULogger;
};

}  // namespace NSCam::Utils::ULog
