// The library's EpollMonitor, run by the host thread driver, one observer per pair.
#include <sys/epoll.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "Backend.h"
#include "tavrel/IEpollMonitor.h"
#include "tavrel/IThreadLoop.h"
#include "tavrel/platform/ThreadDriver.h"

namespace tavrel::bench {

namespace {

using NSCam::NSTavrel::IEpollMonitor;
using NSCam::NSTavrel::IEventObserver;
using NSCam::NSTavrel::IThreadLoop;

// Any policy value: given without a priority, neither the driver nor the monitor changes
// the thread's scheduling, so the monitor runs at the same priority as the other loops.
constexpr int32_t kLeaveSchedulingAlone = 0;

class PairObserver final : public IEventObserver {
public:
    PairObserver(Workload& workload, size_t index)
        : mWorkload(workload), mIndex(index), mFd(workload.pairs().readFd(index)) {}
    int getEventFD() const override { return mFd; }
    void onEvent(OnEvent const& /*event*/) override { mWorkload.onReadable(mIndex); }

private:
    Workload& mWorkload;
    const size_t mIndex;
    const int mFd;
};

class StartObserver final : public IEventObserver {
public:
    explicit StartObserver(Workload& workload) : mWorkload(workload) {}
    int getEventFD() const override { return mWorkload.startFd(); }
    void onEvent(OnEvent const& /*event*/) override { mWorkload.onStart(); }

private:
    Workload& mWorkload;
};

class MonitorLoop final : public RunningLoop {
public:
    explicit MonitorLoop(Workload& workload)
        : mMonitor(IEpollMonitor::make("compare")), mStartObserver(workload) {
        const size_t count = workload.pairs().size();
        mObservers.reserve(count);
        for (size_t i = 0; i < count; ++i) {
            mObservers.emplace_back(workload, i);
            mMonitor->attach(&mObservers.back(), EPOLLIN);
        }
        mMonitor->attach(&mStartObserver, EPOLLIN);
        auto loop = std::dynamic_pointer_cast<IThreadLoop>(mMonitor);
        if (!loop) {
            std::fprintf(stderr, "monitor: no thread loop view\n");
            std::abort();
        }
        mDriver = std::make_unique<host::ThreadDriver>(
            std::move(loop), std::string(), kLeaveSchedulingAlone, host::ThreadDriver::kNotGiven);
    }

    pthread_t thread() override { return mDriver->nativeHandle(); }

    ~MonitorLoop() override {
        mDriver->stop();
        for (PairObserver& observer : mObservers) mMonitor->detach(&observer);
        mMonitor->detach(&mStartObserver);
    }

private:
    std::shared_ptr<IEpollMonitor> mMonitor;
    std::vector<PairObserver> mObservers;  // must not move while attached
    StartObserver mStartObserver;
    std::unique_ptr<host::ThreadDriver> mDriver;
};

}  // namespace

std::unique_ptr<RunningLoop> startEpollMonitor(Workload& workload) {
    return std::make_unique<MonitorLoop>(workload);
}

}  // namespace tavrel::bench
