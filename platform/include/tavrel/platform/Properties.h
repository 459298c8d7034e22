// System properties of the camera stack, backed on Linux hosts by an in-process store.
#pragma once

#include <cstdint>

#include "tavrel/platform/Export.h"

namespace NSCam::Utils::Properties {

// Any thread. Returns the value of `key` parsed as a decimal or 0x-hex int32, or
// `defaultValue` when the key is unset, empty, out of range or has trailing junk.
TAVREL_PLATFORM_API int32_t property_get_int32(const char* key, int32_t defaultValue);

// Any thread. 1/y/yes/on/true give 1, 0/n/no/off/false give 0, anything else the default.
TAVREL_PLATFORM_API int8_t property_get_bool(const char* key, int8_t defaultValue);

}  // namespace NSCam::Utils::Properties

namespace tavrel::host {

// Environment variable naming a `key=value` properties file, loaded at first use.
inline constexpr const char* kPropertiesFileEnv = "TAVREL_PROPERTIES";

// Any thread. Copies the raw value of `key` into `out` (at most `size` - 1 characters,
// always terminated) and returns true; returns false and leaves `out` alone when unset.
TAVREL_PLATFORM_API bool property_get(const char* key, char* out, unsigned long size);

// Any thread. Sets (or with a null value, removes) a property in the process's store.
// Readers that cache a value at load time (documented per key) do not see the change.
TAVREL_PLATFORM_API void property_set(const char* key, const char* value);

}  // namespace tavrel::host
