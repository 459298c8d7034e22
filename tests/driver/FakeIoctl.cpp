#include "FakeIoctl.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>

namespace tavrel::test {
namespace {

FakeRequest sRequest;  // set by the test thread before the requests it answers

// Busy-waits rather than sleeps, so the request lasts at least `duration` of the
// steady clock the library measures with.
void spendAtLeast(std::chrono::nanoseconds duration) {
    const auto end = std::chrono::steady_clock::now() + duration;
    while (std::chrono::steady_clock::now() < end) {
    }
}

}  // namespace

void setFakeRequest(const FakeRequest& request) {
    sRequest = request;
}

}  // namespace tavrel::test

extern "C" int ioctl(int fd, unsigned long request, ...) {
    va_list args;
    va_start(args, request);
    void* arg = va_arg(args, void*);
    va_end(args);
    const tavrel::test::FakeRequest& fake = tavrel::test::sRequest;
    if (fd != fake.fd || fake.fd < 0) return static_cast<int>(syscall(SYS_ioctl, fd, request, arg));
    tavrel::test::spendAtLeast(fake.duration);
    if (fake.allocatedFd != -1) *static_cast<int*>(arg) = fake.allocatedFd;
    if (fake.result < 0) errno = fake.error;
    return fake.result;
}
