#include "StopSignal.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace tavrel::bench {

StopSignal::StopSignal() : mFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!mFd.ok()) {
        std::perror("eventfd");
        std::abort();
    }
}

void StopSignal::raise() {
    const uint64_t one = 1;
    if (::write(mFd.get(), &one, sizeof one) != sizeof one) std::perror("stop write");
}

void StopSignal::consume() {
    uint64_t count;
    if (::read(mFd.get(), &count, sizeof count) != sizeof count) std::perror("stop read");
}

}  // namespace tavrel::bench
