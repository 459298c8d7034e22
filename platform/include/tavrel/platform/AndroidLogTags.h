// Filtering of the host's Android log with logcat's rules, as ANDROID_LOG_TAGS asks.
#pragma once

#include "tavrel/platform/Export.h"

namespace tavrel::host {

// Environment variable read at load: logcat's filter expression for the process's
// Android-log lines. Unset or empty: no filter.
inline constexpr const char* kAndroidLogTagsEnv = "ANDROID_LOG_TAGS";

// Any thread. Filters every line the process writes to the Android log with `tags`,
// logcat's filter expression: rules apart by blanks or commas, each "tag:level" or "tag"
// (every level of that tag), "*:level" or "*" (debug and above) for the tags no rule
// names; the last rule for a tag wins; levels V D I W E F S (S shows nothing), in either
// case. A malformed rule is said on stderr and left out. Null or an empty text shows every
// line. The filter is applied by the layer's liblog logger, which writes the lines shown to
// stderr in logcat's threadtime format; a program that installs a liblog logger of its own
// replaces both.
TAVREL_PLATFORM_API void setAndroidLogTags(const char* tags);

}  // namespace tavrel::host
