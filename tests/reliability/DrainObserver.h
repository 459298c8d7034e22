// Observers that account for every event they consume, and the barrier that proves a
// detached observer is no longer dispatched.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <utility>

#include "tavrel/IEpollMonitor.h"
#include "tavrel/IEventObserver.h"
#include "tavrel/platform/UniqueFd.h"

namespace tavrel::test {

// Long enough for any dispatch on a loaded machine; only a lost event makes a wait run out.
inline constexpr std::chrono::seconds kDispatchGuard{20};

// Polls `done` until it holds; false when kDispatchGuard runs out first.
bool waitUntil(const std::function<bool()>& done);

// What one observer was handed, and when. An observer is "detached" once detach() has
// returned, and "settled" once a barrier event has been dispatched after that: from then
// on the monitor must not call it again.
struct Tally {
    std::atomic<uint64_t> consumed{0};      // units read (eventfd counts, bytes, expiries)
    std::atomic<uint64_t> calls{0};         // onEvent calls
    std::atomic<bool> detached{false};      // detach() has returned
    std::atomic<bool> settled{false};       // the batch running at detach has ended
    std::atomic<uint64_t> inLastBatch{0};   // calls between detach and settling (allowed)
    std::atomic<uint64_t> afterSettled{0};  // calls after settling (a defect)

    void record(uint64_t units);
};

// Reads its non-blocking descriptor dry on every event: an eventfd's counter, or a pipe's
// bytes. The descriptor belongs to whoever made it; the hook runs after the accounting.
class DrainObserver : public NSCam::NSTavrel::IEventObserver {
public:
    enum class Kind { kEventFd, kPipe };
    using Hook = std::function<void(NSCam::NSTavrel::IEventObserver::OnEvent const&)>;

    DrainObserver(int fd, Kind kind, Hook hook = {});

    int getEventFD() const override { return mFd; }
    void onEvent(NSCam::NSTavrel::IEventObserver::OnEvent const& event) override;

    // Before attach only: the monitor thread reads it unguarded.
    void setHook(Hook hook) { mHook = std::move(hook); }
    Tally& tally() { return mTally; }

private:
    uint64_t drain() const;

    int mFd;       // observed descriptor, not owned
    Kind mKind;    // how to read it
    Hook mHook;    // set before attach; runs on the monitor thread
    Tally mTally;  // what was consumed
};

// A marker eventfd attached to a monitor: pass() signals it and waits until the monitor
// has dispatched that signal. Every batch whose wait began before pass() was called has
// then ended, so an observer detached before pass() can no longer be called.
class DispatchBarrier {
public:
    explicit DispatchBarrier(NSCam::NSTavrel::IEpollMonitor& monitor);
    ~DispatchBarrier();
    DispatchBarrier(const DispatchBarrier&) = delete;
    DispatchBarrier& operator=(const DispatchBarrier&) = delete;

    // False when the marker was not dispatched within kDispatchGuard.
    bool pass();

private:
    NSCam::NSTavrel::IEpollMonitor& mMonitor;  // where the marker is attached
    tavrel::host::UniqueFd mFd;                // the marker eventfd
    DrainObserver mMarker;                     // consumes the marker's signals
    uint64_t mSent = 0;                        // signals written so far
};

// Writes `units` to an eventfd, or that many bytes to a pipe; false on a short write.
bool produce(int fd, DrainObserver::Kind kind, uint64_t units);

}  // namespace tavrel::test
