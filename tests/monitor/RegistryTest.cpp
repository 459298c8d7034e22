// The observer registry and the state dump it feeds.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <mutex>
#include <string>
#include <vector>

#include "common/LogCapture.h"
#include "monitor/MonitorTestSupport.h"
#include "tavrel/ThreadDriver.h"
#include "tavrel/platform/Properties.h"
#include "tavrel/platform/Trace.h"

namespace tavrel::test {
namespace {

using tavrel::host::ThreadDriver;
using testing::AllOf;
using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsSupersetOf;
using testing::Not;

// A descriptor number far above what the test program opens.
constexpr int kReusedFd = 300;

std::string observerEntry(const EventFdObserver& observer) {
    return "(" + std::to_string(observer.getEventFD()) + ", " + pointerText(&observer) + ")";
}

std::string configText(const EpollMonitor& monitor) {
    return "{ " + monitor.getName() + " .mEpollFd=" + std::to_string(monitor.getEpollFd()) +
           " .mEventFd=" + std::to_string(monitor.getEventFD()) + " }";
}

TEST(MonitorDump, FollowsTheWorkedExample) {
    auto monitor = makeMonitor("camA");
    EventFdObserver first, detached, last;
    monitor->attach(&first, EPOLLIN);
    monitor->attach(&detached, EPOLLIN);
    monitor->attach(&last, EPOLLIN);
    monitor->detach(&detached);

    LinePrinter printer;
    monitor->dumpState(&printer);
    const std::string config = "P2DrvEP-camA: logv:0 " + configText(*monitor);
    const std::string head = "    { #attach=3 #detach=1 .mActive=1 .mFdObserverMap={ attach=[ ";
    const std::string tail = " ] detach=[ " + std::to_string(detached.getEventFD()) + " ] } }";
    // The map keeps no order.
    EXPECT_THAT(
        printer.lines,
        AnyOf(ElementsAre(config, head + observerEntry(first) + " " + observerEntry(last) + tail),
              ElementsAre(config, head + observerEntry(last) + " " + observerEntry(first) + tail)));
    EXPECT_EQ(monitor->determineFdObserverCount(), 2u);
}

TEST(MonitorDump, FreshMonitorNamesAndLogv) {
    EXPECT_EQ(makeMonitor(nullptr)->getName(), "P2DrvEP-?");
    // The logv property is read at construction.
    for (const char* logv : {static_cast<const char*>(nullptr), "true"}) {
        SCOPED_TRACE(logv != nullptr ? logv : "unset");
        auto monitor = makeMonitor("fresh", logv);
        const int expectedLogv = logv != nullptr ? 1 : 0;
        EXPECT_EQ(monitor->getName(), "P2DrvEP-fresh");
        EXPECT_GE(monitor->getEpollFd(), 0);
        EXPECT_GE(monitor->getEventFD(), 0);
        EXPECT_TRUE(monitor->isActive());
        EXPECT_EQ(monitor->getLogv(), expectedLogv);
        EXPECT_EQ(monitor->determineFdObserverCount(), 0u);
        LinePrinter printer;
        monitor->dumpState(&printer);
        EXPECT_EQ(
            printer.lines,
            (std::vector<std::string>{
                "P2DrvEP-fresh: logv:" + std::to_string(expectedLogv) + " " + configText(*monitor),
                "    { #attach=0 #detach=0 .mActive=1 .mFdObserverMap={ } }"}));
    }
}

// Collects trace markers.
class TraceRecorder {
public:
    TraceRecorder() {
        tavrel::host::setTraceSink(&TraceRecorder::record, this);
        tavrel::host::setTavrelTraceBits(~uint64_t{0});
        tavrel::host::setAtraceEnabledTags(0x400);
    }
    ~TraceRecorder() {
        tavrel::host::setTavrelTraceBits(0);
        tavrel::host::setAtraceEnabledTags(0);
        tavrel::host::setTraceSink(nullptr, nullptr);
    }
    // Every marker so far, in arrival order, without this process's pid.
    std::vector<std::string> markers() {
        std::lock_guard<std::mutex> lock(mMutex);
        return mMarkers;
    }

private:
    static void record(void* cookie, const char* marker) {
        auto* self = static_cast<TraceRecorder*>(cookie);
        std::string text = marker;
        const std::string pid = "|" + std::to_string(getpid()) + "|";
        if (text.find(pid) == 1) text.replace(1, pid.size(), "|");
        std::lock_guard<std::mutex> lock(self->mMutex);
        self->mMarkers.push_back(text);
    }
    std::mutex mMutex;                  // markers arrive on the monitor thread too
    std::vector<std::string> mMarkers;  // in arrival order
};

TEST(MonitorTrace, NamesCounterSpanAndDispatchSectionsWholeOrNotAtAll) {
    TraceRecorder trace;
    auto monitor = makeMonitor("tr");
    EventFdObserver observer;
    const std::string fd = std::to_string(observer.getEventFD());
    {
        ThreadDriver driver(monitor);  // stopped before the observer goes
        monitor->attach(&observer, EPOLLIN);
        monitor->modify(&observer, EPOLLIN | EPOLLET);
        observer.signal();
        ASSERT_TRUE(observer.waitForEvents(1));
        monitor->detach(&observer);
    }
    EXPECT_THAT(trace.markers(),
                IsSupersetOf<std::string>(
                    {"B|P2DrvEP-tr::attachObserver", "C|P2DrvEP-tr-#FdObserverCount|1",
                     "S|P2DrvEP-tr-FdObserver|" + fd, "B|P2DrvEP-tr::modifyObserver",
                     "B|NOTIFY_READY fd:" + fd, "B|P2DrvEP-tr::detachObserver",
                     "C|P2DrvEP-tr-#FdObserverCount|0", "F|P2DrvEP-tr-FdObserver|" + fd,
                     "B|P2DrvEP-tr::requestExit"}));

    // A run-time trace name is written whole or not at all: "P2DrvEP-" + name +
    // "::requestExit" fits its 128-byte buffer up to 127 characters.
    const std::string longest(106, 'n');
    makeMonitor(longest.c_str())->requestExit();
    EXPECT_THAT(trace.markers(),
                AllOf(Contains("B|P2DrvEP-" + longest + "::requestExit"), Not(Contains("B|"))));
    makeMonitor((longest + "n").c_str())->requestExit();
    EXPECT_THAT(trace.markers(), Contains("B|"));
}

TEST(MonitorRegistry, ReusedDescriptorBelongsToItsNewObserver) {
    auto monitor = makeMonitor("reuse");
    auto first = std::make_unique<EventFdObserver>(kReusedFd);
    std::unique_ptr<EventFdObserver> second;
    ThreadDriver driver(monitor);
    monitor->attach(first.get(), EPOLLIN);
    monitor->detach(first.get());
    first.reset();
    second = std::make_unique<EventFdObserver>(kReusedFd);
    monitor->attach(second.get(), EPOLLIN);

    second->signal();
    EXPECT_TRUE(second->waitForEvents(1));
    LinePrinter printer;
    monitor->dumpState(&printer);
    EXPECT_EQ(printer.lines.at(1),
              "    { #attach=2 #detach=1 .mActive=1 .mFdObserverMap={ attach=[ " +
                  observerEntry(*second) + " ] } }");
    EXPECT_EQ(monitor->determineFdObserverCount(), 1u);
    monitor->detach(second.get());
}

TEST(MonitorRegistry, ObserversAttachAndDetachFromOnEvent) {
    auto monitor = makeMonitor("inside");
    EventFdObserver selfDetaching, attacher, attached;
    ThreadDriver driver(monitor);
    selfDetaching.setHook([&](IEventObserver::OnEvent const& event) {
        EXPECT_EQ(event.monitor, monitor.get());
        EXPECT_EQ(event.events, static_cast<uint32_t>(EPOLLIN));
        event.monitor->detach(&selfDetaching);
    });
    attacher.setHook(
        [&](IEventObserver::OnEvent const& event) { event.monitor->attach(&attached, EPOLLIN); });
    monitor->attach(&selfDetaching, EPOLLIN);
    monitor->attach(&attacher, EPOLLIN);

    selfDetaching.signal();
    attacher.signal();
    ASSERT_TRUE(selfDetaching.waitForEvents(1));
    ASSERT_TRUE(attacher.waitForEvents(1));
    attached.signal();
    EXPECT_TRUE(attached.waitForEvents(1));
    EXPECT_EQ(monitor->determineFdObserverCount(), 2u);
    monitor->detach(&attacher);
    monitor->detach(&attached);
}

TEST(MonitorRegistry, DetachAfterOwnerClosedTheDescriptorStillCounts) {
    auto monitor = makeMonitor("closed");
    EventFdObserver observer;
    const std::string fd = std::to_string(observer.getEventFD());
    monitor->attach(&observer, EPOLLIN);
    observer.closeFd();
    {
        LogCapture capture;
        monitor->detach(&observer);
        EXPECT_TRUE(contains(capture.unifiedTexts(), "[operator()] EPOLL_CTL_DEL fd=" + fd +
                                                         " err=-9(Bad file descriptor)"));
    }
    EXPECT_EQ(monitor->determineFdObserverCount(), 0u);
}

}  // namespace
}  // namespace tavrel::test
