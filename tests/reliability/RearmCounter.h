// Counts the Timers' re-arm lines instead of keeping them: how many expiries were re-armed
// and how many of those found a periodic timer with no time left and set it to fire at once.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>

#include "common/LogCapture.h"

namespace tavrel::test {

class RearmCounter : public LogCapture {
public:
    RearmCounter() : LogCapture(unifiedOnly()) {}

    void writeLine(uint32_t, const char* tag, int, const char* text, int) override {
        if (std::strcmp(tag, kTimerTag) != 0 ||
            std::strncmp(text, kRearmHead, kRearmHeadLength) != 0)
            return;
        mRearms.fetch_add(1, std::memory_order_relaxed);
        // Fire-at-once keeps the period; a setting read back with time left ends otherwise.
        if (std::strstr(text, kFireAtOnceTail) != nullptr &&
            std::strstr(text, kNoPeriod) == nullptr)
            mFiredAtOnce.fetch_add(1, std::memory_order_relaxed);
    }

    uint64_t rearms() const { return mRearms.load(); }
    uint64_t firedAtOnce() const { return mFiredAtOnce.load(); }

private:
    static constexpr const char* kTimerTag = "tavrel-Timer";
    static constexpr const char* kRearmHead = "[enableEdgeTrigger] ";
    static constexpr size_t kRearmHeadLength = sizeof("[enableEdgeTrigger] ") - 1;
    static constexpr const char* kFireAtOnceTail = ".it_value=0.1 }";
    static constexpr const char* kNoPeriod = ".it_interval=0.0 ";

    static LogSwitches unifiedOnly() {
        LogSwitches switches;
        switches.mode = 0x2;
        return switches;
    }

    std::atomic<uint64_t> mRearms{0};       // re-arm lines seen
    std::atomic<uint64_t> mFiredAtOnce{0};  // of those, periodic timers set to fire at once
};

}  // namespace tavrel::test
