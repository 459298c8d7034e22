// The monitor thread: waking, interrupts, signals, per-event logs and teardown.
#include <dirent.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include "common/LogCapture.h"
#include "monitor/MonitorTestSupport.h"
#include "tavrel/platform/Properties.h"
#include "tavrel/platform/ThreadDriver.h"
#include "tavrel/platform/UniqueFd.h"

namespace tavrel::test {
namespace {

using tavrel::host::ThreadDriver;

bool contains(const std::vector<std::string>& lines, const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

// The unified route at info level, where the monitor's interrupt lines are written.
LogSwitches infoLines() {
    LogSwitches switches;
    switches.mode = 0x2;
    switches.detailsLevel = 3;
    return switches;
}

// Whether thread `tid` sits in an epoll wait: the kernel function it sleeps in. Its system
// call number would also tell, but under qemu user-mode that is the host's number, not
// this architecture's.
bool inEpollWait(int tid) {
    std::ifstream wchan("/proc/self/task/" + std::to_string(tid) + "/wchan");
    std::string function;
    wchan >> function;
    return function == "do_epoll_wait";
}

// Test thread: waits until the monitor thread `tid` waits again, or fails after a while
// (an emulator or a loaded machine is slow, but not this slow).
::testing::AssertionResult awaitEpollWait(int tid) {
    constexpr auto kPatience = std::chrono::seconds(20);
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!inEpollWait(tid)) {
        if (std::chrono::steady_clock::now() >= deadline)
            return ::testing::AssertionFailure()
                   << "thread " << tid << " not seen in an epoll wait within 20 s";
        std::this_thread::yield();
    }
    return ::testing::AssertionSuccess();
}

int openDescriptorCount() {
    int count = 0;
    DIR* dir = opendir("/proc/self/fd");
    while (dirent* entry = readdir(dir)) count += entry->d_name[0] != '.';
    closedir(dir);
    return count;
}

TEST(MonitorLoop, RequestExitBeforeTheThreadRunsEndsTheLoopAtOnce) {
    auto monitor = makeMonitor("early");
    monitor->requestExit();
    EXPECT_FALSE(monitor->isActive());
    EXPECT_FALSE(monitor->threadLoop());
}

// Each interrupt adds 0x40; one read takes all that are pending.
TEST(MonitorLoop, InterruptReadsTheSumOfPendingRequests) {
    LogCapture capture(infoLines());
    auto monitor = makeMonitor("x");
    monitor->requestExit();
    monitor->requestExit();
    monitor->onEvent({monitor.get(), EPOLLIN});
    EXPECT_TRUE(contains(capture.unifiedTexts(), "[P2DrvEP-x] isInterruptEvent: 0x80"));

    // Nothing pending: the read fails and the monitor only warns.
    monitor->onEvent({monitor.get(), EPOLLIN});
    EXPECT_TRUE(contains(capture.unifiedTexts(), "[P2DrvEP-x] isInterruptEvent: read(" +
                                                     std::to_string(monitor->getEventFD()) +
                                                     ") returns -11 != 8"));
}

TEST(MonitorLoop, RequestExitWakesAWaitingLoop) {
    LogCapture capture(infoLines());
    auto monitor = makeMonitor("x");
    EventFdObserver observer;
    std::atomic<int> monitorTid{0};
    observer.setHook([&](IEventObserver::OnEvent const&) { monitorTid = gettid(); });
    monitor->attach(&observer, EPOLLIN);
    {
        ThreadDriver driver(monitor);
        observer.signal();
        ASSERT_TRUE(observer.waitForEvents(1));
        // Asked to exit only once it waits again, so that the interrupt wakes it.
        ASSERT_TRUE(awaitEpollWait(monitorTid));
    }
    EXPECT_FALSE(monitor->isActive());
    EXPECT_TRUE(contains(capture.unifiedTexts(), "[P2DrvEP-x] isInterruptEvent: 0x40"));
    monitor->detach(&observer);
}

std::atomic<int> sSignalsSeen{0};

void countSignal(int) {
    sSignalsSeen.fetch_add(1);
}

TEST(MonitorLoop, SignalDuringTheWaitDoesNotEndTheLoop) {
    struct sigaction action {};
    action.sa_handler = countSignal;  // no SA_RESTART: the wait fails with EINTR
    struct sigaction previous {};
    sigaction(SIGUSR1, &action, &previous);

    auto monitor = makeMonitor("sig");
    EventFdObserver observer;
    std::atomic<int> monitorTid{0};
    observer.setHook([&](IEventObserver::OnEvent const&) { monitorTid = gettid(); });
    monitor->attach(&observer, EPOLLIN);
    {
        ThreadDriver driver(monitor);
        observer.signal();
        ASSERT_TRUE(observer.waitForEvents(1));
        ASSERT_TRUE(awaitEpollWait(monitorTid));
        pthread_kill(driver.nativeHandle(), SIGUSR1);
        while (sSignalsSeen.load() == 0) std::this_thread::yield();

        EXPECT_TRUE(monitor->isActive());
        observer.signal();
        EXPECT_TRUE(observer.waitForEvents(2));
    }
    monitor->detach(&observer);
    sigaction(SIGUSR1, &previous, nullptr);
}

TEST(MonitorLoop, LogvFramesEveryDispatch) {
    constexpr const char* kLogv = "persist.vendor.camera.tavrel.EpollMonitor.logv";
    LogCapture capture(infoLines());
    tavrel::host::property_set(kLogv, "1");
    auto monitor = makeMonitor("v");
    tavrel::host::property_set(kLogv, nullptr);
    EventFdObserver observer;
    std::atomic<int> monitorTid{0};
    observer.setHook([&](IEventObserver::OnEvent const&) { monitorTid = gettid(); });
    const std::string fd = std::to_string(observer.getEventFD());
    monitor->attach(&observer, EPOLLIN);
    const std::string config = monitor->toString_config();
    const std::string runtime = monitor->toString_runtime();
    {
        ThreadDriver driver(monitor);
        observer.signal();
        ASSERT_TRUE(observer.waitForEvents(1));
        ASSERT_TRUE(awaitEpollWait(monitorTid));
    }
    const std::vector<std::string> texts = capture.unifiedTexts();
    EXPECT_TRUE(contains(texts, "[attach] (" + fd + ", " + pointerText(&observer) + ")"));
    EXPECT_TRUE(contains(texts, "[handleEvents] + fd=" + fd + " events=0x1 observer=" +
                                    pointerText(&observer) + " " + config + " " + runtime));
    EXPECT_TRUE(contains(texts, "[handleEvents] - fd=" + fd + " events=0x1"));
    // The interrupt that ends the loop is framed too.
    const auto starts = [&](const std::string& head) {
        return std::count_if(texts.begin(), texts.end(),
                             [&](const std::string& t) { return t.rfind(head, 0) == 0; });
    };
    EXPECT_EQ(starts("[handleEvents] + fd="), 2);
    EXPECT_EQ(starts("[handleEvents] - fd="), 2);
    monitor->detach(&observer);
}

// Detaches and frees itself from inside its own onEvent, as one-shot observers do.
class OneShotObserver : public IEventObserver {
public:
    OneShotObserver(int fd, std::atomic<bool>& done) : mFd(fd), mDone(done) {}
    int getEventFD() const override { return mFd; }
    void onEvent(IEventObserver::OnEvent const& event) override {
        event.monitor->detach(this);
        std::atomic<bool>& done = mDone;
        delete this;
        done = true;
    }

private:
    int mFd;                   // owned by the test, which signals it once
    std::atomic<bool>& mDone;  // set once the observer is gone
};

// The dispatch frame's closing line must not ask the freed observer for its descriptor.
TEST(MonitorLoop, LogvFrameOfAnObserverThatFreedItself) {
    constexpr const char* kLogv = "persist.vendor.camera.tavrel.EpollMonitor.logv";
    LogCapture capture(infoLines());
    tavrel::host::property_set(kLogv, "1");
    auto monitor = makeMonitor("v");
    tavrel::host::property_set(kLogv, nullptr);
    std::atomic<bool> done{false};
    tavrel::host::UniqueFd eventFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    const int fd = eventFd.get();
    monitor->attach(new OneShotObserver(fd, done), EPOLLIN);
    {
        ThreadDriver driver(monitor);
        const uint64_t one = 1;
        ASSERT_EQ(write(fd, &one, sizeof(one)), static_cast<ssize_t>(sizeof(one)));
        while (!done) std::this_thread::yield();
    }
    EXPECT_TRUE(contains(capture.unifiedTexts(),
                         "[handleEvents] - fd=" + std::to_string(fd) + " events=0x1"));
    EXPECT_EQ(monitor->determineFdObserverCount(), 0u);
}

TEST(MonitorLoop, NoDescriptorOutlivesTheMonitor) {
    const int before = openDescriptorCount();
    makeMonitor("idle");
    {
        auto monitor = makeMonitor("ran");
        EventFdObserver observer;
        monitor->attach(&observer, EPOLLIN);
        {
            ThreadDriver driver(monitor);
            observer.signal();
            ASSERT_TRUE(observer.waitForEvents(1));
        }
        monitor->detach(&observer);
    }
    EXPECT_EQ(openDescriptorCount(), before);
}

}  // namespace
}  // namespace tavrel::test
