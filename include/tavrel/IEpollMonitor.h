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
    // (epoll flags, passed through unchanged). The caller keeps `observer` alive until
    // after detach() returns. Attaching a descriptor that is attached ends the process.
    virtual void attach(IEventObserver* observer, int events) = 0;

    // Any thread. Replaces the event mask of an attached observer; a descriptor the
    // kernel does not know ends the process.
    virtual void modify(IEventObserver* observer, int events) = 0;

    // Any thread, also from inside onEvent. Stops watching the observer's descriptor;
    // detaching a descriptor that is not attached ends the process.
    virtual void detach(IEventObserver* observer) = 0;

    // Any thread. Creates a monitor; it does nothing until a thread driver runs its
    // IThreadLoop view. Never returns null: a failure to create it ends the process.
    static std::shared_ptr<IEpollMonitor> make(const char* name);
};

}  // namespace NSCam::NSTavrel
