// libev 4 on its epoll backend: one io watcher per pair.
#include <ev.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>

#include "Backend.h"
#include "StopSignal.h"

namespace tavrel::bench {

namespace {

struct Slot {
    ev_io watcher;  // first, so that the watcher's address is the slot's
    Workload* workload;
    size_t index;
};

class LibevLoop final : public RunningLoop {
public:
    explicit LibevLoop(Workload& workload)
        : mLoop(ev_loop_new(EVBACKEND_EPOLL | EVFLAG_NOENV)),
          mCount(workload.pairs().size()),
          mSlots(std::make_unique<Slot[]>(mCount)) {
        if (mLoop == nullptr || ev_backend(mLoop) != EVBACKEND_EPOLL) {
            std::fprintf(stderr, "libev: no epoll loop\n");
            std::abort();
        }
        for (size_t i = 0; i < mCount; ++i) {
            Slot& slot = mSlots[i];
            slot.workload = &workload;
            slot.index = i;
            ev_io_init(&slot.watcher, onPairReadable, workload.pairs().readFd(i), EV_READ);
            ev_io_start(mLoop, &slot.watcher);
        }
        ev_io_init(&mStartWatcher, onStart, workload.startFd(), EV_READ);
        mStartWatcher.data = &workload;
        ev_io_start(mLoop, &mStartWatcher);
        ev_io_init(&mStopWatcher, onStop, mStop.fd(), EV_READ);
        mStopWatcher.data = this;
        ev_io_start(mLoop, &mStopWatcher);
        mThread = std::thread([this] { ev_run(mLoop, 0); });
    }

    pthread_t thread() override { return mThread.native_handle(); }

    ~LibevLoop() override {
        mStop.raise();
        mThread.join();
        for (size_t i = 0; i < mCount; ++i) ev_io_stop(mLoop, &mSlots[i].watcher);
        ev_io_stop(mLoop, &mStartWatcher);
        ev_io_stop(mLoop, &mStopWatcher);
        ev_loop_destroy(mLoop);
    }

private:
    static void onPairReadable(struct ev_loop* /*loop*/, ev_io* watcher, int /*revents*/) {
        const Slot* slot = reinterpret_cast<const Slot*>(watcher);
        slot->workload->onReadable(slot->index);
    }

    static void onStart(struct ev_loop* /*loop*/, ev_io* watcher, int /*revents*/) {
        static_cast<Workload*>(watcher->data)->onStart();
    }

    static void onStop(struct ev_loop* loop, ev_io* watcher, int /*revents*/) {
        static_cast<LibevLoop*>(watcher->data)->mStop.consume();
        ev_break(loop, EVBREAK_ALL);
    }

    struct ev_loop* mLoop;
    const size_t mCount;
    std::unique_ptr<Slot[]> mSlots;  // watchers must not move while started
    StopSignal mStop;
    ev_io mStartWatcher;
    ev_io mStopWatcher;
    std::thread mThread;
};

}  // namespace

std::unique_ptr<RunningLoop> startLibev(Workload& workload) {
    return std::make_unique<LibevLoop>(workload);
}

}  // namespace tavrel::bench
