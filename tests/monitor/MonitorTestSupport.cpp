#include "monitor/MonitorTestSupport.h"

#include <chrono>
#include <cstdarg>
#include <cstdio>

#include "tavrel/platform/Properties.h"

namespace tavrel::test {

namespace {

// Long enough for any loaded machine; only a broken monitor makes a wait run out.
constexpr std::chrono::seconds kEventGuard{20};
// The host log's line head after the tag and level letter: date, time, pid, tid. The
// numbers are padded to a width, so a short pid or tid brings extra blanks.
constexpr const char* kHostLineHead = " [-0-9]+ +[0-9:.]+ +[0-9]+ +[0-9]+ ";

}  // namespace

std::shared_ptr<EpollMonitor> makeMonitor(const char* name) {
    return std::static_pointer_cast<EpollMonitor>(IEpollMonitor::make(name));
}

std::shared_ptr<EpollMonitor> makeMonitor(const char* name, const char* logv) {
    constexpr const char* kLogv = "persist.vendor.camera.tavrel.EpollMonitor.logv";
    tavrel::host::property_set(kLogv, logv);
    auto monitor = makeMonitor(name);
    tavrel::host::property_set(kLogv, nullptr);
    return monitor;
}

EventFdObserver::EventFdObserver(int fixedFd) : mFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (fixedFd >= 0) {
        dup2(mFd.get(), fixedFd);
        mFd.reset(fixedFd);
    }
    mNumber = mFd.get();
}

void EventFdObserver::onEvent(IEventObserver::OnEvent const& event) {
    uint64_t value = 0;
    if (mFd.ok()) read(mFd.get(), &value, sizeof(value));
    if (mHook) mHook(event);
    std::lock_guard<std::mutex> lock(mMutex);
    ++mEvents;
    mDispatchThread = gettid();
    mEventSeen.notify_all();
}

void EventFdObserver::signal() {
    const uint64_t one = 1;
    write(mFd.get(), &one, sizeof(one));
}

bool EventFdObserver::waitForEvents(int count) {
    std::unique_lock<std::mutex> lock(mMutex);
    return mEventSeen.wait_for(lock, kEventGuard, [&] { return mEvents >= count; });
}

int EventFdObserver::dispatchThread() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mDispatchThread;
}

void LinePrinter::printFormatLine(const char* format, ...) {
    char line[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(line, sizeof(line), format, args);
    va_end(args);
    lines.emplace_back(line);
}

std::string pointerText(const void* pointer) {
    char text[32];
    snprintf(text, sizeof(text), "%p", pointer);
    return text;
}

std::string linePattern(const std::string& text) {
    std::string pattern;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '@' && i + 1 < text.size() && (text[i + 1] == 'N' || text[i + 1] == 'P')) {
            pattern += text[++i] == 'N' ? "[0-9]+" : "0x[0-9a-f]+";
            continue;
        }
        if (std::string("\\^$.|?*+()[]{}").find(text[i]) != std::string::npos) pattern += '\\';
        pattern += text[i];
    }
    return pattern;
}

std::string errorPrinterLine(const std::string& prefix, const std::string& text) {
    return "(^|\n)tavrel-EpollMonitor E" + std::string(kHostLineHead) + linePattern(prefix + text) +
           "\n";
}

std::string fatalLine(const std::string& function, const std::string& text) {
    return "(^|\n)tavrel-EpollMonitor F" + std::string(kHostLineHead) +
           linePattern(text + " (" + function + "){#@N:src/utils/sys/EpollMonitor}") + "\n";
}

}  // namespace tavrel::test
