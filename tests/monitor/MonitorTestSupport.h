// Observers, printers and matchers shared by the monitor tests.
#pragma once

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tavrel/IEventObserver.h"
#include "tavrel/IPrinter.h"
#include "tavrel/platform/UniqueFd.h"
#include "utils/sys/EpollMonitor.h"

namespace tavrel::test {

using NSCam::NSTavrel::EpollMonitor;
using NSCam::NSTavrel::IEpollMonitor;
using NSCam::NSTavrel::IEventObserver;

// The concrete monitor behind IEpollMonitor::make, for its diagnostic accessors.
std::shared_ptr<EpollMonitor> makeMonitor(const char* name);
// The same, made while the logv property holds `logv`.
std::shared_ptr<EpollMonitor> makeMonitor(const char* name, const char* logv);

// An eventfd observer: counts what is dispatched to it and runs an optional hook on the
// monitor thread.
class EventFdObserver : public IEventObserver {
public:
    using Hook = std::function<void(IEventObserver::OnEvent const&)>;

    // A fresh eventfd, or one moved onto `fixedFd` so that its number is known in advance
    // (also in the re-run child of a death test).
    explicit EventFdObserver(int fixedFd = -1);

    int getEventFD() const override { return mNumber; }
    void onEvent(IEventObserver::OnEvent const& event) override;

    void setHook(Hook hook) { mHook = std::move(hook); }
    // Makes the descriptor readable.
    void signal();
    // Closes the descriptor, as an owner that forgets to detach first would; the number
    // is still reported.
    void closeFd() { mFd.reset(); }
    // Blocks until `count` events have been dispatched in all; false if that never
    // happens (a guard against hanging, not a timing check).
    bool waitForEvents(int count);
    // The thread the latest event was dispatched on (0 before the first).
    int dispatchThread();

private:
    tavrel::host::UniqueFd mFd;          // the observed eventfd
    int mNumber;                         // its number, also after closeFd()
    Hook mHook;                          // set before attach, run on every event
    std::mutex mMutex;                   // guards mEvents for the waiting test thread
    std::condition_variable mEventSeen;  // wakes waitForEvents
    int mEvents = 0;                     // events dispatched so far
    int mDispatchThread = 0;             // gettid() of the latest dispatch
};

inline bool contains(const std::vector<std::string>& lines, const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

// Collects the printed lines.
class LinePrinter : public NSCam::IPrinter {
public:
    void printLine(const char* line) override { lines.emplace_back(line); }
    void printFormatLine(const char* format, ...) override __attribute__((format(printf, 2, 3)));

    std::vector<std::string> lines;  // in the order printed
};

// The %p text of a pointer, as the dumps print it.
std::string pointerText(const void* pointer);

// A POSIX extended regular expression matching `text` literally, except that "@N" stands
// for a decimal number and "@P" for a pointer.
std::string linePattern(const std::string& text);

// What stderr shows for one line that a monitor's error printer wrote under `prefix`.
std::string errorPrinterLine(const std::string& prefix, const std::string& text);

// What stderr shows for the fatal report `text` raised in `function`.
std::string fatalLine(const std::string& function, const std::string& text);

}  // namespace tavrel::test
