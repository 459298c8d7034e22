// Runs an event monitor on a thread of its own, lets another thread signal an eventfd a
// few times, prints the monitor's state and stops it.
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <thread>

#include "tavrel/IEpollMonitor.h"
#include "tavrel/IEventObserver.h"
#include "tavrel/StdoutPrinter.h"
#include "tavrel/platform/ThreadDriver.h"
#include "tavrel/platform/UniqueFd.h"

namespace {

using NSCam::NSTavrel::IEpollMonitor;
using NSCam::NSTavrel::IEventObserver;

constexpr int kSignals = 3;

// An eventfd that another thread signals; each readable edge is one "tick".
class Ticker : public IEventObserver {
public:
    Ticker() : mFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

    bool ok() const { return mFd.ok(); }
    int getEventFD() const override { return mFd.get(); }

    // Monitor thread.
    void onEvent(IEventObserver::OnEvent const& event) override {
        uint64_t count = 0;
        if (read(mFd.get(), &count, sizeof(count)) != sizeof(count)) return;
        std::lock_guard<std::mutex> lock(mMutex);
        mTicks += count;
        std::printf("tick: +%llu (events %#x), %llu in all\n",
                    static_cast<unsigned long long>(count), event.events,
                    static_cast<unsigned long long>(mTicks));
        mTicked.notify_all();
    }

    // Any thread.
    void signal() {
        const uint64_t one = 1;
        if (write(mFd.get(), &one, sizeof(one)) != sizeof(one)) std::perror("write");
    }

    // Any thread. Waits until `ticks` have been seen.
    void waitFor(uint64_t ticks) {
        std::unique_lock<std::mutex> lock(mMutex);
        mTicked.wait(lock, [&] { return mTicks >= ticks; });
    }

private:
    tavrel::host::UniqueFd mFd;       // the eventfd the monitor watches
    std::mutex mMutex;                // guards mTicks between the two threads
    std::condition_variable mTicked;  // wakes waitFor
    uint64_t mTicks = 0;              // signals seen so far
};

}  // namespace

int main() {
    Ticker ticker;
    if (!ticker.ok()) {
        std::perror("eventfd");
        return 1;
    }
    std::shared_ptr<IEpollMonitor> monitor = IEpollMonitor::make("example");
    tavrel::host::ThreadDriver driver(monitor);
    monitor->attach(&ticker, EPOLLIN);

    std::thread signaller([&] {
        for (int i = 1; i <= kSignals; ++i) {
            ticker.signal();
            ticker.waitFor(i);
        }
    });
    signaller.join();

    NSCam::StdoutPrinter printer;
    monitor->dumpState(&printer);
    driver.stop();
    monitor->detach(&ticker);
    return 0;
}
