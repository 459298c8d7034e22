// What the monitor's registry keeps per descriptor: attach and detach many distinct
// descriptor numbers once each (the registry never forgets a number) and divide the heap
// growth, as malloc itself counts it, by how many there were.
#include <fcntl.h>
#include <malloc.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "FdLimit.h"
#include "tavrel/IEpollMonitor.h"
#include "tavrel/platform/UniqueFd.h"

namespace tavrel::bench {

namespace {

constexpr size_t kDescriptors = 100'000;
// Descriptor numbers below this are left to the process (stdio, the monitor's own).
constexpr int kFirstFd = 64;

using NSCam::NSTavrel::IEventObserver;

// Stands for whatever descriptor number it is given; nothing is ever dispatched to it.
class NumberObserver final : public IEventObserver {
public:
    void setFd(int fd) { mFd = fd; }
    int getEventFD() const override { return mFd; }
    void onEvent(OnEvent const& /*event*/) override {}

private:
    int mFd = -1;
};

// Small blocks from the heap plus the large ones malloc maps on their own (the bucket array).
size_t heapInUse() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

}  // namespace

int run() {
    const FdLimit limit = raiseFdLimit(kFirstFd + kDescriptors + 1);
    const size_t fitting = limit.soft > kFirstFd + 1 ? limit.soft - kFirstFd - 1 : 0;
    const size_t count = fitting < kDescriptors ? fitting : kDescriptors;
    const host::UniqueFd source(::eventfd(0, EFD_CLOEXEC));
    if (!source.ok()) return EXIT_FAILURE;

    const std::shared_ptr<NSCam::NSTavrel::IEpollMonitor> monitor =
        NSCam::NSTavrel::IEpollMonitor::make("mapmem");
    NumberObserver observer;
    const size_t before = heapInUse();
    size_t attached = 0;
    for (size_t i = 0; i < count; ++i) {
        const int fd = kFirstFd + static_cast<int>(i);
        if (::fcntl(fd, F_GETFD) != -1) continue;  // taken by someone else: not ours to replace
        host::UniqueFd number(::dup2(source.get(), fd));
        if (!number.ok()) break;
        observer.setFd(fd);
        monitor->attach(&observer, EPOLLIN);
        monitor->detach(&observer);
        ++attached;
    }
    const size_t after = heapInUse();
    const double perDescriptor =
        attached == 0 ? 0.0 : static_cast<double>(after - before) / static_cast<double>(attached);
    std::printf(
        "descriptors=%zu wanted=%zu fd_limit=%zu heap_before=%zu heap_after=%zu "
        "bytes_per_descriptor=%.1f\n",
        attached, kDescriptors, limit.soft, before, after, perDescriptor);
    return attached == 0 ? EXIT_FAILURE : EXIT_SUCCESS;
}

}  // namespace tavrel::bench

int main() {
    return tavrel::bench::run();
}
