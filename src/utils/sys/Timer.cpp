#include "tavrel/Timer.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <utility>

#include "tavrel/SystemCall.h"
#include "tavrel/platform/Properties.h"
#include "utils/log/FatalReport.h"
#include "utils/log/FileSettings.h"
#include "utils/log/Log.h"
#include "utils/sys/TimerRearm.h"

namespace NSCam::NSTavrel {
namespace {

constexpr Log::Site kLogSite = {"tavrel-Timer", "src/utils/sys/Timer"};

TAVREL_DEFINE_FILE_SETTINGS();

// Switches the Timer's verbose lines on; read once per Timer, when it is made.
constexpr const char* kLogvProperty = "persist.vendor.camera.tavrel.timer.logv";
constexpr int32_t kLogvDefault = 0;

// Every Timer's name starts with this; a null name is shown as kUnnamed.
constexpr const char* kNamePrefix = "Timer-";
constexpr const char* kUnnamed = "?";

// The timerfd never blocks a reader and is not inherited across exec.
constexpr int kTimerFdFlags = TFD_NONBLOCK | TFD_CLOEXEC;

// Readable, reported once per edge: every re-arm makes the next expiry a new edge.
constexpr uint32_t kEvents = EPOLLIN | EPOLLET;

// Flags of a setting relative to now, as opposed to TFD_TIMER_ABSTIME.
constexpr int kRelative = 0;

// What the standard library does, without exception support, where it would throw: it
// says what would have been thrown and aborts.
// Kept for the stack: the message names an exception although none is thrown; it is spelled
// out here so that every standard library prints the same words.
[[noreturn]] void abortAsThrown(const char* exception) {
    std::fprintf(stderr, "%s was thrown in -fno-exceptions mode\n", exception);
    std::fflush(stderr);
    std::abort();
}

// Seconds and nanoseconds as two plain decimals: 5 s and 1000 ns give "5.1000".
std::string toString(timespec const& t) {
    std::ostringstream out;
    out << static_cast<long>(t.tv_sec) << "." << static_cast<long>(t.tv_nsec);
    return out.str();
}

std::string toString(itimerspec const& t) {
    std::ostringstream out;
    out << "{"
        << " .it_interval=" << toString(t.it_interval) << " .it_value=" << toString(t.it_value)
        << " }";
    return out.str();
}

// shared_from_this() as the library would have it without exceptions: a Timer that no
// shared_ptr owns ends the process.
std::shared_ptr<Timer> strongSelf(Timer* timer) {
    std::shared_ptr<Timer> self = timer->weak_from_this().lock();
    if (self == nullptr) abortAsThrown("bad_weak_ptr");
    return self;
}

}  // namespace

Timer::Timer(const char* name, int clockid, std::function<void()> notify)
    : mLogv(Utils::Properties::property_get_int32(kLogvProperty, kLogvDefault) != 0 ? 1 : 0),
      mName(std::string(kNamePrefix) + (name != nullptr ? name : kUnnamed)),
      mFd([clockid](unsigned long owner) {
          return System::TimerFDCreate(clockid, kTimerFdFlags, owner);
      }),
      mEvents(kEvents),
      mNotifyTimeout(std::move(notify)) {
    if (mFd.get() < 0) TAVREL_FATAL("[%s] Bad fd:%d", __func__, mFd.get());
    if (!mNotifyTimeout) TAVREL_FATAL("[%s] Bad mNotifyTimeout", __func__);
}

Timer::~Timer() {
    mFd.close();
}

int Timer::getEventFD() const {
    return mFd.get();
}

std::string const& Timer::getEventName() const {
    return mName;
}

uint32_t Timer::getEventType() const {
    return mEvents;
}

void Timer::onEvent(IEventObserver::OnEvent const& /*event*/) {
    // Keeps the Timer alive through the callback, which may drop its owner's reference.
    std::shared_ptr<Timer> self = strongSelf(this);
    // Kept for the stack: strongSelf() never returns null, so this warning is never written.
    if (self == nullptr) {
        TAVREL_LOGW("[%s] Timer instance has gone", __func__);
        return;
    }
    mNotifyTimeout();
    enableEdgeTrigger();
}

void Timer::enableEdgeTrigger() {
    itimerspec cur{};
    {
        MutexLock lock(mMutex);
        const bool readOk = System::TimerFDGetTime(mFd.get(), &cur) >= 0;
        const itimerspec next = rearmSetting(cur, readOk, mArmed);
        if (System::TimerFDSetTime(mFd.get(), kRelative, &next, nullptr) >= 0) {
            mArmed = !isZero(next.it_value);
        }
    }
    TAVREL_CLASS_LOGV(mLogv, "[%s] %-7s: %s", __func__, mName.c_str(),
                      NSTavrel::toString(cur).c_str());
}

void Timer::startTimerAbsoluteTime(const timespec* value, const timespec* interval) {
    const itimerspec setting = {*interval, *value};
    {
        MutexLock lock(mMutex);
        // A refused setting leaves the kernel, and so the record of it, as they were.
        if (System::TimerFDSetTime(mFd.get(), TFD_TIMER_ABSTIME, &setting, nullptr) >= 0) {
            mArmed = !isZero(setting.it_value);
        }
    }
    TAVREL_CLASS_LOGV(mLogv, "[%s] %-7s: %s", __func__, mName.c_str(),
                      NSTavrel::toString(setting).c_str());
}

void Timer::stopTimer() {
    const itimerspec zero{};
    {
        MutexLock lock(mMutex);
        if (System::TimerFDSetTime(mFd.get(), kRelative, &zero, nullptr) >= 0) mArmed = false;
    }
    TAVREL_CLASS_LOGV(mLogv, "[%s] %-7s: %s", __func__, mName.c_str(),
                      NSTavrel::toString(zero).c_str());
}

std::string Timer::toString() const {
    std::ostringstream out;
    out << "{ " << mName << " .fd=" << mFd.get() << " .event=" << std::hex << mEvents << " }";
    return out.str();
}

void Timer::dumpState(NSCam::IPrinter* printer) const {
    printer->printFormatLine("%s", toString().c_str());
}

}  // namespace NSCam::NSTavrel
