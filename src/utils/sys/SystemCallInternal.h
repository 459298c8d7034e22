// Parts of the system-call layer that the wrappers' inline code calls: the errno reaction
// and the limit of the queueing requests' duration check (which the tests also check
// directly, since no request on a busy machine can be timed to a boundary).
#pragma once

#include <cstdint>

namespace NSCam::NSTavrel::System::internal {

// Reacts to a saved errno: running out of descriptors (EMFILE) lists the process's open
// descriptors at info level; every other value is ignored. Never ends the process.
void handleErrno(int err);

// A queueing request that takes longer than this is reported as slow.
inline constexpr int64_t kQueueDurationLimitNs = 2'000'000;

constexpr bool exceedsQueueLimit(int64_t elapsedNs) {
    return elapsedNs > kQueueDurationLimitNs;
}

}  // namespace NSCam::NSTavrel::System::internal
