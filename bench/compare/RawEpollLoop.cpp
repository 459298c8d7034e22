// The floor: a bare epoll loop that hands each ready entry to a virtual onEvent through
// the registration's data pointer, the least any observer-based loop can do.
#include <sys/epoll.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "Backend.h"
#include "StopSignal.h"

namespace tavrel::bench {

namespace {

constexpr int kMaxEvents = 64;

class RawObserver {
public:
    virtual ~RawObserver() = default;
    virtual void onEvent(uint32_t events) = 0;
};

class PairObserver final : public RawObserver {
public:
    PairObserver(Workload& workload, size_t index) : mWorkload(workload), mIndex(index) {}
    void onEvent(uint32_t /*events*/) override { mWorkload.onReadable(mIndex); }

private:
    Workload& mWorkload;
    const size_t mIndex;
};

class StartObserver final : public RawObserver {
public:
    explicit StartObserver(Workload& workload) : mWorkload(workload) {}
    void onEvent(uint32_t /*events*/) override { mWorkload.onStart(); }

private:
    Workload& mWorkload;
};

class StopObserver final : public RawObserver {
public:
    StopObserver(StopSignal& signal, bool& running) : mSignal(signal), mRunning(running) {}
    void onEvent(uint32_t /*events*/) override {
        mSignal.consume();
        mRunning = false;
    }

private:
    StopSignal& mSignal;
    bool& mRunning;
};

class RawEpollLoop final : public RunningLoop {
public:
    explicit RawEpollLoop(Workload& workload)
        : mEpoll(::epoll_create1(EPOLL_CLOEXEC)),
          mStartObserver(workload),
          mStopObserver(mStop, mRunning) {
        if (!mEpoll.ok()) fail("epoll_create1");
        const SocketPairs& pairs = workload.pairs();
        mObservers.reserve(pairs.size());
        for (size_t i = 0; i < pairs.size(); ++i) {
            mObservers.emplace_back(workload, i);
            add(pairs.readFd(i), &mObservers.back());
        }
        add(workload.startFd(), &mStartObserver);
        add(mStop.fd(), &mStopObserver);
        mThread = std::thread([this] { run(); });
    }

    pthread_t thread() override { return mThread.native_handle(); }

    ~RawEpollLoop() override {
        mStop.raise();
        mThread.join();
    }

private:
    [[noreturn]] static void fail(const char* what) {
        std::perror(what);
        std::abort();
    }

    void add(int fd, RawObserver* observer) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.ptr = observer;
        if (::epoll_ctl(mEpoll.get(), EPOLL_CTL_ADD, fd, &event) != 0) fail("epoll_ctl");
    }

    void run() {
        epoll_event events[kMaxEvents];
        while (mRunning) {
            const int n = ::epoll_wait(mEpoll.get(), events, kMaxEvents, -1);
            if (n < 0) {
                if (errno == EINTR) continue;
                fail("epoll_wait");
            }
            for (int i = 0; i < n; ++i) {
                static_cast<RawObserver*>(events[i].data.ptr)->onEvent(events[i].events);
            }
        }
    }

    host::UniqueFd mEpoll;
    StopSignal mStop;
    bool mRunning = true;  // loop thread only
    StartObserver mStartObserver;
    StopObserver mStopObserver;
    std::vector<PairObserver> mObservers;
    std::thread mThread;
};

}  // namespace

std::unique_ptr<RunningLoop> startRawEpoll(Workload& workload) {
    return std::make_unique<RawEpollLoop>(workload);
}

}  // namespace tavrel::bench
