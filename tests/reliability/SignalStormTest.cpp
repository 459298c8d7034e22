// A signal every 100 us at the monitor thread, with a handler installed without
// SA_RESTART, while a producer keeps an observer busy: the loop keeps dispatching, nothing
// is lost, the interrupted waits stay silent, and the handler shows from the interrupted
// context that the signals did cut epoll waits short.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <ucontext.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <thread>

#include "DrainObserver.h"
#include "Figures.h"
#include "RunBudget.h"
#include "common/LogCapture.h"
#include "monitor/MonitorTestSupport.h"
#include "tavrel/platform/ThreadDriver.h"
#include "tavrel/platform/UniqueFd.h"

namespace tavrel::test {
namespace {

using NSCam::NSTavrel::IThreadLoop;

constexpr std::chrono::milliseconds kReleaseDuration{1000};
constexpr std::chrono::microseconds kSignalPeriod{100};
constexpr std::chrono::microseconds kProducePeriod{500};
constexpr uint64_t kReleaseSignals = 10000;
// Levels of the unified log that mean something went wrong.
constexpr int kWarningLevel = 2;

std::atomic<uint64_t> sHandled{0};
std::atomic<uint64_t> sInterruptedCalls{0};

// Whether the interrupted context is a system call that returned EINTR: the result
// register holds -EINTR and the instruction just before the resume address is the
// system call instruction.
bool interruptedCall(const void* context) {
    const auto* uc = static_cast<const ucontext_t*>(context);
#if defined(__x86_64__)
    constexpr unsigned char kSyscall[] = {0x0f, 0x05};
    const auto* pc = reinterpret_cast<const unsigned char*>(uc->uc_mcontext.gregs[REG_RIP]);
    return uc->uc_mcontext.gregs[REG_RAX] == -EINTR && pc[-2] == kSyscall[0] &&
           pc[-1] == kSyscall[1];
#elif defined(__aarch64__)
    constexpr uint32_t kSvc0 = 0xd4000001;
    const auto* pc = reinterpret_cast<const uint32_t*>(uc->uc_mcontext.pc);
    return static_cast<int64_t>(uc->uc_mcontext.regs[0]) == -EINTR && pc[-1] == kSvc0;
#else
    (void)uc;
    return false;
#endif
}

constexpr bool kCanSeeInterruptedCalls =
#if defined(__x86_64__) || defined(__aarch64__)
    true;
#else
    false;
#endif

void onSignal(int, siginfo_t*, void* context) {
    sHandled.fetch_add(1);
    if (interruptedCall(context)) sInterruptedCalls.fetch_add(1);
}

// SIGUSR1 handled without SA_RESTART while it lives.
class StormHandler {
public:
    StormHandler() {
        struct sigaction action {};
        action.sa_sigaction = onSignal;
        action.sa_flags = SA_SIGINFO;
        sigaction(SIGUSR1, &action, &mPrevious);
    }
    ~StormHandler() { sigaction(SIGUSR1, &mPrevious, nullptr); }

private:
    struct sigaction mPrevious {};
};

int problemLines(const LogCapture& capture) {
    int count = 0;
    for (const auto& line : capture.unified()) count += line.level <= kWarningLevel ? 1 : 0;
    return count;
}

TEST(ReliabilitySignalStorm, MonitorKeepsDispatchingThroughInterruptedWaits) {
    const RunBudget budget(kReleaseDuration, kReleaseSignals);
    StormHandler handler;
    sHandled = 0;
    sInterruptedCalls = 0;
    auto monitor = makeMonitor("storm");
    host::UniqueFd fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    DrainObserver observer(fd.get(), DrainObserver::Kind::kEventFd);
    monitor->attach(&observer, EPOLLIN);
    uint64_t sent = 0, produced = 0;
    int problems = 0;
    bool active = false;
    {
        LogCapture capture;
        host::ThreadDriver driver(std::dynamic_pointer_cast<IThreadLoop>(
            std::static_pointer_cast<IEpollMonitor>(monitor)));
        std::atomic<bool> storming{true};
        std::thread producer([&] {
            while (storming.load()) {
                if (produce(fd.get(), DrainObserver::Kind::kEventFd, 1)) ++produced;
                std::this_thread::sleep_for(kProducePeriod);
            }
        });
        auto next = std::chrono::steady_clock::now();
        while (!budget.expired() && sent < budget.count()) {
            if (pthread_kill(driver.nativeHandle(), SIGUSR1) == 0) ++sent;
            next += kSignalPeriod;
            std::this_thread::sleep_until(next);
        }
        storming = false;
        producer.join();
        EXPECT_TRUE(waitUntil([&] { return observer.tally().consumed.load() >= produced; }));
        active = monitor->isActive();
        problems = problemLines(capture);
    }
    monitor->detach(&observer);

    reportFigures("signal_storm",
                  {{"signals_sent", static_cast<int64_t>(sent)},
                   {"signals_handled", static_cast<int64_t>(sHandled.load())},
                   {"interrupted_waits", static_cast<int64_t>(sInterruptedCalls.load())},
                   {"events_produced", static_cast<int64_t>(produced)},
                   {"events_consumed", static_cast<int64_t>(observer.tally().consumed.load())},
                   {"error_or_warning_lines", problems}},
                  budget);
    EXPECT_GT(sent, 0u);
    // Signals sent while one is still pending merge into it.
    EXPECT_GT(sHandled.load(), 0u);
    EXPECT_LE(sHandled.load(), sent);
    EXPECT_GT(produced, 0u);
    EXPECT_EQ(observer.tally().consumed.load(), produced);
    EXPECT_TRUE(active);
    EXPECT_EQ(problems, 0);
    if (kCanSeeInterruptedCalls) {
        EXPECT_GT(sInterruptedCalls.load(), 0u);
    }
}

}  // namespace
}  // namespace tavrel::test
