// Descriptor ownership checks: each descriptor may carry its owner's tag, and closing or
// re-tagging it with another owner's tag is caught.
#pragma once

#include <cstdint>

#include "tavrel/platform/Export.h"

extern "C" {

// Builds the tag of `owner` for descriptors of kind `type`; owner 0 gives tag 0 (unowned).
TAVREL_PLATFORM_API uint64_t zelcam_fdsan_create_tag(unsigned long owner, int type);

// Sets the tag of `fd` to `newTag` if it currently is `expectedTag`; a mismatch is an
// ownership error. Returns 0, or -1 on a mismatch that was only reported.
TAVREL_PLATFORM_API int zelcam_fdsan_exchange_tag(int fd, uint64_t expectedTag, uint64_t newTag,
                                                  int type);

// Closes `fd` if its tag is `tag`, clearing the tag. Returns close()'s result; a mismatch
// is an ownership error and the descriptor is not closed when the reaction is fatal.
TAVREL_PLATFORM_API int zelcam_fdsan_close_with_tag(int fd, uint64_t tag, int type);

}  // extern "C"

namespace tavrel::host {

enum class FdsanReaction { kOff, kWarnOnce, kFatal };

// Any thread. Initially from the property "tavrel.host.fdsan" (fatal, warn_once, off).
TAVREL_PLATFORM_API void setFdsanReaction(FdsanReaction reaction);
TAVREL_PLATFORM_API FdsanReaction fdsanReaction();

// The tag `fd` carries now (0 when none).
TAVREL_PLATFORM_API uint64_t fdsanGetTag(int fd);

}  // namespace tavrel::host
