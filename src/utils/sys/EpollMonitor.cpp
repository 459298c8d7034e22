#include "utils/sys/EpollMonitor.h"

#include <android/log.h>
#include <sys/eventfd.h>
#include <sys/types.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sstream>
#include <thread>
#include <utility>

#include "tavrel/SystemCall.h"
#include "tavrel/ULogPrinter.h"
#include "tavrel/platform/Properties.h"
#include "tavrel/platform/ThreadControl.h"
#include "utils/log/FatalReport.h"
#include "utils/log/FileSettings.h"
#include "utils/log/Log.h"
#include "utils/log/TraceSection.h"

TAVREL_DEFINE_FILE_SETTINGS();

namespace NSCam::NSTavrel {

namespace {

constexpr Log::Site kLogSite = {"tavrel-EpollMonitor", "src/utils/sys/EpollMonitor"};

// Every monitor's name starts with this, whatever its owner calls it.
constexpr const char* kNamePrefix = "P2DrvEP-";
// Stands in for a null name.
constexpr const char* kNullName = "?";

constexpr const char* kLogvProperty = "persist.vendor.camera.tavrel.EpollMonitor.logv";
constexpr const char* kThreadPolicyProperty =
    "persist.vendor.camera.tavrel.EpollMonitor.threadpolicy";
constexpr const char* kThreadPriorityProperty =
    "persist.vendor.camera.tavrel.EpollMonitor.threadpriority";
// The stack's normal policy at nice 6: a little below ordinary threads, no privilege needed.
constexpr int32_t kDefaultThreadPolicy = 1;
constexpr int32_t kDefaultThreadPriority = 6;

// Names the constructor and destructor report under.
constexpr const char* kConstructorName = "EpollMonitor";
constexpr const char* kDestructorName = "~EpollMonitor";

// The registry's fatal reports go to the error log under this printer setup.
constexpr uint32_t kMisuseLevel = 1;
constexpr uint32_t kMisuseModuleId = 0x08002001;
constexpr bool kMisuseIgnoreBlankLines = false;
constexpr const char* kAlreadyAttachedMessage = "(%d, %p) has existed";
constexpr const char* kNotAttachedMessage = "(%d, %p) not found";

// Trace names formatted at run time must fit whole, or the section goes unnamed.
constexpr size_t kTraceNameSize = 128;

// Formats a trace name into `name` (kTraceNameSize bytes), zeroed first; leaves it empty
// rather than cut when it does not fit. Returns `name`.
__attribute__((format(printf, 2, 3))) const char* formatTraceName(char* name, const char* format,
                                                                  ...) {
    std::memset(name, 0, kTraceNameSize);
    va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(name, kTraceNameSize, format, args);
    va_end(args);
    if (length < 0 || static_cast<size_t>(length) >= kTraceNameSize) name[0] = '\0';
    return name;
}

// Put in place of the observer of a ready entry whose observer the monitor thread detached
// during the batch: dispatch skips it. Only its address matters.
char sDetachedEntry;

// Info lines with state dumps are costly to build; build them only when they are written.
bool infoLinesOn() {
    return Log::detailsAdmit<Log::Level::kInfo>();
}

struct epoll_event makeEvent(int events, IEventObserver* observer) {
    struct epoll_event event {};
    event.events = static_cast<uint32_t>(events);
    event.data.ptr = observer;
    return event;
}

}  // namespace

std::shared_ptr<IEpollMonitor> IEpollMonitor::make(const char* name) {
    return std::make_shared<EpollMonitor>(name);
}

EpollMonitor::EpollMonitor(const char* name)
    : mName(std::string(kNamePrefix) + (name != nullptr ? name : kNullName)),
      mFdObserverTraceName(mName + "-FdObserver"),
      mFdObserverCountTraceName(mName + "-#FdObserverCount"),
      mAttachTraceName(mName + "::attachObserver"),
      mModifyTraceName(mName + "::modifyObserver"),
      mDetachTraceName(mName + "::detachObserver"),
      mLogv(NSCam::Utils::Properties::property_get_bool(kLogvProperty, 0) != 0 ? 1 : 0) {
    Trace::Section section(Trace::kMonitorLife, kConstructorName);
    const int epollFd = mEpollFd.create(
        [](unsigned long owner) { return System::EPollCreate(kEpollSizeHint, owner); });
    if (epollFd < 0) {
        TAVREL_FATAL_IN(kConstructorName, "[%s] Failed on create epoll fd:%d", kConstructorName,
                        epollFd);
    }
    const int eventFd = mEventFd.create(
        [](unsigned long owner) { return System::EventFD(0, EFD_CLOEXEC | EFD_NONBLOCK, owner); });
    if (eventFd < 0) {
        TAVREL_FATAL_IN(kConstructorName, "[%s] Failed on create event fd:%d", kConstructorName,
                        eventFd);
    }
    // Registered directly, not through attach(): the interrupt is not an observer of the
    // registry and must not show in its counts.
    struct epoll_event event = makeEvent(EPOLLIN, static_cast<IEventObserver*>(this));
    const int added = System::EPollCtlAdd(epollFd, eventFd, &event);
    if (added < 0) {
        // Kept for the stack: "red" is the report's word for the result.
        TAVREL_FATAL_IN(kConstructorName, "[%s] EPOLL_CTL_ADD event fd:%d - red:%d",
                        kConstructorName, eventFd, added);
    }
    if (infoLinesOn()) {
        TAVREL_LOGI("[%s] this(%p %p) %s %s", kConstructorName,
                    static_cast<const void*>(static_cast<IEpollMonitor*>(this)),
                    static_cast<const void*>(static_cast<IEventObserver*>(this)),
                    toString_config().c_str(), toString_runtime().c_str());
    }
}

EpollMonitor::~EpollMonitor() {
    Trace::Section section(Trace::kMonitorLife, kDestructorName);
    if (infoLinesOn()) {
        TAVREL_LOGI("[%s] %s %s", kDestructorName, toString_config().c_str(),
                    toString_runtime().c_str());
    }
    // Failures are logged by the wrappers; there is nothing more to do about them here.
    if (mEventFd.isOpen()) {
        if (mEpollFd.isOpen()) System::EPollCtlDel(mEpollFd.get(), mEventFd.get(), nullptr);
        mEventFd.close();
    }
    if (mEpollFd.isOpen()) mEpollFd.close();
}

std::string const& EpollMonitor::getName() const {
    return mName;
}

int EpollMonitor::getEventFD() const {
    return mEventFd.get();
}

uint32_t EpollMonitor::determineFdObserverCount() const {
    return mAttachCount.load(std::memory_order_relaxed) -
           mDetachCount.load(std::memory_order_relaxed);
}

bool EpollMonitor::isActive() const {
    return mActive.load(std::memory_order_relaxed);
}

int EpollMonitor::getEpollFd() const {
    return mEpollFd.get();
}

int32_t EpollMonitor::getLogv() const {
    return mLogv;
}

void EpollMonitor::attach(IEventObserver* observer, int events) {
    Trace::Section section(Trace::kAttachModify, mAttachTraceName.c_str());
    {
        // Counted before any check, so a failing attach shows in the dump it causes.
        Trace::Section fetchAdd(Trace::kAttachModify, "fetch_add");
        mAttachCount.fetch_add(1, std::memory_order_relaxed);
    }
    Trace::counter(Trace::kObserverCounter, mFdObserverCountTraceName.c_str(),
                   static_cast<int32_t>(determineFdObserverCount()));
    const int fd = observer->getEventFD();
    if (mLogv != 0) TAVREL_LOGI("[%s] (%d, %p)", "attach", fd, static_cast<void*>(observer));
    if (!addToRegistry(fd, observer, events)) {
        reportMisuse("attach", kAlreadyAttachedMessage, fd, observer);
    }
    Trace::asyncBegin(Trace::kObserverSpan, mFdObserverTraceName.c_str(), fd);
}

bool EpollMonitor::addToRegistry(int fd, IEventObserver* observer, int events) {
    Trace::Section section(Trace::kAttachModify, "fetch observer");
    MutexLock lock(mFdObserverMapLock);
    IEventObserver*& entry = mFdObserverMap[fd];
    if (entry != nullptr) return false;
    // Stored before the kernel is asked, and kept if it refuses: the dump then shows
    // what was being attached.
    entry = observer;
    struct epoll_event event = makeEvent(events, observer);
    return System::EPollCtlAdd(mEpollFd.get(), fd, &event) >= 0;
}

void EpollMonitor::modify(IEventObserver* observer, int events) {
    Trace::Section section(Trace::kAttachModify, mModifyTraceName.c_str());
    const int fd = observer->getEventFD();
    if (mLogv != 0) TAVREL_LOGI("[%s] (%d, %p)", "modify", fd, static_cast<void*>(observer));
    // The kernel's own check (ENOENT for an unknown descriptor) is the only one.
    struct epoll_event event = makeEvent(events, observer);
    if (System::EPollCtlMod(mEpollFd.get(), fd, &event) < 0) {
        reportMisuse("modify", nullptr, fd, observer);
    }
}

void EpollMonitor::detach(IEventObserver* observer) {
    Trace::Section section(Trace::kDetach, mDetachTraceName.c_str());
    const int fd = observer->getEventFD();
    if (mLogv != 0) TAVREL_LOGI("[%s] (%d, %p)", "detach", fd, static_cast<void*>(observer));
    IEventObserver* const removed = removeFromRegistry(fd);
    if (removed == nullptr) reportMisuse("detach", kNotAttachedMessage, fd, observer);
    // On the monitor thread the batch being dispatched may still hold an entry of the
    // removed observer, which may be freed as soon as this returns.
    if (std::this_thread::get_id() == mLoopThread.load(std::memory_order_relaxed)) {
        skipInBatch(removed);
    }
    mDetachCount.fetch_add(1, std::memory_order_relaxed);
    Trace::counter(Trace::kObserverCounter, mFdObserverCountTraceName.c_str(),
                   static_cast<int32_t>(determineFdObserverCount()));
    Trace::asyncEnd(Trace::kObserverSpan, mFdObserverTraceName.c_str(), fd);
}

void EpollMonitor::skipInBatch(IEventObserver* observer) {
    // The whole array, not only the current batch: entries left from earlier waits are
    // overwritten by the next one anyway.
    for (struct epoll_event& entry : mEpollEvents) {
        if (entry.data.ptr == observer) entry.data.ptr = &sDetachedEntry;
    }
}

IEventObserver* EpollMonitor::removeFromRegistry(int fd) {
    // A removal the kernel refuses (the owner closed the descriptor first, say) is only
    // logged: the registration is gone either way.
    // Kept for the stack: the removal runs in a function object, whose name its error line
    // shows ("operator()").
    const auto removeFromEpoll = [this](int removedFd) {
        const int err = System::EPollCtlDel(mEpollFd.get(), removedFd, nullptr);
        if (err < 0) {
            TAVREL_LOGE("[%s] EPOLL_CTL_DEL fd=%d err=%d(%s)", __func__, removedFd, err,
                        strerror(-err));
        }
    };
    Trace::Section section(Trace::kDetach, "fetch observer");
    MutexLock lock(mFdObserverMapLock);
    // Found by descriptor alone.
    // Kept for the stack: an unknown one is left behind as a null entry, which the dump
    // before the fatal report shows.
    IEventObserver*& entry = mFdObserverMap[fd];
    IEventObserver* const removed = std::exchange(entry, nullptr);
    if (removed != nullptr) removeFromEpoll(fd);
    return removed;
}

void EpollMonitor::reportMisuse(const char* operation, const char* message, int fd,
                                IEventObserver* observer) const {
    NSCam::Utils::ULog::ULogPrinter printer(kLogSite.tag, kMisuseModuleId, kMisuseLevel,
                                            ANDROID_LOG_ERROR, operation, kMisuseIgnoreBlankLines);
    if (message != nullptr) printer.printFormatLine(message, fd, static_cast<void*>(observer));
    dumpState(&printer);
    TAVREL_FATAL_IN(operation, "[%s] FATAL", operation);
}

int EpollMonitor::readyToRun(IThreadLoop::ReadyToRun const& ready) {
    // Values the driver gives are the driver's to apply; the properties stand in only
    // when it gives none.
    if (ready.policy == ReadyToRun::kNotGiven && ready.priority == ReadyToRun::kNotGiven) {
        const int32_t policy = NSCam::Utils::Properties::property_get_int32(kThreadPolicyProperty,
                                                                            kDefaultThreadPolicy);
        const int32_t priority = NSCam::Utils::Properties::property_get_int32(
            kThreadPriorityProperty, kDefaultThreadPriority);
        NSCam::Thread::setThreadPriority(NSCam::Thread::getThisThread(), priority, policy);
    }
    const std::string& threadName = ready.threadName.empty() ? mName : ready.threadName;
    customizeThreadReadyToRun(threadName.c_str(), threadName.size());
    zelcam_perfctrl_set_affinity();
    return 0;
}

bool EpollMonitor::threadLoop() {
    Trace::Section section(Trace::kMonitorLife, "threadLoop");
    mLoopThread.store(std::this_thread::get_id(), std::memory_order_relaxed);
    if (infoLinesOn()) {
        TAVREL_LOGI("[%s] + %s %s", "threadLoop", toString_config().c_str(),
                    toString_runtime().c_str());
    }
    while (mActive.load(std::memory_order_relaxed)) {
        if (tryEpoll(mWaitTimeoutMs) != kWaitTimedOut) continue;
        // Kept for the stack: never reached while mWaitTimeoutMs stays -1.
        if (Log::detailsAdmit<Log::Level::kVerbose>()) {
            TAVREL_LOGV("[%s] %s: epoll timed out (>= %d ms) %s %s", mName.c_str(), "threadLoop",
                        mWaitTimeoutMs, toString_config().c_str(), toString_runtime().c_str());
        }
    }
    mLoopThread.store(std::thread::id(), std::memory_order_relaxed);
    if (infoLinesOn()) {
        TAVREL_LOGI("[%s] - %s %s", "threadLoop", toString_config().c_str(),
                    toString_runtime().c_str());
    }
    return false;
}

// One wait, then the ready entries it returned. Declared inline, as are handleEvents and
// notify, so that GCC folds the whole wait into threadLoop: 4 instructions per callback at
// A = 10 ready descriptors per wait, 16 more for notify at any A.
inline int EpollMonitor::tryEpoll(int timeoutMs) {
    Trace::Section section(Trace::kDispatch, "tryEpoll");
    const int ready = System::EPollWait(mEpollFd.get(), mEpollEvents, kMaxEpollEvents, timeoutMs);
    if (ready > 0) {
        handleEvents(mEpollEvents, static_cast<unsigned long>(ready));
        return kEventsDispatched;
    }
    if (ready == 0) return kWaitTimedOut;
    // A signal that cuts the wait short is routine; the loop just waits again.
    if (ready == -EINTR) return kWaitInterrupted;
    TAVREL_FATAL_IN("tryEpoll", "[%s] err=%d(%s)", "tryEpoll", ready, strerror(-ready));
}

// Each ready entry in the order the kernel gave them. No lock and no map lookup: the
// registration's own data names the observer, so observers may attach and detach from
// inside onEvent.
inline void EpollMonitor::handleEvents(struct epoll_event* events, unsigned long count) {
    Trace::Section section(Trace::kHandleEvents, "handleEvents");
    // Fixed since construction; a copy the calls below cannot make the compiler load again.
    const bool logv = mLogv != 0;
    for (unsigned long i = 0; i < count; ++i) {
        // Marked by detach(): an earlier onEvent of this batch detached this entry's observer,
        // which may be gone already.
        if (events[i].data.ptr == &sDetachedEntry) continue;
        IEventObserver* const observer = static_cast<IEventObserver*>(events[i].data.ptr);
        if (observer == nullptr) {
            TAVREL_FATAL_IN("handleEvents", "[%s] Bad observer", "handleEvents");
        }
        if (logv) {
            notifyLogged(observer, events[i].events);
        } else {
            notify(observer, events[i].events);
        }
    }
}

inline void EpollMonitor::notify(IEventObserver* observer, uint32_t events) {
    char traceName[kTraceNameSize];
    Trace::Section section(Trace::kDispatch, [&] {
        return formatTraceName(traceName, "NOTIFY_READY fd:%d", observer->getEventFD());
    });
    observer->onEvent(IEventObserver::OnEvent{this, events});
}

void EpollMonitor::notifyLogged(IEventObserver* observer, uint32_t events) {
    // Asked before onEvent, which may detach and free the observer.
    const int fd = observer->getEventFD();
    if (infoLinesOn()) {
        TAVREL_LOGI_IN("handleEvents", "[%s] + fd=%d events=%#x observer=%p %s %s", "handleEvents",
                       fd, events, static_cast<void*>(observer), toString_config().c_str(),
                       toString_runtime().c_str());
    }
    notify(observer, events);
    TAVREL_LOGI_IN("handleEvents", "[%s] - fd=%d events=%#x", "handleEvents", fd, events);
}

void EpollMonitor::onEvent(IEventObserver::OnEvent const& event) {
    isInterruptEvent(event.events);
}

void EpollMonitor::requestExit() {
    char traceName[kTraceNameSize];
    Trace::Section section(Trace::kMonitorLife, [&] {
        return formatTraceName(traceName, "%s::requestExit", mName.c_str());
    });
    if (infoLinesOn()) {
        TAVREL_LOGI("[%s] + %s %s", "requestExit", toString_config().c_str(),
                    toString_runtime().c_str());
    }
    mActive.store(false, std::memory_order_release);
    sendInterruptEvent();
    if (infoLinesOn()) {
        TAVREL_LOGI("[%s] - %s %s", "requestExit", toString_config().c_str(),
                    toString_runtime().c_str());
    }
}

void EpollMonitor::sendInterruptEvent() {
    Trace::Section section(Trace::kMonitorLife, "sendInterruptEvent");
    const uint64_t value = kInterruptValue;
    const int64_t written = System::Write(mEventFd.get(), &value, sizeof(value));
    if (written != static_cast<int64_t>(sizeof(value))) {
        TAVREL_LOGE("[%s] write(%d) returns %zd != %zu", "sendInterruptEvent", mEventFd.get(),
                    static_cast<ssize_t>(written), sizeof(value));
    }
}

bool EpollMonitor::isInterruptEvent(unsigned int events) const {
    Trace::Section section(Trace::kMonitorLife, "isInterruptEvent");
    if ((events & EPOLLIN) == 0) return false;
    // Not in semaphore mode: one read takes every pending interrupt at once.
    uint64_t value = 0;
    const int64_t got = System::Read(mEventFd.get(), &value, sizeof(value));
    if (got != static_cast<int64_t>(sizeof(value))) {
        TAVREL_LOGW("[%s] %s: read(%d) returns %zd != %zu", mName.c_str(), "isInterruptEvent",
                    mEventFd.get(), static_cast<ssize_t>(got), sizeof(value));
        return false;
    }
    TAVREL_LOGI("[%s] %s: %#lx", mName.c_str(), "isInterruptEvent",
                static_cast<unsigned long>(value));
    return true;
}

void EpollMonitor::dumpState(NSCam::IPrinter* printer) const {
    printer->printFormatLine("%s: logv:%d %s", mName.c_str(), mLogv, toString_config().c_str());
    printer->printFormatLine("    %s", toString_runtime().c_str());
}

std::string EpollMonitor::toString_config() const {
    std::ostringstream out;
    out << "{"
        << " " << mName << " .mEpollFd=" << mEpollFd.get() << " .mEventFd=" << mEventFd.get()
        << " }";
    return out.str();
}

std::string EpollMonitor::toString_runtime() const {
    std::ostringstream out;
    out << "{"
        << " #attach=" << mAttachCount.load(std::memory_order_relaxed)
        << " #detach=" << mDetachCount.load(std::memory_order_relaxed)
        << " .mActive=" << mActive.load(std::memory_order_relaxed);
    // Formatted from a copy so the lock is held for the copy alone.
    out << " .mFdObserverMap=" << toString_FdObserverMap(copyFdObserverMap()) << " }";
    return out.str();
}

EpollMonitor::FdObserverMap EpollMonitor::copyFdObserverMap() const {
    MutexLock lock(mFdObserverMapLock);
    return mFdObserverMap;
}

std::string EpollMonitor::toString_FdObserverMap(FdObserverMap const& map) {
    std::ostringstream attached;
    std::ostringstream detached;
    for (const auto& [fd, observer] : map) {
        if (observer != nullptr) {
            attached << " (" << fd << ", " << static_cast<const void*>(observer) << ")";
        } else {
            detached << " " << fd;
        }
    }
    std::ostringstream out;
    out << "{";
    const std::string attachedList = attached.str();
    if (!attachedList.empty()) out << " attach=[" << attachedList << " ]";
    const std::string detachedList = detached.str();
    if (!detachedList.empty()) out << " detach=[" << detachedList << " ]";
    out << " }";
    return out.str();
}

}  // namespace NSCam::NSTavrel
