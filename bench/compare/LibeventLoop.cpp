// libevent 2.1 on its epoll backend: one persistent read event per pair.
#include <event2/event.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "Backend.h"
#include "StopSignal.h"

namespace tavrel::bench {

namespace {

struct Slot {
    Workload* workload;
    size_t index;
};

class LibeventLoop final : public RunningLoop {
public:
    explicit LibeventLoop(Workload& workload) : mBase(event_base_new()) {
        if (mBase == nullptr || std::strcmp(event_base_get_method(mBase), "epoll") != 0) {
            std::fprintf(stderr, "libevent: no epoll base (%s)\n",
                         mBase == nullptr ? "none" : event_base_get_method(mBase));
            std::abort();
        }
        const SocketPairs& pairs = workload.pairs();
        mSlots.reserve(pairs.size());
        mEvents.reserve(pairs.size() + 2);
        for (size_t i = 0; i < pairs.size(); ++i) {
            mSlots.push_back({&workload, i});
            add(pairs.readFd(i), onPairReadable, &mSlots.back());
        }
        add(workload.startFd(), onStart, &workload);
        add(mStop.fd(), onStop, this);
        mThread = std::thread([this] { event_base_dispatch(mBase); });
    }

    pthread_t thread() override { return mThread.native_handle(); }

    ~LibeventLoop() override {
        mStop.raise();
        mThread.join();
        for (event* e : mEvents) event_free(e);
        event_base_free(mBase);
    }

private:
    void add(int fd, event_callback_fn callback, void* arg) {
        event* e = event_new(mBase, fd, EV_READ | EV_PERSIST, callback, arg);
        if (e == nullptr || event_add(e, nullptr) != 0) {
            std::fprintf(stderr, "libevent: cannot add fd %d\n", fd);
            std::abort();
        }
        mEvents.push_back(e);
    }

    static void onPairReadable(evutil_socket_t /*fd*/, short /*what*/, void* arg) {
        const Slot* slot = static_cast<const Slot*>(arg);
        slot->workload->onReadable(slot->index);
    }

    static void onStart(evutil_socket_t /*fd*/, short /*what*/, void* arg) {
        static_cast<Workload*>(arg)->onStart();
    }

    static void onStop(evutil_socket_t /*fd*/, short /*what*/, void* arg) {
        LibeventLoop* self = static_cast<LibeventLoop*>(arg);
        self->mStop.consume();
        event_base_loopbreak(self->mBase);
    }

    event_base* mBase;
    StopSignal mStop;
    std::vector<Slot> mSlots;
    std::vector<event*> mEvents;
    std::thread mThread;
};

}  // namespace

std::unique_ptr<RunningLoop> startLibevent(Workload& workload) {
    return std::make_unique<LibeventLoop>(workload);
}

}  // namespace tavrel::bench
