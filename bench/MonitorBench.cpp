// Costs of the event monitor: dispatch per ready event, a cross-thread wake-up round trip,
// attach plus detach while the registry keeps every descriptor it has seen, and a state
// dump of a monitor with many observers.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "tavrel/platform/ThreadDriver.h"
#include "tavrel/platform/UniqueFd.h"
#include "utils/sys/EpollMonitor.h"

namespace {

using NSCam::NSTavrel::EpollMonitor;
using NSCam::NSTavrel::IEpollMonitor;
using NSCam::NSTavrel::IEventObserver;
using tavrel::host::UniqueFd;

// Distinct descriptor numbers the registry benchmarks aim to go through; fewer when the
// hard descriptor limit is lower (the count used is reported).
constexpr int kWantedDistinctFds = 100000;
// Where those numbers start: above anything the program has open.
constexpr int kFirstDistinctFd = 1000;

std::shared_ptr<EpollMonitor> makeMonitor(const char* name) {
    return std::static_pointer_cast<EpollMonitor>(IEpollMonitor::make(name));
}

// Raises the soft descriptor limit to the hard one; returns what is now allowed.
rlim_t raiseDescriptorLimit() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    getrlimit(RLIMIT_NOFILE, &limit);
    return limit.rlim_cur;
}

UniqueFd makeEventFd() {
    return UniqueFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
}

// An observer of a descriptor it does not own.
class FdObserver : public IEventObserver {
public:
    explicit FdObserver(int fd) : mFd(fd) {}
    int getEventFD() const override { return mFd; }
    void onEvent(IEventObserver::OnEvent const&) override {}

private:
    int mFd;  // the descriptor reported to the monitor
};

// A level-triggered eventfd that is never read, so every wait reports it again; each
// dispatch is one benchmark iteration, counted on the monitor thread (the benchmark's).
class ReadyObserver : public IEventObserver {
public:
    ReadyObserver(benchmark::State& state, EpollMonitor& monitor)
        : mFd(makeEventFd()), mState(state), mMonitor(monitor) {
        const uint64_t one = 1;
        if (write(mFd.get(), &one, sizeof(one)) != sizeof(one)) mState.SkipWithError("write");
    }
    int getEventFD() const override { return mFd.get(); }
    void onEvent(IEventObserver::OnEvent const&) override {
        if (sStopped) return;
        if (mState.KeepRunning()) return;
        sStopped = true;
        mMonitor.requestExit();
    }

    static bool sStopped;  // the benchmark has ended; later dispatches are not counted

private:
    UniqueFd mFd;              // readable for ever
    benchmark::State& mState;  // the iterations to count
    EpollMonitor& mMonitor;    // stopped when the iterations run out
};

bool ReadyObserver::sStopped = false;

// Args: attached observers, of which ready ones (at most 64: one wait serves them all).
void BM_DispatchPerReadyEvent(benchmark::State& state) {
    const int attached = static_cast<int>(state.range(0));
    const int ready = static_cast<int>(state.range(1));
    state.counters["fd_limit"] = static_cast<double>(raiseDescriptorLimit());
    auto monitor = makeMonitor("bench");
    std::vector<std::unique_ptr<ReadyObserver>> readyObservers;
    std::vector<UniqueFd> idleFds;
    std::vector<std::unique_ptr<FdObserver>> idleObservers;
    for (int i = 0; i < ready; ++i) {
        readyObservers.push_back(std::make_unique<ReadyObserver>(state, *monitor));
        monitor->attach(readyObservers.back().get(), EPOLLIN);
    }
    for (int i = ready; i < attached; ++i) {
        idleFds.push_back(makeEventFd());
        if (!idleFds.back().ok()) return state.SkipWithError("descriptor limit too low");
        idleObservers.push_back(std::make_unique<FdObserver>(idleFds.back().get()));
        monitor->attach(idleObservers.back().get(), EPOLLIN);
    }
    ReadyObserver::sStopped = false;
    monitor->threadLoop();
    state.SetItemsProcessed(state.iterations());
    for (auto& observer : readyObservers) monitor->detach(observer.get());
    for (auto& observer : idleObservers) monitor->detach(observer.get());
}
BENCHMARK(BM_DispatchPerReadyEvent)
    ->ArgsProduct({{1, 100, 10000}, {1, 8, 64}})
    ->ArgNames({"attached", "ready"});

// Replies on a second eventfd to every wake-up, from the monitor thread.
class Echo : public IEventObserver {
public:
    int getEventFD() const override { return mRequest.get(); }
    void onEvent(IEventObserver::OnEvent const&) override {
        uint64_t value = 0;
        if (read(mRequest.get(), &value, sizeof(value)) != sizeof(value)) return;
        if (write(mReply.get(), &value, sizeof(value)) != sizeof(value)) return;
    }

    UniqueFd mRequest = makeEventFd();                    // written by the benchmark
    UniqueFd mReply = UniqueFd(eventfd(0, EFD_CLOEXEC));  // blocking: the benchmark waits
};

