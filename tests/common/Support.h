// What every test program shares: the headers and names the tests use throughout; capture
// of both log routes, of trace markers and of stderr; log text read back as entries;
// temporary folders; programs run in a child; faults put into system calls; running
// monitors and observers.
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tavrel/IEpollMonitor.h"
#include "tavrel/IThreadLoop.h"
#include "tavrel/SystemCall.h"
#include "tavrel/Timer.h"
#include "tavrel/platform/DebugPrint.h"
#include "tavrel/platform/Fdsan.h"
#include "tavrel/platform/Properties.h"
#include "tavrel/platform/ThreadControl.h"
#include "tavrel/platform/ThreadDriver.h"
#include "tavrel/platform/Trace.h"
#include "tavrel/platform/ULogger.h"
#include "tavrel/platform/UniqueFd.h"

namespace tavrel::test {

namespace System = NSCam::NSTavrel::System;
using Lines = std::vector<std::string>;
using host::UniqueFd;
using NSCam::NSTavrel::IEpollMonitor;
using NSCam::NSTavrel::IEventObserver;
using NSCam::NSTavrel::IThreadLoop;
using NSCam::NSTavrel::Timer;
using NSCam::Utils::ULog::ULogger;
using OnEvent = IEventObserver::OnEvent;
using namespace std::chrono_literals;

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

inline Lines operator+(Lines a, const Lines& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// The unified logger's switches and the library's bit (55) in the debug-print level table.
struct LogSwitches {
    uint32_t mode = 0x3;  // both routes
    uint32_t details = 5;
    uint32_t mask = 0x08002000;
    bool bit55 = true;
};

// Records both log routes while alive, with the switches set as asked; restores them.
class LogCapture : public NSCam::Utils::ULog::ULogger {
public:
    explicit LogCapture(LogSwitches switches = {});
    ~LogCapture() override;
    void writeLine(uint32_t module, const char* tag, int level, const char* text,
                   int length) override;
    // Unified lines as "<level> <tag> <module> <length> <text>".
    Lines unified() const { return copy(mUnified); }
    // Debug-print lines as "<level> <tag> <text>", line numbers as N.
    Lines debug() const { return copy(mDebug); }
    // The unified lines' texts alone.
    Lines texts() const { return copy(mTexts); }

private:
    Lines copy(const Lines& lines) const {
        std::lock_guard<std::mutex> lock(mMutex);
        return lines;
    }
    mutable std::mutex mMutex;               // guards the records
    Lines mUnified, mDebug, mTexts;          // in order
    NSCam::Utils::ULog::ULogger* mPrevious;  // what is put back
    LogSwitches mSaved;
    uint64_t mSavedBits[kLogInfoLevels];
};

// A trace marker without its process id: "B|12|name" gives "B|name", "E|12" gives "E".
std::string withoutPid(const std::string& marker);

// What this process writes to stderr meanwhile: gtest's own capture, started at once.
struct StderrCapture {
    StderrCapture() { testing::internal::CaptureStderr(); }
    std::string text() const { return testing::internal::GetCapturedStderr(); }
};

// Log output read back: each Android-log or host-log line as "L tag: text" (L the level
// letter, line numbers as N), other lines as they are.
Lines logEntries(const std::string& text);

// For death tests: the child's stderr holds exactly these entries.
testing::Matcher<const std::string&> entriesAre(const Lines& entries);

// A folder removed with its content when the object goes.
struct TempDir {
    TempDir();
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    // Writes a file into the folder; returns its path.
    std::string write(const std::string& name, const std::string& content) const;
    std::string path;
};

// Records trace markers without their process id while alive, in a trace file of its own
// (a line not framed as ftrace frames a marker is kept whole, and so matches no marker), with
// the library's category bits and the atrace tags set as asked.
struct TraceCapture {
    explicit TraceCapture(uint64_t bits, uint64_t tags = 0x400);
    ~TraceCapture();
    Lines markers() const;
    TempDir dir;
};

// The whole content of a file; empty when it cannot be read.
std::string readFile(const std::string& path);

struct Outcome {
    int status;       // exit status, or -1 when the command could not run
    std::string out;  // stdout and stderr together
};

// Runs a shell command in which "%T" stands for `program`.
Outcome run(const std::string& command, const std::string& program = "");

// Runs the disabled test `name` of this program (found through readlink(): valgrind
// answers it with the program it runs) in a child whose property file holds
// `properties`: for what the libraries fix when they load.
Outcome runWithProperties(const std::string& name, const std::string& properties);

// Puts a fault into this process for good, through a seccomp filter: only in a child (a death
// test's, one that runWithProperties starts). When argument `arg` of `call` (SYS_...) equals
// `value` on its low 32 bits, the call fails with `error`; or, with `error` 0, it does not
// reach the kernel and returns `result` after `delay` (under a second), `out` copied first to
// where argument `outArg` (0 to 2) points.
void inject(long call, int arg, long value, int error, long result = 0,
            std::chrono::microseconds delay = {}, int outArg = 0, const std::string& out = "");

template <typename T>
std::string bytesOf(const T& object) {
    return std::string(reinterpret_cast<const char*>(&object), sizeof(object));
}

// Skips the rest of a test where seccomp filters cannot be installed: under valgrind, which
// does not know the seccomp call (its stage runs the tests that are not death tests).
#define SKIP_WITHOUT_FAULTS()                                                           \
    if (uint32_t trap = SECCOMP_RET_TRAP;                                               \
        ::syscall(SYS_seccomp, SECCOMP_GET_ACTION_AVAIL, 0, &trap) != 0)                \
    GTEST_SKIP() << "seccomp filters cannot be installed here, so no fault can be put " \
                    "into a system call"

// Leaves this process `spare` descriptor numbers more to make, all others taken. Makes a
// virtual call on the unified logger first: UBSan checks an object's type the first time
// through a pipe of its own, which it could not open afterwards.
void limitDescriptors(int spare);

// Polls `done` until it holds; false when a generous guard runs out first.
bool waitUntil(const std::function<bool()>& done);

// Keeps what is printed to it.
class RecordingPrinter : public NSCam::IPrinter {
public:
    void printLine(const char* line) override { lines.push_back(line); }
    void printFormatLine(const char* fmt, ...) override;
    Lines lines;
};

// What a monitor or a timer dumps.
template <typename T>
Lines dumpOf(const T& object) {
    RecordingPrinter printer;
    object.dumpState(&printer);
    return printer.lines;
}

// A monitor's epoll and event descriptors, as its dump shows them.
std::pair<int, int> descriptorsOf(const IEpollMonitor& monitor);

// The wrapper's error text when epoll_ctl refuses operation `op` ("Add", "Mod" or "Del").
std::string epollCtlError(const std::string& op, int epollFd, int fd, const std::string& err);

// A driver request's crash report: a message of two lines, each with its own header.
Lines crashReport(const char* request, int err);

// Sets (or with null unsets) a property for the object's life.
struct ScopedProperty {
    ScopedProperty(std::string name, const char* value) : key(std::move(name)) {
        host::property_set(key.c_str(), value);
    }
    ~ScopedProperty() { host::property_set(key.c_str(), nullptr); }
    std::string key;
};

// A monitor run by a thread of its own until the object goes.
struct RunningMonitor {
    explicit RunningMonitor(const char* name = "test");
    std::shared_ptr<IEpollMonitor> monitor;
    host::ThreadDriver driver;
};

// An observer of a descriptor it does not own: runs the hook on each event, then counts it
// (a test that waits for the count may then let the observer go).
struct FdObserver : IEventObserver {
    explicit FdObserver(int number, std::function<void(const OnEvent&)> onEach = {})
        : fd(number), hook(std::move(onEach)) {}
    int getEventFD() const override { return fd; }
    void onEvent(const OnEvent& event) override {
        if (hook) hook(event);
        ++calls;
    }
    int fd;                                    // also once closed, for an EventObserver
    std::function<void(const OnEvent&)> hook;  // runs on the monitor thread
    std::atomic<int> calls{0};
};

// An observer of an eventfd of its own, which each event reads dry before the hook runs.
struct EventObserver : FdObserver {
    explicit EventObserver(std::function<void(const OnEvent&)> onEach = {});
    void onEvent(const OnEvent& event) override;
    void signal() const { EXPECT_EQ(::eventfd_write(owned.get(), 1), 0) << "signal"; }
    // Closes the eventfd, as an owner that forgets to detach first; the number stays.
    void closeFd() { owned.reset(); }
    host::UniqueFd owned;            // the eventfd
    std::atomic<uint64_t> units{0};  // counts read
};

}  // namespace tavrel::test
