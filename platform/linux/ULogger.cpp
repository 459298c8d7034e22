// The unified logger's switches and the default logger, which writes to the host output.
#include "tavrel/platform/ULogger.h"

#include <limits>

#include "HostKeys.h"
#include "HostLogOutput.h"
#include "PropertyReport.h"
#include "PropertyValue.h"
#include "tavrel/platform/Properties.h"

namespace NSCam::Utils::ULog {
namespace {

constexpr uint32_t kDefaultMode = 2;  // unified route only
constexpr uint32_t kDefaultDetailsLevel = 2;
constexpr uint32_t kDefaultDetailsMask = 0;
constexpr int kValueSize = 96;

// The switches are unsigned 32-bit masks: decimal or 0x-hex, no sign.
uint32_t switchProperty(const char* key, uint32_t defaultValue) {
    char text[kValueSize];
    if (!tavrel::host::property_get(key, text, sizeof(text))) return defaultValue;
    uint64_t value = 0;
    if (!tavrel::host::parseMask(text, &value) || value > std::numeric_limits<uint32_t>::max()) {
        tavrel::host::reportBadValue(key, text, tavrel::host::kExpectUnsigned32);
        return defaultValue;
    }
    return static_cast<uint32_t>(value);
}

char levelLetter(int level) {
    switch (level) {
        case 1:
            return 'E';
        case 2:
            return 'W';
        case 3:
            return 'I';
        case 4:
            return 'D';
        case 5:
            return 'V';
        default:
            return '?';
    }
}

// Holds the default logger without ever destroying it: threads may log while the
// process exits, after static destructors have run.
union DefaultLoggerStorage {
    constexpr DefaultLoggerStorage() : logger() {}
    ~DefaultLoggerStorage() {}
    ULogger logger;  // the process's logger until a program installs its own
};

DefaultLoggerStorage sDefaultLogger;

}  // namespace

// Constant-initialised, so any reader sees the defaults even before the load-time
// initialiser below has applied the properties.
std::atomic<uint32_t> ULogger::sMode{kDefaultMode};
std::atomic<uint32_t> ULogger::sDetailsLevel{kDefaultDetailsLevel};
std::atomic<uint32_t> ULogger::sNormalDetailsMask{kDefaultDetailsMask};
std::atomic<ULogger*> ULogger::sULogger{&sDefaultLogger.logger};

ULogger::~ULogger() = default;

void ULogger::writeLine(uint32_t /*moduleId*/, const char* tag, int level, const char* text,
                        int /*length*/) {
    tavrel::host::writeHostLogLine(levelLetter(level), tag, text);
}

// Every line leaves with its own write, so the default logger holds nothing to push out.
void ULogger::flush(int /*reason*/) {}

namespace {

// Runs before ordinary static initialisers of this and every dependent library, so
// their initialisers already see the configured switches and output.
__attribute__((constructor(101))) void applyULogProperties() {
    ULogger::sMode.store(switchProperty(tavrel::host::kULogModeKey, kDefaultMode));
    ULogger::sDetailsLevel.store(
        switchProperty(tavrel::host::kULogDetailsLevelKey, kDefaultDetailsLevel));
    ULogger::sNormalDetailsMask.store(
        switchProperty(tavrel::host::kULogDetailsMaskKey, kDefaultDetailsMask));
    tavrel::host::openHostLogOutput();
}

}  // namespace
}  // namespace NSCam::Utils::ULog
