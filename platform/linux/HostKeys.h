// The properties the host platform layer reads: every tavrel.host.* key there is.
#pragma once

namespace tavrel::host {

inline constexpr const char* kULogModeKey = "tavrel.host.ulog.mode";
inline constexpr const char* kULogDetailsLevelKey = "tavrel.host.ulog.details_level";
inline constexpr const char* kULogDetailsMaskKey = "tavrel.host.ulog.details_mask";
inline constexpr const char* kULogFileKey = "tavrel.host.ulog.file";
inline constexpr const char* kDebugPrintModulesKey = "tavrel.host.dbgprint.modules";
inline constexpr const char* kTraceBitsKey = "tavrel.host.trace.bits";
inline constexpr const char* kTraceTagsKey = "tavrel.host.trace.tags";
inline constexpr const char* kTraceKernelMarkerKey = "tavrel.host.trace.kernel_marker";
inline constexpr const char* kTraceFileKey = "tavrel.host.trace.file";
inline constexpr const char* kFdsanKey = "tavrel.host.fdsan";
inline constexpr const char* kCrashDirKey = "tavrel.host.crash.dir";
inline constexpr const char* kAffinityKey = "tavrel.host.perfctrl.affinity";

// What every key above begins with; any other key of this form is a mistake.
inline constexpr const char* kHostKeyPrefix = "tavrel.host.";

inline constexpr const char* kHostKeys[] = {
    kULogModeKey,  kULogDetailsLevelKey,  kULogDetailsMaskKey,
    kULogFileKey,  kDebugPrintModulesKey, kTraceBitsKey,
    kTraceTagsKey, kTraceKernelMarkerKey, kTraceFileKey,
    kFdsanKey,     kCrashDirKey,          kAffinityKey,
};

}  // namespace tavrel::host
