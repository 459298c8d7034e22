// An epoll event monitor: one thread waits on many descriptors and hands each ready one
// to its observer.
#pragma once

#include <memory>
#include <string>

#include "tavrel/Export.h"
#include "tavrel/IEventObserver.h"
#include "tavrel/IPrinter.h"

namespace NSCam::NSTavrel {

class TAVREL_SYS_API IEpollMonitor {
public:
    // Does nothing. Defined in the library, so that the interface's type information
    // and table exist once, there, whatever the compiler inlines.
    virtual ~IEpollMonitor();

    // Any thread, but not while holding a lock the monitor's observers take. Writes the
    // configuration and runtime state as two lines.
    virtual void dumpState(NSCam::IPrinter* printer) const = 0;

    // Any thread. The monitor's name ("P2DrvEP-" + the name given to make()).
    virtual std::string const& getName() const = 0;

    // Any thread, also from inside onEvent. Watches observer->getEventFD() for `events`
    // (epoll flags, passed through unchanged). The monitor keeps the plain pointer and owns
    // nothing; see detach() for how long the observer must live. Attaching a descriptor
    // that is attached, or that epoll refuses, dumps the state to the error log and ends
    // the process.
    virtual void attach(IEventObserver* observer, int events) = 0;

    // Any thread. Replaces the event mask of an attached observer; a descriptor the
    // kernel does not know ends the process.
    virtual void modify(IEventObserver* observer, int events) = 0;

    // Any thread, also from inside onEvent. Stops watching the observer's descriptor, which
    // is found by number alone: detaching another object that reports the same descriptor
    // removes the registered observer. Detaching a descriptor that is not attached dumps
    // the state to the error log and ends the process. The descriptor may be closed as soon
    // as this returns.
    //
    // On the monitor thread (from inside any observer's onEvent), once this returns the
    // observer is not called again, for the rest of the batch being dispatched included:
    // it may be destroyed at once.
    //
    // On any other thread, the monitor thread may be inside the observer's onEvent when
    // this returns, or about to make one last call for an event it has already taken from
    // the kernel. The owner must keep the observer alive until that cannot happen: detach
    // it from inside an onEvent, stop the monitor's thread first, or wait until an event
    // signalled after this returned has been dispatched.
    virtual void detach(IEventObserver* observer) = 0;

    // Any thread. Creates a monitor; it does nothing until a thread driver runs its
    // IThreadLoop view. Never returns null: a failure to create it ends the process.
    static std::shared_ptr<IEpollMonitor> make(const char* name);
};

}  // namespace NSCam::NSTavrel
