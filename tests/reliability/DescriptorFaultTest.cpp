// Descriptor faults around a running monitor: owners that close their descriptor before
// detaching it, and a process that runs out of descriptors while the monitor runs.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "DrainObserver.h"
#include "Figures.h"
#include "OpenDescriptors.h"
#include "RunBudget.h"
#include "SettledWindow.h"
#include "common/LogCapture.h"
#include "monitor/MonitorTestSupport.h"
#include "tavrel/SystemCall.h"
#include "tavrel/platform/ThreadDriver.h"
#include "tavrel/platform/UniqueFd.h"

namespace tavrel::test {
namespace {

using NSCam::NSTavrel::IThreadLoop;
namespace System = NSCam::NSTavrel::System;

constexpr std::chrono::milliseconds kReleaseDuration{1000};
constexpr uint64_t kReleaseRounds = 500;
constexpr int kObserversPerRound = 4;
// Settled observers kept alive (see SettledWindow).
constexpr size_t kKeptAlive = 64;
constexpr int kDescriptorFlags = EFD_CLOEXEC | EFD_NONBLOCK;
constexpr int kTimerFlags = TFD_CLOEXEC | TFD_NONBLOCK;
constexpr int kErrorLevel = 1;
// Descriptors left free under the lowered limit, so that the wrappers run out soon.
constexpr rlim_t kHeadroom = 16;
constexpr int kEmfile = -EMFILE;

std::shared_ptr<IThreadLoop> loopOf(const std::shared_ptr<EpollMonitor>& monitor) {
    return std::dynamic_pointer_cast<IThreadLoop>(std::static_pointer_cast<IEpollMonitor>(monitor));
}

std::string removalLine(int fd) {
    return "[operator()] EPOLL_CTL_DEL fd=" + std::to_string(fd) + " err=-9(Bad file descriptor)";
}

TEST(ReliabilityDescriptorFaults, OwnersClosingBeforeDetachLeaveNothingBehind) {
    const RunBudget budget(kReleaseDuration, kReleaseRounds);
    const DescriptorTable before = openDescriptors();
    uint64_t rounds = 0, detaches = 0, removalLines = 0, consumed = 0, afterSettled = 0,
             unbalanced = 0;
    uint32_t observerCount = 0;
    {
        auto monitor = makeMonitor("closed");
        host::ThreadDriver driver(loopOf(monitor));
        DispatchBarrier barrier(*monitor);
        SettledWindow settled(kKeptAlive);
        LogCapture capture;
        for (; rounds < budget.count() && !budget.expired(); ++rounds) {
            std::vector<host::UniqueFd> fds;
            std::vector<std::shared_ptr<DrainObserver>> owners;
            std::vector<DrainObserver*> observers;
            for (int i = 0; i < kObserversPerRound; ++i) {
                fds.emplace_back(eventfd(0, kDescriptorFlags));
                owners.push_back(std::make_shared<DrainObserver>(fds.back().get(),
                                                                 DrainObserver::Kind::kEventFd));
                observers.push_back(owners.back().get());
                monitor->attach(observers.back(), EPOLLIN);
                ASSERT_TRUE(produce(fds.back().get(), DrainObserver::Kind::kEventFd, 1));
            }
            for (DrainObserver* observer : observers)
                ASSERT_TRUE(waitUntil([&] { return observer->tally().consumed.load() == 1; }));
            capture.clear();
            // Closed by their owners first: the kernel drops the registrations with them.
            fds.clear();
            for (DrainObserver* observer : observers) {
                monitor->detach(observer);
                observer->tally().detached = true;
                ++detaches;
            }
            for (const auto& line : capture.unified()) {
                for (DrainObserver* observer : observers) {
                    if (line.level == kErrorLevel &&
                        line.text == removalLine(observer->getEventFD()))
                        ++removalLines;
                }
            }
            ASSERT_TRUE(barrier.pass());
            for (auto& owner : owners) {
                owner->tally().settled = true;
                settled.add(owner, &owner->tally(), 1);
            }
        }
        ASSERT_TRUE(barrier.pass());
        settled.foldAll();
        consumed = settled.sums().consumed;
        afterSettled = settled.sums().afterSettled;
        unbalanced = settled.sums().unbalanced;
        observerCount = monitor->determineFdObserverCount();
    }
    const int leaked = descriptorDifference(before, openDescriptors());
    reportFigures("closed_before_detach",
                  {{"rounds", static_cast<int64_t>(rounds)},
                   {"detaches", static_cast<int64_t>(detaches)},
                   {"removal_errors_logged", static_cast<int64_t>(removalLines)},
                   {"events_checked", static_cast<int64_t>(consumed)},
                   {"calls_after_settled", static_cast<int64_t>(afterSettled)},
                   {"descriptors_leaked", leaked}},
                  budget);
    EXPECT_GT(rounds, 0u);
    EXPECT_EQ(removalLines, detaches);
    EXPECT_EQ(consumed, detaches);
    EXPECT_EQ(unbalanced, 0u);
    EXPECT_EQ(afterSettled, 0u);
    // The barrier's own marker is the one observer left.
    EXPECT_EQ(observerCount, 1u);
    EXPECT_EQ(leaked, 0);
}

// What the child found at the descriptor limit.
struct LimitReport {
    int made = 0;     // descriptors the wrappers made before the limit
    int eventFd = 0;  // results at the limit
    int timerFd = 0;
    int epoll = 0;
    int open = 0;
    uint64_t dispatched = 0;  // units the attached observer consumed at the limit
    uint64_t produced = 0;
    int closeFailures = 0;  // wrapper closes that failed afterwards
    int setup = 0;          // 0, or the step that could not be set up
};

// Runs in the forked child: an attached observer keeps being served while every wrapper
// that makes a descriptor fails with EMFILE.
LimitReport exhaustWhileRunning() {
    LimitReport report;
    auto monitor = makeMonitor("emfile");
    host::ThreadDriver driver(loopOf(monitor));
    host::UniqueFd fd(eventfd(0, kDescriptorFlags));
    DrainObserver observer(fd.get(), DrainObserver::Kind::kEventFd);
    monitor->attach(&observer, EPOLLIN);

    // UndefinedBehaviorSanitizer checks the logger's dynamic type by probing memory through
    // a pipe, which cannot be opened at the limit; one error line logged beforehand puts
    // the type in its cache.
    char byte = 0;
    System::Read(-1, &byte, sizeof(byte));

    rlimit saved{};
    getrlimit(RLIMIT_NOFILE, &saved);
    // The highest descriptor the program may hold. Valgrind keeps its own descriptors above
    // the soft limit it reports and refuses a limit that would take them in, so only those
    // below count; in a plain run that is every descriptor.
    int highest = -1;
    for (const auto& entry : openDescriptors()) {
        if (static_cast<rlim_t>(entry.first) < saved.rlim_cur) highest = entry.first;
    }
    rlimit lowered = saved;
    lowered.rlim_cur = static_cast<rlim_t>(highest) + 1 + kHeadroom;
    if (setrlimit(RLIMIT_NOFILE, &lowered) != 0) {
        report.setup = 1;
        return report;
    }
    const unsigned long owner = reinterpret_cast<unsigned long>(&report);
    std::vector<int> made;
    int result = 0;
    while ((result = System::EventFD(0, kDescriptorFlags, owner)) >= 0) made.push_back(result);
    report.made = static_cast<int>(made.size());
    report.eventFd = result;
    report.timerFd = System::TimerFDCreate(CLOCK_MONOTONIC, kTimerFlags, owner);
    report.epoll = System::EPollCreate(1, owner);
    report.open = System::Open("/dev/null", O_RDONLY | O_CLOEXEC, owner);

    for (int i = 0; i < kObserversPerRound; ++i) {
        if (produce(fd.get(), DrainObserver::Kind::kEventFd, 1)) ++report.produced;
        waitUntil([&] { return observer.tally().consumed.load() >= report.produced; });
    }
    report.dispatched = observer.tally().consumed.load();

    for (int descriptor : made)
        report.closeFailures += System::Close(descriptor, owner) != 0 ? 1 : 0;
    setrlimit(RLIMIT_NOFILE, &saved);
    driver.stop();
    monitor->detach(&observer);
    return report;
}

TEST(ReliabilityDescriptorFaults, MonitorKeepsDispatchingAtTheDescriptorLimit) {
    const RunBudget budget(kReleaseDuration, 1);
    int ends[2] = {-1, -1};
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    host::UniqueFd readEnd(ends[0]), writeEnd(ends[1]);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        readEnd.reset();
        const LimitReport report = exhaustWhileRunning();
        const bool sent = write(writeEnd.get(), &report, sizeof(report)) == sizeof(report);
        _exit(sent ? 0 : 1);
    }
    writeEnd.reset();
    LimitReport report;
    const ssize_t got = read(readEnd.get(), &report, sizeof(report));
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
    ASSERT_EQ(got, static_cast<ssize_t>(sizeof(report)));
    ASSERT_EQ(report.setup, 0);

    reportFigures("descriptor_limit",
                  {{"made_before_limit", report.made},
                   {"eventfd_result", report.eventFd},
                   {"timerfd_result", report.timerFd},
                   {"epoll_result", report.epoll},
                   {"open_result", report.open},
                   {"produced_at_limit", static_cast<int64_t>(report.produced)},
                   {"dispatched_at_limit", static_cast<int64_t>(report.dispatched)},
                   {"close_failures", report.closeFailures}},
                  budget);
    EXPECT_GT(report.made, 0);
    EXPECT_EQ(report.eventFd, kEmfile);
    EXPECT_EQ(report.timerFd, kEmfile);
    EXPECT_EQ(report.epoll, kEmfile);
    EXPECT_EQ(report.open, kEmfile);
    EXPECT_EQ(report.produced, static_cast<uint64_t>(kObserversPerRound));
    EXPECT_EQ(report.dispatched, report.produced);
    EXPECT_EQ(report.closeFailures, 0);
}

}  // namespace
}  // namespace tavrel::test
