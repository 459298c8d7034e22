// A monitor running on a thread of its own, and helpers for tests that arm real timers.
#pragma once

#include <sys/timerfd.h>
#include <time.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

#include "tavrel/IEpollMonitor.h"
#include "tavrel/IThreadLoop.h"
#include "tavrel/ThreadDriver.h"

namespace tavrel::test {

// Long enough for any expiry on a loaded machine; a test waits this long only on failure.
inline constexpr std::chrono::seconds kPatience{20};

class RunningMonitor {
public:
    RunningMonitor()
        : mMonitor(NSCam::NSTavrel::IEpollMonitor::make("timer-test")),
          mDriver(std::dynamic_pointer_cast<NSCam::NSTavrel::IThreadLoop>(mMonitor)) {}

    NSCam::NSTavrel::IEpollMonitor& operator*() const { return *mMonitor; }
    NSCam::NSTavrel::IEpollMonitor* operator->() const { return mMonitor.get(); }

    // Ends the loop and joins its thread; no callback runs afterwards.
    void stop() { mDriver.stop(); }

private:
    std::shared_ptr<NSCam::NSTavrel::IEpollMonitor> mMonitor;  // the monitor under test
    host::ThreadDriver mDriver;                                // runs it; joins on the way out
};

// Something that happens on the monitor thread a countable number of times.
class EventCounter {
public:
    void add() {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            ++mCount;
        }
        mChanged.notify_all();
    }

    int count() const {
        std::lock_guard<std::mutex> lock(mMutex);
        return mCount;
    }

    // True once the count has reached `target`; false after kPatience.
    bool waitFor(int target) const {
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_for(lock, kPatience, [&] { return mCount >= target; });
    }

private:
    mutable std::mutex mMutex;                 // guards mCount
    mutable std::condition_variable mChanged;  // signalled on every add()
    int mCount = 0;                            // events so far
};

inline timespec now(clockid_t clock = CLOCK_MONOTONIC) {
    timespec t{};
    clock_gettime(clock, &t);
    return t;
}

inline int64_t toNs(const timespec& t) {
    return int64_t{t.tv_sec} * 1000000000 + t.tv_nsec;
}

inline timespec addNs(timespec t, long ns) {
    constexpr long kNsPerSec = 1000000000L;
    t.tv_nsec += ns % kNsPerSec;
    t.tv_sec += ns / kNsPerSec + t.tv_nsec / kNsPerSec;
    t.tv_nsec %= kNsPerSec;
    return t;
}

// What the kernel says is left of a timerfd's setting.
inline itimerspec settingOf(int fd) {
    itimerspec setting{};
    timerfd_gettime(fd, &setting);
    return setting;
}

}  // namespace tavrel::test
