// Uses one wrapper pair of the system layer and one platform call through the installed
// headers and libraries.
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdio>

#include "tavrel/SystemCall.h"
#include "tavrel/platform/ThreadControl.h"

namespace {
// The owner value this program tags its descriptor with.
constexpr unsigned long kOwner = 0xc0ffee;
}  // namespace

int main() {
    const int fd = NSCam::NSTavrel::System::EventFD(0, EFD_CLOEXEC, kOwner);
    if (fd < 0) {
        fprintf(stderr, "EventFD failed: %d\n", fd);
        return 1;
    }
    const int closed = NSCam::NSTavrel::System::Close(fd, kOwner);
    if (closed != 0) {
        fprintf(stderr, "Close failed: %d\n", closed);
        return 1;
    }
    if (NSCam::Thread::getThisThread() != gettid()) {
        fprintf(stderr, "getThisThread differs from gettid\n");
        return 1;
    }
    printf("consumer: eventfd created and closed, thread id matches\n");
    return 0;
}
