// Thread control of the camera stack: identity, scheduling, naming and CPU affinity.
#pragma once

#include <cstddef>

#include "tavrel/platform/Export.h"

namespace NSCam::Thread {

// The calling thread's kernel thread id.
TAVREL_PLATFORM_API int getThisThread();

// Applies `policy` and `priority` (the camera stack's numbering, see README) to thread
// `tid`. Returns 0, or a negative errno; a refused request changes nothing.
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
