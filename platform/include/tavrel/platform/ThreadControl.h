// Thread control of the camera stack: identity, scheduling, naming and CPU affinity.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tavrel/platform/Export.h"

namespace tavrel::host {

// The stack's scheduling policies, as setThreadPriority numbers them, and what `priority`
// means with each:
//   kBatch       SCHED_BATCH  the nice value, -20 (highest) to 19 (lowest)
//   kOther       SCHED_OTHER  the nice value, -20 to 19
//   kFifo        SCHED_FIFO   the real-time priority, 1 (lowest) to 99 (highest)
//   kRoundRobin  SCHED_RR     the real-time priority, 1 to 99
enum StackPolicy : int32_t { kBatch = 0, kOther = 1, kFifo = 2, kRoundRobin = 3 };

}  // namespace tavrel::host

namespace NSCam::Thread {

// The calling thread's kernel thread id.
TAVREL_PLATFORM_API int getThisThread();

// Applies `policy` and `priority` (tavrel::host::StackPolicy) to thread `tid`. Returns 0, or
// a negative errno; a refused request changes nothing.
TAVREL_PLATFORM_API int setThreadPriority(int tid, int priority, int policy);

}  // namespace NSCam::Thread

// Calling thread only. Names the calling thread (the kernel keeps 15 characters) and
// applies the stack's per-thread customisation. `name` need not be terminated.
TAVREL_PLATFORM_API void customizeThreadReadyToRun(const char* name, size_t length);

extern "C" {
// Calling thread only. Applies the CPU list of the affinity property; does nothing when
// it is unset. Returns 0, or a negative errno.
TAVREL_PLATFORM_API int zelcam_perfctrl_set_affinity();
}
