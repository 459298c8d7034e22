// Something an event monitor watches: a descriptor, and what to do when it is ready.
#pragma once

#include <cstdint>

#include "tavrel/Export.h"

namespace NSCam::NSTavrel {

class IEpollMonitor;

class TAVREL_SYS_API IEventObserver {
public:
    // What the monitor hands to onEvent; lives for the duration of the call only.
    struct OnEvent {
        IEpollMonitor* monitor;  // the monitor dispatching the event
        uint32_t events;         // the epoll event mask as the kernel reported it
    };

    // Does nothing. Defined in the library, so that the interface's type information
    // and table exist once, there, whatever the compiler inlines.
    virtual ~IEventObserver();

    // Any thread. The descriptor to watch; must stay the same while attached.
    virtual int getEventFD() const = 0;

    // Monitor thread only, one call at a time. May attach, modify and detach observers
    // (itself included) on the dispatching monitor.
    virtual void onEvent(OnEvent const& event) = 0;
};

}  // namespace NSCam::NSTavrel
