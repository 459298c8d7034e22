// The interfaces' destructors, which do nothing: the first out-of-line virtual function of a
// class is where its type information and table are emitted, so this file is their one home.
#include "tavrel/IEpollMonitor.h"
#include "tavrel/IEventObserver.h"
#include "tavrel/IPrinter.h"
#include "tavrel/IThreadLoop.h"

NSCam::IPrinter::~IPrinter() = default;

namespace NSCam::NSTavrel {

IEpollMonitor::~IEpollMonitor() = default;
IEventObserver::~IEventObserver() = default;
IThreadLoop::~IThreadLoop() = default;

}  // namespace NSCam::NSTavrel
