// libuv 1.44: one poll handle per pair (uv_poll_t watches a descriptor it does not own).
#include <uv.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>

#include "Backend.h"
#include "StopSignal.h"

namespace tavrel::bench {

namespace {

struct Slot {
    uv_poll_t handle;  // first, so that the handle's address is the slot's
    Workload* workload;
    size_t index;
};

class LibuvLoop final : public RunningLoop {
public:
    explicit LibuvLoop(Workload& workload)
        : mCount(workload.pairs().size()), mSlots(std::make_unique<Slot[]>(mCount)) {
        check(uv_loop_init(&mLoop), "uv_loop_init");
        for (size_t i = 0; i < mCount; ++i) {
            Slot& slot = mSlots[i];
            slot.workload = &workload;
            slot.index = i;
            check(uv_poll_init(&mLoop, &slot.handle, workload.pairs().readFd(i)), "uv_poll_init");
            check(uv_poll_start(&slot.handle, UV_READABLE, onPairReadable), "uv_poll_start");
        }
        check(uv_poll_init(&mLoop, &mStartHandle, workload.startFd()), "uv_poll_init");
        mStartHandle.data = &workload;
        check(uv_poll_start(&mStartHandle, UV_READABLE, onStart), "uv_poll_start");
        check(uv_poll_init(&mLoop, &mStopHandle, mStop.fd()), "uv_poll_init");
        mStopHandle.data = this;
        check(uv_poll_start(&mStopHandle, UV_READABLE, onStop), "uv_poll_start");
        mThread = std::thread([this] { uv_run(&mLoop, UV_RUN_DEFAULT); });
    }

    pthread_t thread() override { return mThread.native_handle(); }

    ~LibuvLoop() override {
        mStop.raise();
        mThread.join();
        for (size_t i = 0; i < mCount; ++i) {
            uv_close(reinterpret_cast<uv_handle_t*>(&mSlots[i].handle), nullptr);
        }
        uv_close(reinterpret_cast<uv_handle_t*>(&mStartHandle), nullptr);
        uv_close(reinterpret_cast<uv_handle_t*>(&mStopHandle), nullptr);
        uv_run(&mLoop, UV_RUN_DEFAULT);  // runs the closes
        check(uv_loop_close(&mLoop), "uv_loop_close");
    }

private:
    static void check(int result, const char* what) {
        if (result == 0) return;
        std::fprintf(stderr, "libuv: %s: %s\n", what, uv_strerror(result));
        std::abort();
    }

    static void onPairReadable(uv_poll_t* handle, int /*status*/, int /*events*/) {
        const Slot* slot = reinterpret_cast<const Slot*>(handle);
        slot->workload->onReadable(slot->index);
    }

    static void onStart(uv_poll_t* handle, int /*status*/, int /*events*/) {
        static_cast<Workload*>(handle->data)->onStart();
    }

    static void onStop(uv_poll_t* handle, int /*status*/, int /*events*/) {
        LibuvLoop* self = static_cast<LibuvLoop*>(handle->data);
        self->mStop.consume();
        uv_stop(&self->mLoop);
    }

    uv_loop_t mLoop;
    const size_t mCount;
    std::unique_ptr<Slot[]> mSlots;  // handles must not move while the loop knows them
    StopSignal mStop;
    uv_poll_t mStartHandle;
    uv_poll_t mStopHandle;
    std::thread mThread;
};

}  // namespace

std::unique_ptr<RunningLoop> startLibuv(Workload& workload) {
    return std::make_unique<LibuvLoop>(workload);
}

}  // namespace tavrel::bench
