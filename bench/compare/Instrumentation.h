// Brackets the timed rounds for callgrind, so that its counts cover them and nothing else.
// Outside valgrind the client requests are a few no-op instructions.
#pragma once

#include <valgrind/callgrind.h>

namespace tavrel::bench {

inline void startCounting() {
    CALLGRIND_START_INSTRUMENTATION;
}
inline void stopCounting() {
    CALLGRIND_STOP_INSTRUMENTATION;
}

}  // namespace tavrel::bench
