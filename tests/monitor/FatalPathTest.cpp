// Every way the monitor ends the process: misuse of the registry dumps the state under the
// operation's name first; broken dispatch invariants report at once.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>

#include "monitor/MonitorTestSupport.h"
#include "tavrel/platform/Fdsan.h"
#include "tavrel/platform/ULogger.h"

namespace tavrel::test {
namespace {

using NSCam::Utils::ULog::ULogger;
using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

// Descriptor numbers far above what the test program opens, so that they are the same in
// the re-run child of a death test.
constexpr int kFirstFd = 200;
constexpr int kSecondFd = 201;

// A monitor to misuse, reporting on the Android-log route only: the error printer's lines
// then carry their prefix.
std::shared_ptr<EpollMonitor> monitorToMisuse() {
    ULogger::sMode.store(1);
    return makeMonitor("fatal");
}

// What misuse under `op` prints: its message line, if any, the dump with the registry line
// `registry`, then the fatal report.
std::string misuseReport(const std::string& op, const std::string& message,
                         const std::string& registry) {
    return (message.empty() ? "" : errorPrinterLine(op, message) + ".*") +
           errorPrinterLine(op,
                            "P2DrvEP-fatal: logv:0 { P2DrvEP-fatal .mEpollFd=@N .mEventFd=@N }") +
           ".*" + errorPrinterLine(op, "    { " + registry + " }") + ".*" +
           fatalLine(op, "[" + op + "] FATAL");
}

TEST(MonitorFatalPathDeathTest, SecondAttachOfADescriptorDumpsAndEnds) {
    EXPECT_DEATH(
        {
            auto monitor = monitorToMisuse();
            EventFdObserver observer(kFirstFd);
            monitor->attach(&observer, EPOLLIN);
            monitor->attach(&observer, EPOLLIN);
        },
        ContainsRegex(misuseReport(
            "attach", "(200, @P) has existed",
            "#attach=2 #detach=0 .mActive=1 .mFdObserverMap={ attach=[ (200, @P) ] }")));
}

TEST(MonitorFatalPathDeathTest, UnknownDetachLeavesANullEntryInTheDump) {
    EXPECT_DEATH(
        {
            auto monitor = monitorToMisuse();
            EventFdObserver attached(kFirstFd);
            EventFdObserver stranger(kSecondFd);
            monitor->attach(&attached, EPOLLIN);
            monitor->detach(&stranger);
        },
        ContainsRegex(misuseReport("detach", "(201, @P) not found",
                                   "#attach=1 #detach=0 .mActive=1 .mFdObserverMap={ attach=[ "
                                   "(200, @P) ] detach=[ 201 ] }")));
}

// A detached descriptor keeps its null entry; the kernel refuses to modify it, and modify
// prints the dump without a message line of its own.
TEST(MonitorFatalPathDeathTest, RefusedModifyDumpsWithoutMessageLine) {
    EXPECT_DEATH(
        {
            auto monitor = monitorToMisuse();
            EventFdObserver observer(kFirstFd);
            monitor->attach(&observer, EPOLLIN);
            monitor->detach(&observer);
            monitor->modify(&observer, EPOLLIN | EPOLLET);
        },
        AllOf(
            ContainsRegex(misuseReport(
                "modify", "", "#attach=1 #detach=1 .mActive=1 .mFdObserverMap={ detach=[ 200 ] }")),
            Not(HasSubstr("modify(200"))));
}

TEST(MonitorFatalPathDeathTest, ReadyEntryWithoutObserverEnds) {
    EXPECT_DEATH(
        {
            auto monitor = makeMonitor("fatal");
            EventFdObserver observer;
            struct epoll_event event {};
            event.events = EPOLLIN;
            event.data.ptr = nullptr;
            epoll_ctl(monitor->getEpollFd(), EPOLL_CTL_ADD, observer.getEventFD(), &event);
            observer.signal();
            monitor->threadLoop();
        },
        ContainsRegex(fatalLine("handleEvents", "[handleEvents] Bad observer")));
}

TEST(MonitorFatalPathDeathTest, WaitOnAClosedEpollInstanceEnds) {
    EXPECT_DEATH(
        {
            auto monitor = makeMonitor("fatal");
            // The descriptor is the monitor's: its plain close would end the child first.
            tavrel::host::setFdsanReaction(tavrel::host::FdsanReaction::kOff);
            close(monitor->getEpollFd());
            monitor->threadLoop();
        },
        ContainsRegex(fatalLine("tryEpoll", "[tryEpoll] err=-9(Bad file descriptor)")));
}

}  // namespace
}  // namespace tavrel::test
