// A substitute ioctl for this test program. The library's ioctl calls bind to it before
// the C library's; it answers for one chosen descriptor and passes every other one on.
#pragma once

#include <chrono>

namespace tavrel::test {

struct FakeRequest {
    int fd = -1;                           // the descriptor answered here
    int result = 0;                        // what ioctl returns
    int error = 0;                         // errno set when result is negative
    std::chrono::nanoseconds duration{0};  // how long the request takes at least
    int allocatedFd = -1;                  // stored through the argument, if not -1
};

// Test thread, before the requests. Replaces the answer; a default one answers nothing.
void setFakeRequest(const FakeRequest& request);

}  // namespace tavrel::test
