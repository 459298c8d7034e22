// A named timer on a timerfd that runs a callback on an event monitor's thread each time
// it expires.
#pragma once

#include <time.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "tavrel/Export.h"
#include "tavrel/IEventObserver.h"
#include "tavrel/IPrinter.h"
#include "tavrel/Mutex.h"
#include "tavrel/TaggedFd.h"

namespace NSCam::NSTavrel {

// Usage: create under a std::shared_ptr, attach to a monitor with getEventType(), arm
// with startTimerAbsoluteTime(); detach it before dropping the last reference, and when
// detaching from another thread than the monitor's, keep it alive as long as
// IEpollMonitor::detach() says.
class TAVREL_SYS_API Timer : public IEventObserver, public std::enable_shared_from_this<Timer> {
public:
    // Any thread. `name` may be null; `clockid` is a timerfd clock (CLOCK_MONOTONIC,
    // CLOCK_BOOTTIME, ...); `notify` must not be empty. Starts disarmed. A timerfd that
    // cannot be created, or an empty callback, ends the process.
    Timer(const char* name, int clockid, std::function<void()> notify);

    // Closes the timerfd; does not detach from any monitor.
    ~Timer() override;

    // Any thread. The timerfd.
    int getEventFD() const override;

    // Monitor thread. Runs the callback without the timer's lock, then re-arms with what
    // remains so the next expiry is a new edge. The timer must be owned by a shared_ptr.
    void onEvent(IEventObserver::OnEvent const& event) override;

    // Any thread. "Timer-" + the name given.
    virtual std::string const& getEventName() const;

    // Any thread. The epoll mask to attach with: EPOLLIN | EPOLLET.
    virtual uint32_t getEventType() const;

    // Any thread.
    std::string toString() const;
    void dumpState(NSCam::IPrinter* printer) const;

    // Any thread, also from the callback. Arms for the absolute time `value` on the
    // timer's clock, then every `interval` (zero: once). Both must be valid.
    // A one-shot deadline that passes while an expiry of this timer is being dispatched is
    // lost: the re-arm after the callback reads back nothing left and disarms the timer.
    void startTimerAbsoluteTime(const timespec* value, const timespec* interval)
        TAVREL_EXCLUDES(mMutex);

    // Any thread, also from the callback. Disarms.
    void stopTimer() TAVREL_EXCLUDES(mMutex);

    // Any thread. Re-arms with what remains of the current setting, clearing the count of
    // expirations so that an edge-triggered monitor reports the next one.
    void enableEdgeTrigger() TAVREL_EXCLUDES(mMutex);

private:
    int32_t mLogv;                         // verbose lines on, from a property at construction
    std::string mName;                     // "Timer-" + name, for logs and dumps
    TaggedFd mFd;                          // the timerfd
    uint32_t mEvents;                      // the mask the timer wants to be attached with
    std::function<void()> mNotifyTimeout;  // run on every expiry
    mutable Mutex mMutex;                  // makes each set (and get-then-set) of mFd atomic
    bool mArmed TAVREL_GUARDED_BY(mMutex) = false;  // the last accepted set armed the timer
};

}  // namespace NSCam::NSTavrel
