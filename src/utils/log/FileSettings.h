// The two values each source file fixes when the library is loaded. Only the
// system-call file reads them (for its request timing).
// Kept for the stack: the other files compute them all the same, so every file pays its one
// property read at load and no later.
#pragma once

#include <cstdint>

#include "tavrel/platform/Properties.h"
#include "tavrel/platform/ULogger.h"

namespace NSCam::NSTavrel::Log {

// Property that caps the camera stack's log level; -1 when unset.
inline constexpr const char* kCameraLogLevelProperty = "persist.vendor.zel.camera.log_level";
inline constexpr int32_t kCameraLogLevelUnset = -1;

inline bool loadVerboseDetails() {
    return NSCam::Utils::ULog::ULogger::sDetailsLevel.load(std::memory_order_relaxed) > 3;
}

inline int32_t loadCameraLogLevel() {
    return NSCam::Utils::Properties::property_get_int32(kCameraLogLevelProperty,
                                                        kCameraLogLevelUnset);
}

}  // namespace NSCam::NSTavrel::Log

// Defines the file's sVerboseDetails and sCameraLogLevel.
#define TAVREL_DEFINE_FILE_SETTINGS()                       \
    [[maybe_unused]] static const bool sVerboseDetails =    \
        ::NSCam::NSTavrel::Log::loadVerboseDetails();       \
    [[maybe_unused]] static const int32_t sCameraLogLevel = \
        ::NSCam::NSTavrel::Log::loadCameraLogLevel()
