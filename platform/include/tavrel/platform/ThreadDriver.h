// Runs an IThreadLoop on a thread of its own, the way a host's thread driver does:
// readyToRun once, then threadLoop while it asks to be called again.
#pragma once

#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "tavrel/IThreadLoop.h"
#include "tavrel/platform/ThreadControl.h"

namespace tavrel::host {

class ThreadDriver {
public:
    using IThreadLoop = NSCam::NSTavrel::IThreadLoop;
    static constexpr int32_t kNotGiven = IThreadLoop::ReadyToRun::kNotGiven;

    // Any thread. Starts the thread at once. An empty name lets the loop name the thread;
    // a policy and priority given together are applied before readyToRun, since the loop
    // leaves given values to its driver.
    explicit ThreadDriver(std::shared_ptr<IThreadLoop> loop, std::string threadName = {},
                          int32_t policy = kNotGiven, int32_t priority = kNotGiven)
        : mLoop(std::move(loop)) {
        IThreadLoop::ReadyToRun ready;
        ready.threadName = std::move(threadName);
        ready.policy = policy;
        ready.priority = priority;
        mThread = std::thread([loop = mLoop, ready = std::move(ready)] {
            if (ready.policy != kNotGiven && ready.priority != kNotGiven) {
                NSCam::Thread::setThreadPriority(NSCam::Thread::getThisThread(), ready.priority,
                                                 ready.policy);
            }
            loop->readyToRun(ready);
            while (loop->threadLoop()) {
            }
        });
    }

    // Stops and joins.
    ~ThreadDriver() { stop(); }

    ThreadDriver(const ThreadDriver&) = delete;
    ThreadDriver& operator=(const ThreadDriver&) = delete;

    // Owner's thread, not the loop's own. Asks the loop to end and joins the thread; later
    // calls do nothing.
    void stop() {
        if (!mThread.joinable()) return;
        mLoop->requestExit();
        mThread.join();
    }

    // Any thread. The thread that runs the loop (its native handle, for signals).
    std::thread::native_handle_type nativeHandle() { return mThread.native_handle(); }

private:
    std::shared_ptr<IThreadLoop> mLoop;  // kept alive until the thread has been joined
    std::thread mThread;                 // runs the loop; joinable until stop()
};

}  // namespace tavrel::host