void BM_WakeUpRoundTrip(benchmark::State& state) {
    auto monitor = makeMonitor("bench");
    Echo echo;
    tavrel::host::ThreadDriver driver(monitor);
    monitor->attach(&echo, EPOLLIN);
    for (auto _ : state) {
        uint64_t value = 1;
        if (write(echo.mRequest.get(), &value, sizeof(value)) != sizeof(value)) break;
        if (read(echo.mReply.get(), &value, sizeof(value)) != sizeof(value)) break;
    }
    driver.stop();
    monitor->detach(&echo);
}
BENCHMARK(BM_WakeUpRoundTrip)->UseRealTime();

// How many distinct numbers above kFirstDistinctFd the descriptor limit allows.
int distinctFdCount() {
    const rlim_t limit = raiseDescriptorLimit();
    if (limit <= static_cast<rlim_t>(kFirstDistinctFd)) return 0;
    return static_cast<int>(
        std::min<rlim_t>(limit - kFirstDistinctFd, static_cast<rlim_t>(kWantedDistinctFds)));
}

// Moves one eventfd onto number after number, going round `count` of them.
class DistinctFds {
public:
    explicit DistinctFds(int count) : mSource(makeEventFd()), mCount(count) {}
    int next() {
        const int fd = kFirstDistinctFd + mNext;
        mNext = (mNext + 1) % mCount;
        return dup2(mSource.get(), fd);
    }

private:
    UniqueFd mSource;  // what every number refers to
    int mCount;        // numbers in the round
    int mNext = 0;     // offset of the next number
};

// Baseline for the next benchmark: moving a descriptor onto a number and closing it.
void BM_Dup2Close(benchmark::State& state) {
    const int count = distinctFdCount();
    if (count == 0) return state.SkipWithError("descriptor limit too low");
    DistinctFds fds(count);
    for (auto _ : state) close(fds.next());
}
BENCHMARK(BM_Dup2Close);

// Every iteration attaches and detaches another descriptor number, so the registry grows
// by one key per number and keeps them all; includes the baseline above.
void BM_AttachDetachDistinctFds(benchmark::State& state) {
    const int count = distinctFdCount();
    if (count == 0) return state.SkipWithError("descriptor limit too low");
    auto monitor = makeMonitor("bench");
    DistinctFds fds(count);
    for (auto _ : state) {
        FdObserver observer(fds.next());
        monitor->attach(&observer, EPOLLIN);
        monitor->detach(&observer);
        close(observer.getEventFD());
    }
    state.counters["registry_keys"] =
        static_cast<double>(std::min<int64_t>(state.iterations(), count));
}
BENCHMARK(BM_AttachDetachDistinctFds);

// Heap bytes the registry keeps per distinct descriptor ever attached.
void BM_RegistryBytesPerDescriptor(benchmark::State& state) {
    const int count = distinctFdCount();
    if (count == 0) return state.SkipWithError("descriptor limit too low");
    state.counters["distinct_fds"] = count;
    // uordblks leaves out the blocks malloc maps on their own (hblkhd), as it does the
    // registry's bucket array once that grows large.
    const auto heapInUse = [] {
        const struct mallinfo2 info = mallinfo2();
        return info.uordblks + info.hblkhd;
    };
    for (auto _ : state) {
        auto monitor = makeMonitor("bench");
        DistinctFds fds(count);
        const size_t before = heapInUse();
        for (int i = 0; i < count; ++i) {
            FdObserver observer(fds.next());
            monitor->attach(&observer, EPOLLIN);
            monitor->detach(&observer);
            close(observer.getEventFD());
        }
        const size_t after = heapInUse();
        state.counters["bytes_per_fd"] = static_cast<double>(after - before) / count;
    }
}
BENCHMARK(BM_RegistryBytesPerDescriptor)->Iterations(1)->Unit(benchmark::kMillisecond);

// Formats every line, as a real printer would, and keeps only its length.
class CountingPrinter : public NSCam::IPrinter {
public:
    void printLine(const char* line) override { mBytes += std::strlen(line); }
    void printFormatLine(const char* format, ...) override {
        va_list args;
        va_start(args, format);
        const int length = std::vsnprintf(nullptr, 0, format, args);
        va_end(args);
        if (length > 0) mBytes += static_cast<size_t>(length);
    }
    size_t bytes() const { return mBytes; }

private:
    size_t mBytes = 0;  // characters printed so far
};

// Observers attached while the state is dumped.
constexpr int kDumpedObservers = 1000;

// A state dump of a monitor with kDumpedObservers attached descriptors: the copy of the
// registry under its lock and the text built from it.
void BM_DumpState1000(benchmark::State& state) {
    raiseDescriptorLimit();
    auto monitor = makeMonitor("bench");
    std::vector<UniqueFd> fds;
    std::vector<std::unique_ptr<FdObserver>> observers;
    for (int i = 0; i < kDumpedObservers; ++i) {
        fds.push_back(makeEventFd());
        if (!fds.back().ok()) return state.SkipWithError("descriptor limit too low");
        observers.push_back(std::make_unique<FdObserver>(fds.back().get()));
        monitor->attach(observers.back().get(), EPOLLIN);
    }
    CountingPrinter printer;
    for (auto _ : state) monitor->dumpState(&printer);
    state.SetBytesProcessed(static_cast<int64_t>(printer.bytes()));
    for (auto& observer : observers) monitor->detach(observer.get());
}
BENCHMARK(BM_DumpState1000);

}  // namespace
