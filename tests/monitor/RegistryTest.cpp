// The observer registry and the state dump it feeds.
#include <gtest/gtest.h>
#include <sys/epoll.h>

#include <algorithm>
#include <regex>
#include <set>

#include "common/LogCapture.h"
#include "monitor/MonitorTestSupport.h"
#include "tavrel/platform/Properties.h"
#include "tavrel/platform/ThreadDriver.h"
#include "tavrel/platform/Trace.h"

namespace tavrel::test {
namespace {

using tavrel::host::ThreadDriver;

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

    ASSERT_EQ(printer.lines.size(), 2u);
    EXPECT_EQ(printer.lines[0], "P2DrvEP-camA: logv:0 " + configText(*monitor));
    std::smatch parts;
    ASSERT_TRUE(std::regex_match(
        printer.lines[1], parts,
        std::regex(R"(    \{ #attach=3 #detach=1 \.mActive=1 )"
                   R"(\.mFdObserverMap=\{ attach=\[((?: \(\d+, 0x[0-9a-f]+\))+) \])"
                   R"( detach=\[ (\d+) \] \} \})")))
        << printer.lines[1];
    const std::regex entry(R"(\(\d+, 0x[0-9a-f]+\))");
    const std::string attachList = parts[1];
    std::set<std::string> entries;
    for (std::sregex_iterator it(attachList.begin(), attachList.end(), entry), end; it != end;
         ++it) {
        entries.insert(it->str());
    }
    EXPECT_EQ(entries, (std::set<std::string>{observerEntry(first), observerEntry(last)}));
    EXPECT_EQ(parts[2], std::to_string(detached.getEventFD()));
    EXPECT_EQ(monitor->determineFdObserverCount(), 2u);
}

TEST(MonitorDump, FreshMonitorAndNames) {
    auto monitor = makeMonitor("fresh");
    EXPECT_EQ(monitor->getName(), "P2DrvEP-fresh");
    EXPECT_EQ(makeMonitor(nullptr)->getName(), "P2DrvEP-?");
    EXPECT_GE(monitor->getEpollFd(), 0);
    EXPECT_GE(monitor->getEventFD(), 0);
    EXPECT_TRUE(monitor->isActive());
    EXPECT_EQ(monitor->getLogv(), 0);
    EXPECT_EQ(monitor->determineFdObserverCount(), 0u);
    LinePrinter printer;
    monitor->dumpState(&printer);
    EXPECT_EQ(printer.lines, (std::vector<std::string>{
                                 "P2DrvEP-fresh: logv:0 " + configText(*monitor),
                                 "    { #attach=0 #detach=0 .mActive=1 .mFdObserverMap={ } }"}));
}

TEST(MonitorDump, LogvPropertyIsReadAtConstruction) {
    constexpr const char* kLogv = "persist.vendor.camera.tavrel.EpollMonitor.logv";
    tavrel::host::property_set(kLogv, "true");
    auto monitor = makeMonitor("verbose");
    tavrel::host::property_set(kLogv, nullptr);
    LinePrinter printer;
    monitor->dumpState(&printer);
    EXPECT_EQ(printer.lines.at(0), "P2DrvEP-verbose: logv:1 " + configText(*monitor));
}

// Collects trace markers without the pid.
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
    bool has(const std::string& kind, const std::string& rest) {
        std::lock_guard<std::mutex> lock(mMutex);
        const std::string prefix = kind + "|" + std::to_string(getpid()) + "|";
        for (const auto& marker : mMarkers) {
            if (marker == prefix + rest) return true;
        }
        return false;
    }

private:
    static void record(void* cookie, const char* marker) {
        auto* self = static_cast<TraceRecorder*>(cookie);
        std::lock_guard<std::mutex> lock(self->mMutex);
        self->mMarkers.emplace_back(marker);
    }
    std::mutex mMutex;                  // markers arrive on the monitor thread too
    std::vector<std::string> mMarkers;  // in arrival order
};

TEST(MonitorTrace, NamesCounterSpanAndDispatchSections) {
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
    EXPECT_TRUE(trace.has("B", "P2DrvEP-tr::attachObserver"));
    EXPECT_TRUE(trace.has("C", "P2DrvEP-tr-#FdObserverCount|1"));
    EXPECT_TRUE(trace.has("S", "P2DrvEP-tr-FdObserver|" + fd));
    EXPECT_TRUE(trace.has("B", "P2DrvEP-tr::modifyObserver"));
    EXPECT_TRUE(trace.has("B", "NOTIFY_READY fd:" + fd));
    EXPECT_TRUE(trace.has("B", "P2DrvEP-tr::detachObserver"));
    EXPECT_TRUE(trace.has("C", "P2DrvEP-tr-#FdObserverCount|0"));
    EXPECT_TRUE(trace.has("F", "P2DrvEP-tr-FdObserver|" + fd));
    EXPECT_TRUE(trace.has("B", "P2DrvEP-tr::requestExit"));
}

// A run-time trace name is written whole or not at all: "P2DrvEP-" + name + "::requestExit"
// fits its 128-byte buffer up to 127 characters.
TEST(MonitorTrace, RequestExitNameIsWholeOrEmpty) {
    TraceRecorder trace;
    const std::string longest(106, 'n');
    makeMonitor(longest.c_str())->requestExit();
    EXPECT_TRUE(trace.has("B", "P2DrvEP-" + longest + "::requestExit"));
    EXPECT_FALSE(trace.has("B", ""));
    makeMonitor((longest + "n").c_str())->requestExit();
    EXPECT_TRUE(trace.has("B", ""));
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
        const std::vector<std::string> texts = capture.unifiedTexts();
        EXPECT_NE(std::find(texts.begin(), texts.end(),
                            "[operator()] EPOLL_CTL_DEL fd=" + fd + " err=-9(Bad file descriptor)"),
                  texts.end());
    }
    EXPECT_EQ(monitor->determineFdObserverCount(), 0u);
}

}  // namespace
}  // namespace tavrel::test
