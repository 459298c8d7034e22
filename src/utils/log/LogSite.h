// Where a log statement or report stands: its file's log tag and source path.
#pragma once

#include <cstddef>
#include <cstdint>

namespace NSCam::NSTavrel::Log {

struct Site {
    const char* tag;   // the file's log tag
    const char* path;  // the source path printed by the long forms, without extension
};

// Module id of every line this library writes to the unified logger.
inline constexpr uint32_t kModuleId = 0x08002001;
// All of these bits must be set in the details mask for a verbose line.
inline constexpr uint32_t kDetailsMask = 0x08002000;
// Bit of a debug-print level's enable mask that lets this library print.
inline constexpr uint64_t kDebugPrintModuleBit = uint64_t{1} << 55;
// Size of the line buffer on each route; longer lines are cut to one byte less.
inline constexpr size_t kLineSize = 1024;
// sMode bit that switches the debug-print route on.
inline constexpr uint32_t kDebugPrintRouteBit = 0x1;
// sMode bits that switch the unified-log route on.
inline constexpr uint32_t kUnifiedRouteBits = 0xA;

}  // namespace NSCam::NSTavrel::Log
