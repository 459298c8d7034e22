// The epoll event monitor: one thread waits on one epoll instance and hands every ready
// descriptor to the observer attached to it; an eventfd of its own wakes it from any
// thread.
#pragma once

#include <sys/epoll.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <unordered_map>

#include "tavrel/IEpollMonitor.h"
#include "tavrel/IEventObserver.h"
#include "tavrel/IPrinter.h"
#include "tavrel/IThreadLoop.h"
#include "tavrel/Mutex.h"
#include "tavrel/TaggedFd.h"

namespace NSCam::NSTavrel {

class EpollMonitor : public IEpollMonitor, public IThreadLoop, public IEventObserver {
public:
    using FdObserverMap = std::unordered_map<int, IEventObserver*>;

    // Ready entries taken per wait.
    static constexpr int kMaxEpollEvents = 64;
    // Size hint for the epoll instance (the kernel only checks that it is positive).
    static constexpr int kEpollSizeHint = 1024;
    // Added to the eventfd by one interrupt; a read returns the sum of all pending ones.
    static constexpr uint64_t kInterruptValue = 0x40;

    // Owner's thread. `name` may be null. Any failure to set up the descriptors ends the
    // process, so a half-built monitor never exists.
    explicit EpollMonitor(const char* name);

    // Owner's thread, after the loop has ended. Closes both descriptors; observers still
    // attached are neither called nor detached.
    ~EpollMonitor() override;

    // Any thread; the caller must not hold mFdObserverMapLock.
    void dumpState(NSCam::IPrinter* printer) const override;

    // Any thread.
    std::string const& getName() const override;

    // Any thread, also from onEvent. Misuse dumps the state and ends the process.
    void attach(IEventObserver* observer, int events) override;
    void modify(IEventObserver* observer, int events) override;
    void detach(IEventObserver* observer) override;

    // Any thread. The interrupt eventfd (the monitor observes it itself).
    int getEventFD() const override;

    // Monitor thread. Consumes the interrupt; ending the loop is mActive's job.
    void onEvent(IEventObserver::OnEvent const& event) override;

    // Any thread. Ends the loop after its current wait; there is no way back.
    void requestExit() override;

    // Monitor thread, once, before threadLoop(). Applies the property scheduling when the
    // driver gives neither policy nor priority; always returns 0.
    using IThreadLoop::readyToRun;
    int readyToRun(IThreadLoop::ReadyToRun const& ready) override;

    // Monitor thread. Runs the whole loop; returns false once it has ended.
    bool threadLoop() override;

    // Any thread; for diagnostics. Attaches minus detaches, without the lock.
    uint32_t determineFdObserverCount() const;

    // Any thread; for diagnostics. Whether the loop is still meant to run.
    bool isActive() const;

    // Any thread; for diagnostics. The epoll instance the monitor waits on.
    int getEpollFd() const;

    // Any thread; for diagnostics. Whether the per-event logs are on.
    int32_t getLogv() const;

    // Any thread. The two halves of dumpState().
    std::string toString_config() const;
    std::string toString_runtime() const TAVREL_EXCLUDES(mFdObserverMapLock);

    // Any thread. Attached descriptors with their observers, then detached ones.
    static std::string toString_FdObserverMap(FdObserverMap const& map);

private:
    // Result of one wait (tryEpoll).
    static constexpr int kWaitTimedOut = 0;
    static constexpr int kEventsDispatched = 1;
    static constexpr int kWaitInterrupted = -2;

    int tryEpoll(int timeoutMs);
    void handleEvents(struct epoll_event* events, unsigned long count);
    // One ready entry: the observer's onEvent inside its trace section; with the per-event
    // log lines around it when mLogv is on.
    void notify(IEventObserver* observer, uint32_t events);
    void notifyLogged(IEventObserver* observer, uint32_t events);
    void sendInterruptEvent();
    bool isInterruptEvent(unsigned int events) const;

    // Stores the observer and registers it with epoll; false on a duplicate or a refusal.
    bool addToRegistry(int fd, IEventObserver* observer, int events)
        TAVREL_EXCLUDES(mFdObserverMapLock);
    // Nulls the entry and removes the registration; returns the observer removed, or null
    // when nothing was attached.
    IEventObserver* removeFromRegistry(int fd) TAVREL_EXCLUDES(mFdObserverMapLock);
    // Monitor thread. Makes dispatch skip what is left of `observer` in the current batch.
    void skipInBatch(IEventObserver* observer);
    FdObserverMap copyFdObserverMap() const TAVREL_EXCLUDES(mFdObserverMapLock);

    // Dumps the state to the error log under `operation` and ends the process. `message`
    // is a format taking (fd, observer), or null for none.
    [[noreturn]] void reportMisuse(const char* operation, const char* message, int fd,
                                   IEventObserver* observer) const
        TAVREL_EXCLUDES(mFdObserverMapLock);

    std::string mName;                      // "P2DrvEP-" + name; in every log and dump
    std::string mFdObserverTraceName;       // async span per attached descriptor
    std::string mFdObserverCountTraceName;  // trace counter of attached observers
    std::string mAttachTraceName;           // trace section of attach
    std::string mModifyTraceName;           // trace section of modify
    std::string mDetachTraceName;           // trace section of detach
    int32_t mLogv;                          // per-event and registry logs, from a property
    // Kept for the stack: every wait sleeps until an event (-1) and nothing changes that, so
    // the loop's timed-out branch never runs.
    int32_t mWaitTimeoutMs = -1;
    TaggedFd mEpollFd;                      // owned
    TaggedFd mEventFd;                      // owned; the interrupt
    std::atomic<uint32_t> mAttachCount{0};  // attach calls, failed ones included
    std::atomic<uint32_t> mDetachCount{0};  // completed detach calls
    std::atomic<bool> mActive{true};        // the loop runs while set; requestExit clears it
    // The thread inside threadLoop, if any: a detach made there must reach the current batch.
    std::atomic<std::thread::id> mLoopThread{};
    // One wait's results, monitor thread only; zeroed so that a detach on the monitor
    // thread can scan all of it, results of earlier waits included.
    struct epoll_event mEpollEvents[kMaxEpollEvents] = {};
    mutable Mutex mFdObserverMapLock;  // keeps the map and the epoll set in step
    // Kept for the stack: keys are never erased; a null value marks a descriptor that was
    // detached, and the map grows with every descriptor number ever attached.
    FdObserverMap mFdObserverMap TAVREL_GUARDED_BY(mFdObserverMapLock);
};

}  // namespace NSCam::NSTavrel
