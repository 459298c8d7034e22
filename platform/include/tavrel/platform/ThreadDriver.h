// Runs a monitor (or any IThreadLoop) on a thread of its own, the way the stack's thread
// driver does on the device: readyToRun once, then threadLoop while it asks to be called
// again. This is how a host program runs what IEpollMonitor::make() returns:
//
//   std::shared_ptr<IEpollMonitor> monitor = IEpollMonitor::make("name");
//   tavrel::host::ThreadDriver driver(monitor);  // the loop runs from here on
//   ...
//   driver.stop();                               // or let the driver go out of scope
//
// The one platform header built on the library's interfaces: the thread driver is the
// host's stand-in for the stack's, which is no part of the library. Header only, for
// programs that link both.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>

#include "tavrel/IEpollMonitor.h"
#include "tavrel/IThreadLoop.h"
#include "tavrel/platform/ThreadControl.h"

namespace tavrel::host {

class ThreadDriver {
public:
    using IThreadLoop = NSCam::NSTavrel::IThreadLoop;
    static constexpr int32_t kNotGiven = IThreadLoop::ReadyToRun::kNotGiven;

    // Any thread. Starts the thread at once. `loop` is an IThreadLoop, or a monitor from
    // IEpollMonitor::make(), which is its own loop. An empty name lets the loop name the
    // thread; a policy and priority given together are applied before readyToRun, since
    // the loop leaves given values to its driver.
    template <typename Loop>
    explicit ThreadDriver(std::shared_ptr<Loop> loop, std::string threadName = {},
                          int32_t policy = kNotGiven, int32_t priority = kNotGiven)
        : mLoop(loopOf(std::move(loop))) {
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
    // The loop view of `loop`. A monitor that is no IThreadLoop cannot be driven: that
    // ends the process, as starting a thread with nothing to run would be a silent no-op.
    template <typename Loop>
    static std::shared_ptr<IThreadLoop> loopOf(std::shared_ptr<Loop> loop) {
        static_assert(std::is_base_of_v<IThreadLoop, Loop> ||
                          std::is_base_of_v<NSCam::NSTavrel::IEpollMonitor, Loop>,
                      "ThreadDriver runs an IThreadLoop or an IEpollMonitor");
        if constexpr (std::is_base_of_v<IThreadLoop, Loop>) {
            return loop;
        } else {
            std::shared_ptr<IThreadLoop> view = std::dynamic_pointer_cast<IThreadLoop>(loop);
            if (view == nullptr) {
                std::fputs("ThreadDriver: the monitor has no IThreadLoop view\n", stderr);
                std::abort();
            }
            return view;
        }
    }

    std::shared_ptr<IThreadLoop> mLoop;  // kept alive until the thread has been joined
    std::thread mThread;                 // runs the loop; joinable until stop()
};

}  // namespace tavrel::host
