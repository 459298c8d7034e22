#include "DrainObserver.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <thread>
#include <vector>

namespace tavrel::test {

namespace {

// Between two looks at a condition another thread will make true.
constexpr std::chrono::microseconds kPollPause{50};
// Pipe reads take this much at a time.
constexpr size_t kPipeChunk = 256;

}  // namespace

bool waitUntil(const std::function<bool()>& done) {
    const auto giveUp = std::chrono::steady_clock::now() + kDispatchGuard;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= giveUp) return false;
        std::this_thread::sleep_for(kPollPause);
    }
    return true;
}

void Tally::record(uint64_t units) {
    if (settled.load()) {
        afterSettled.fetch_add(1);
    } else if (detached.load()) {
        inLastBatch.fetch_add(1);
    }
    consumed.fetch_add(units);
    calls.fetch_add(1);
}

DrainObserver::DrainObserver(int fd, Kind kind, Hook hook)
    : mFd(fd), mKind(kind), mHook(std::move(hook)) {}

void DrainObserver::onEvent(NSCam::NSTavrel::IEventObserver::OnEvent const& event) {
    mTally.record(drain());
    if (mHook) mHook(event);
}

uint64_t DrainObserver::drain() const {
    if (mKind == Kind::kEventFd) {
        uint64_t value = 0;
        return read(mFd, &value, sizeof(value)) == static_cast<ssize_t>(sizeof(value)) ? value : 0;
    }
    uint64_t total = 0;
    char chunk[kPipeChunk];
    ssize_t got = 0;
    while ((got = read(mFd, chunk, sizeof(chunk))) > 0) total += static_cast<uint64_t>(got);
    return total;
}

bool produce(int fd, DrainObserver::Kind kind, uint64_t units) {
    if (kind == DrainObserver::Kind::kEventFd) {
        return write(fd, &units, sizeof(units)) == static_cast<ssize_t>(sizeof(units));
    }
    const std::vector<char> bytes(units, 'x');
    return write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
}

DispatchBarrier::DispatchBarrier(NSCam::NSTavrel::IEpollMonitor& monitor)
    : mMonitor(monitor),
      mFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      mMarker(mFd.get(), DrainObserver::Kind::kEventFd) {
    mMonitor.attach(&mMarker, EPOLLIN);
}

DispatchBarrier::~DispatchBarrier() {
    mMonitor.detach(&mMarker);
}

bool DispatchBarrier::pass() {
    // One signal at a time: the previous one has been read, so the marker is not ready
    // until this write, and the batch that reads it began after it.
    ++mSent;
    if (!produce(mFd.get(), DrainObserver::Kind::kEventFd, 1)) return false;
    return waitUntil([&] { return mMarker.tally().consumed.load() >= mSent; });
}

}  // namespace tavrel::test
