// The monitor thread: waking, interrupts, signals, per-event logs and teardown.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "common/LogCapture.h"
#include "monitor/MonitorTestSupport.h"
#include "tavrel/ThreadDriver.h"
#include "tavrel/platform/UniqueFd.h"

namespace tavrel::test {
namespace {

using tavrel::host::ThreadDriver;

// The unified route at info level, where the monitor's interrupt lines are written.
constexpr LogSwitches kInfoLines = {0x2, 3};

// Whether thread `tid` sits in an epoll wait: the kernel function it sleeps in. Its system
// call number would also tell, but under qemu user-mode that is the host's number, not
// this architecture's.
bool inEpollWait(int tid) {
    std::ifstream wchan("/proc/self/task/" + std::to_string(tid) + "/wchan");
    std::string function;
    wchan >> function;
    return function == "do_epoll_wait";
}

// Test thread, with the loop running: signals `observer`, attached and not yet signalled,
// and waits until its event was dispatched and the monitor thread waits again; fails after
// a while (an emulator or a loaded machine is slow, but not this slow).
::testing::AssertionResult waitingAfterAnEvent(EventFdObserver& observer) {
    observer.signal();
    if (!observer.waitForEvents(1)) return ::testing::AssertionFailure() << "no event dispatched";
    const int tid = observer.dispatchThread();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!inEpollWait(tid)) {
        if (std::chrono::steady_clock::now() >= deadline)
            return ::testing::AssertionFailure()
                   << "thread " << tid << " not seen in an epoll wait within 20 s";
        std::this_thread::yield();
    }
    return ::testing::AssertionSuccess();
}

// Counts the descriptor that lists them too, the same each time.
long openDescriptorCount() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// Asked to exit before its thread runs, the loop ends at once. Each request adds 0x40 to
// the interrupt; one read takes all that are pending.
TEST(MonitorLoop, RequestsBeforeTheThreadRunsAddUpAndEndTheLoopAtOnce) {
    LogCapture capture(kInfoLines);
    auto monitor = makeMonitor("x");
    monitor->requestExit();
    monitor->requestExit();
    EXPECT_FALSE(monitor->isActive());
    monitor->onEvent({monitor.get(), EPOLLIN});
    EXPECT_TRUE(contains(capture.unifiedTexts(), "[P2DrvEP-x] isInterruptEvent: 0x80"));

    // Nothing pending: the read fails and the monitor only warns.
    monitor->onEvent({monitor.get(), EPOLLIN});
    EXPECT_TRUE(contains(capture.unifiedTexts(), "[P2DrvEP-x] isInterruptEvent: read(" +
                                                     std::to_string(monitor->getEventFD()) +
                                                     ") returns -11 != 8"));
    EXPECT_FALSE(monitor->threadLoop());
}

// Torn down after a run, or never run, a monitor leaves no descriptor open.
TEST(MonitorLoop, RequestExitWakesAWaitingLoopAndNoDescriptorOutlivesTheMonitor) {
    LogCapture capture(kInfoLines);
    const long before = openDescriptorCount();
    makeMonitor("idle");
    {
        auto monitor = makeMonitor("x");
        EventFdObserver observer;
        monitor->attach(&observer, EPOLLIN);
        {
            ThreadDriver driver(monitor);
            // Asked to exit only once it waits again, so that the interrupt wakes it.
            ASSERT_TRUE(waitingAfterAnEvent(observer));
        }
        EXPECT_FALSE(monitor->isActive());
        EXPECT_TRUE(contains(capture.unifiedTexts(), "[P2DrvEP-x] isInterruptEvent: 0x40"));
        monitor->detach(&observer);
    }
    EXPECT_EQ(openDescriptorCount(), before);
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
    monitor->attach(&observer, EPOLLIN);
    {
        ThreadDriver driver(monitor);
        ASSERT_TRUE(waitingAfterAnEvent(observer));
        pthread_kill(driver.nativeHandle(), SIGUSR1);
        while (sSignalsSeen.load() == 0) std::this_thread::yield();

        EXPECT_TRUE(monitor->isActive());
        observer.signal();
        EXPECT_TRUE(observer.waitForEvents(2));
    }
    monitor->detach(&observer);
    sigaction(SIGUSR1, &previous, nullptr);
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

// The dispatch frame's closing line must not ask an observer that freed itself for its
// descriptor.
TEST(MonitorLoop, LogvFramesEveryDispatch) {
    LogCapture capture(kInfoLines);
    auto monitor = makeMonitor("v", "1");
    EventFdObserver observer;
    const std::string fd = std::to_string(observer.getEventFD());
    tavrel::host::UniqueFd oneShotFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    std::atomic<bool> done{false};
    monitor->attach(&observer, EPOLLIN);
    monitor->attach(new OneShotObserver(oneShotFd.get(), done), EPOLLIN);
    const std::string config = monitor->toString_config();
    std::string runtime;
    {
        ThreadDriver driver(monitor);
        const uint64_t one = 1;
        ASSERT_EQ(write(oneShotFd.get(), &one, sizeof(one)), static_cast<ssize_t>(sizeof(one)));
        while (!done) std::this_thread::yield();
        runtime = monitor->toString_runtime();
        ASSERT_TRUE(waitingAfterAnEvent(observer));
    }
    const std::vector<std::string> texts = capture.unifiedTexts();
    EXPECT_TRUE(contains(texts, "[attach] (" + fd + ", " + pointerText(&observer) + ")"));
    EXPECT_TRUE(contains(texts, "[handleEvents] + fd=" + fd + " events=0x1 observer=" +
                                    pointerText(&observer) + " " + config + " " + runtime));
    EXPECT_TRUE(contains(texts, "[handleEvents] - fd=" + fd + " events=0x1"));
    EXPECT_TRUE(
        contains(texts, "[handleEvents] - fd=" + std::to_string(oneShotFd.get()) + " events=0x1"));
    // The interrupt that ends the loop is framed too.
    const auto starts = [&](const std::string& head) {
        return std::count_if(texts.begin(), texts.end(),
                             [&](const std::string& t) { return t.rfind(head, 0) == 0; });
    };
    EXPECT_EQ(starts("[handleEvents] + fd="), 3);
    EXPECT_EQ(starts("[handleEvents] - fd="), 3);
    EXPECT_EQ(monitor->determineFdObserverCount(), 1u);
    monitor->detach(&observer);
}

}  // namespace
}  // namespace tavrel::test
