// The eventfd, epoll and timerfd wrappers: results, error lines, the silent interrupted
// wait, and descriptor ownership.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>

#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "common/LogCapture.h"
#include "tavrel/SystemCall.h"
#include "tavrel/platform/Fdsan.h"
#include "tavrel/platform/UniqueFd.h"

namespace {

namespace System = NSCam::NSTavrel::System;
using tavrel::host::UniqueFd;
using tavrel::test::LogCapture;
using tavrel::test::LogSwitches;
using Lines = std::vector<std::string>;

constexpr unsigned long kOwner = 0xE7;
constexpr unsigned long kOtherOwner = 0xE8;
constexpr int kFdsanType = 1;
// Long enough that only the signal can end the wait.
constexpr int kLongWaitMs = 60'000;
constexpr auto kSignalRetry = std::chrono::milliseconds(5);

LogSwitches unifiedOnly() {
    return LogSwitches{2, 5, 0, false};
}

std::string n(int value) {
    return std::to_string(value);
}

TEST(EventCall, CreatedDescriptorsCarryTheirOwnersTag) {
    const uint64_t tag = zelcam_fdsan_create_tag(kOwner, kFdsanType);
    LogCapture logs(unifiedOnly());
    for (const int fd : {System::EventFD(0, EFD_CLOEXEC, kOwner), System::EPollCreate(1, kOwner),
                         System::TimerFDCreate(CLOCK_MONOTONIC, TFD_CLOEXEC, kOwner)}) {
        ASSERT_GE(fd, 0);
        EXPECT_EQ(tavrel::host::fdsanGetTag(fd), tag);
        EXPECT_EQ(System::Close(fd, kOwner), 0);
        EXPECT_EQ(tavrel::host::fdsanGetTag(fd), 0u);
    }
    EXPECT_TRUE(logs.unified().empty());
}

TEST(EventCallDeathTest, ClosingWithAnotherOwnerIsCaught) {
    const int fd = System::EventFD(0, EFD_CLOEXEC, kOwner);
    ASSERT_GE(fd, 0);
    char expected[160];
    std::snprintf(expected, sizeof(expected),
                  "fdsan: attempted to close fd %d with tag 0x%" PRIx64 " owned by 0x%" PRIx64, fd,
                  zelcam_fdsan_create_tag(kOtherOwner, kFdsanType),
                  zelcam_fdsan_create_tag(kOwner, kFdsanType));
    EXPECT_DEATH(System::Close(fd, kOtherOwner), expected);
    EXPECT_EQ(System::Close(fd, kOwner), 0);
}

TEST(EventCall, FailureLinesOfTheCreators) {
    LogCapture logs(unifiedOnly());
    EXPECT_EQ(System::EventFD(1, -1, kOwner), -EINVAL);
    EXPECT_EQ(System::EPollCreate(0, kOwner), -EINVAL);
    EXPECT_EQ(System::TimerFDCreate(-1, 0, kOwner), -EINVAL);
    EXPECT_EQ(logs.unifiedTexts(),
              (Lines{"[EventFD] eventfd(1, 0xffffffff) return -1: err=-22(Invalid argument)",
                     "[EPollCreate] epoll_create() return -1: err=-22(Invalid argument)",
                     "[TimerFDCreate] timerfd_create() return -1: err=-22(Invalid argument)"}));
}

TEST(EventCall, EpollControlResultsAndLines) {
    UniqueFd epoll(::epoll_create1(EPOLL_CLOEXEC));
    UniqueFd event(::eventfd(0, EFD_CLOEXEC));
    epoll_event interest{EPOLLIN, {}};
    LogCapture logs(unifiedOnly());
    EXPECT_EQ(System::EPollCtlAdd(epoll.get(), event.get(), &interest), 0);
    EXPECT_EQ(System::EPollCtlMod(epoll.get(), event.get(), &interest), 0);
    EXPECT_TRUE(logs.unified().empty());
    EXPECT_EQ(System::EPollCtlAdd(epoll.get(), event.get(), &interest), -EEXIST);
    EXPECT_EQ(System::EPollCtlDel(epoll.get(), event.get(), nullptr), 0);
    EXPECT_EQ(System::EPollCtlDel(epoll.get(), event.get(), nullptr), -ENOENT);
    EXPECT_EQ(System::EPollCtlMod(epoll.get(), event.get(), &interest), -ENOENT);
    const std::string args = n(epoll.get()) + ", ";
    const std::string fd = n(event.get());
    EXPECT_EQ(logs.unifiedTexts(),
              (Lines{"[EPollCtlAdd] epoll_ctl(" + args + "EPOLL_CTL_ADD, " + fd +
                         ") return -1: err=-17(File exists)",
                     "[EPollCtlDel] epoll_ctl(" + args + "EPOLL_CTL_DEL, " + fd +
                         ") return -1: err=-2(No such file or directory)",
                     "[EPollCtlMod] epoll_ctl(" + args + "EPOLL_CTL_MOD, " + fd +
                         ") return -1: err=-2(No such file or directory)"}));
}

TEST(EventCall, WaitResultsAndBadDescriptor) {
    UniqueFd epoll(::epoll_create1(EPOLL_CLOEXEC));
    UniqueFd event(::eventfd(1, EFD_CLOEXEC));
    epoll_event interest{EPOLLIN, {}};
    epoll_event ready[2];
    LogCapture logs(unifiedOnly());
    EXPECT_EQ(System::EPollWait(epoll.get(), ready, 2, 0), 0);
    ASSERT_EQ(System::EPollCtlAdd(epoll.get(), event.get(), &interest), 0);
    EXPECT_EQ(System::EPollWait(epoll.get(), ready, 2, 0), 1);
    EXPECT_TRUE(logs.unified().empty());
    EXPECT_EQ(System::EPollWait(event.get(), ready, 2, 0), -EINVAL);
    EXPECT_EQ(logs.unifiedTexts(),
              Lines{"[EPollWait] epoll_wait(" + n(event.get()) +
                    ", maxevents=2, timeout=0) return -1: err=-22(Invalid argument)"});
    logs.clear();
    const int closed = event.get();
    event.reset();
    EXPECT_EQ(System::EPollWait(closed, ready, 2, 0), -EBADF);
    EXPECT_EQ(logs.unifiedTexts(),
              Lines{"[EPollWait] epoll_wait(" + n(closed) +
                    ", maxevents=2, timeout=0) return -1: err=-9(Bad file descriptor)"});
}

void ignoreSignal(int) {}

TEST(EventCall, InterruptedWaitIsSilent) {
    struct sigaction handler {};
    handler.sa_handler = ignoreSignal;  // no SA_RESTART: the wait returns EINTR
    struct sigaction previous {};
    ASSERT_EQ(::sigaction(SIGUSR1, &handler, &previous), 0);
    UniqueFd epoll(::epoll_create1(EPOLL_CLOEXEC));
    epoll_event ready[1];
    LogCapture logs;
    std::atomic<bool> done{false};
    const pthread_t waiter = pthread_self();
    // Repeats the signal: one sent before the wait began would be lost.
    std::thread sender([&] {
        while (!done.load()) {
            pthread_kill(waiter, SIGUSR1);
            std::this_thread::sleep_for(kSignalRetry);
        }
    });
    EXPECT_EQ(System::EPollWait(epoll.get(), ready, 1, kLongWaitMs), -EINTR);
    done.store(true);
    sender.join();
    ::sigaction(SIGUSR1, &previous, nullptr);
    EXPECT_TRUE(logs.unified().empty());
    EXPECT_TRUE(logs.debugPrint().empty());
}

TEST(EventCall, TimerSetAndGetTime) {
    UniqueFd timer(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC));
    const itimerspec setting{{0, 0}, {100, 0}};
    itimerspec current{};
    LogCapture logs(unifiedOnly());
    EXPECT_EQ(System::TimerFDSetTime(timer.get(), 0, &setting, nullptr), 0);
    EXPECT_EQ(System::TimerFDGetTime(timer.get(), &current), 0);
    EXPECT_GT(current.it_value.tv_sec, 0);
    EXPECT_TRUE(logs.unified().empty());
    const int closed = timer.get();
    timer.reset();
    EXPECT_EQ(System::TimerFDSetTime(closed, 0, &setting, nullptr), -EBADF);
    EXPECT_EQ(System::TimerFDGetTime(closed, &current), -EBADF);
    EXPECT_EQ(logs.unifiedTexts(), (Lines{"[TimerFDSetTime] timerfd_settime(" + n(closed) +
                                              ") return -1: err=-9(Bad file descriptor)",
                                          "[TimerFDGetTime] timerfd_gettime(" + n(closed) +
                                              ") return -1: err=-9(Bad file descriptor)"}));
}

}  // namespace
