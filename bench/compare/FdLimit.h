// The descriptor limit the comparison needs: two per pair plus the loops' own.
#pragma once

#include <cstddef>

namespace tavrel::bench {

struct FdLimit {
    size_t soft;  // in force after the raise
    size_t hard;
};

// Raises RLIMIT_NOFILE to `wanted`, lifting the hard limit too when the process may
// (root may, up to the kernel's nr_open); otherwise goes as far as the hard limit.
FdLimit raiseFdLimit(size_t wanted);

}  // namespace tavrel::bench
