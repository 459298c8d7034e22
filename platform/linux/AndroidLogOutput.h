// Where the host's Android-log lines go, and what decides which of them are shown.
#pragma once

namespace tavrel::host {

// Any thread. Whether ANDROID_LOG_TAGS's rules (or setAndroidLogTags()'s) show a line of
// `priority` and `tag`; every line when no rule is set.
bool androidLogTagsShow(int priority, const char* tag);

}  // namespace tavrel::host
