// What readyToRun does to the thread it runs on, and what the host driver hands it.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/resource.h>

#include <cstdint>
#include <fstream>
#include <string>
#include <thread>
#include <tuple>

#include "monitor/MonitorTestSupport.h"
#include "tavrel/ThreadDriver.h"
#include "tavrel/platform/Properties.h"

namespace tavrel::test {
namespace {

using NSCam::NSTavrel::IThreadLoop;

constexpr const char* kPolicyKey = "persist.vendor.camera.tavrel.EpollMonitor.threadpolicy";
constexpr const char* kPriorityKey = "persist.vendor.camera.tavrel.EpollMonitor.threadpriority";
constexpr int32_t kNotGiven = INT32_MIN;
// The lowest nice value the cases below ask for (the property default).
constexpr int kLowestNiceUsed = 6;

// How the calling thread ended up: its name, policy and nice value.
using ThreadState = std::tuple<std::string, int, int>;

ThreadState thisThreadState() {
    std::ifstream comm("/proc/thread-self/comm");
    std::string name;
    std::getline(comm, name);
    return {name, sched_getscheduler(0), getpriority(PRIO_PROCESS, 0)};  // nice per thread on Linux
}

// Runs readyToRun on a fresh thread, which starts with the test thread's scheduling.
ThreadState stateAfterReadyToRun(EpollMonitor& monitor, std::string name, int32_t policy,
                                 int32_t priority) {
    IThreadLoop::ReadyToRun ready;
    ready.threadName = std::move(name);
    ready.policy = policy;
    ready.priority = priority;
    ThreadState state;
    std::thread([&] {
        EXPECT_EQ(monitor.readyToRun(ready), 0);
        state = thisThreadState();
    }).join();
    return state;
}

class MonitorReadyToRun : public testing::Test {
protected:
    void SetUp() override {
        clearProperties();
        // Without privilege a thread's nice value can only go up.
        if (mInheritedNice > kLowestNiceUsed) GTEST_SKIP() << "test runs above nice 6";
    }
    void TearDown() override { clearProperties(); }
    static void clearProperties() {
        tavrel::host::property_set(kPolicyKey, nullptr);
        tavrel::host::property_set(kPriorityKey, nullptr);
    }

    std::shared_ptr<EpollMonitor> mMonitor = makeMonitor("rtr");  // under test
    int mInheritedNice = getpriority(PRIO_PROCESS, 0);            // what new threads get
};

TEST_F(MonitorReadyToRun, NeitherGivenAppliesThePropertiesOrTheirDefaults) {
    EXPECT_EQ(stateAfterReadyToRun(*mMonitor, "", kNotGiven, kNotGiven),
              ThreadState("P2DrvEP-rtr", SCHED_OTHER, 6));
    tavrel::host::property_set(kPolicyKey, "0");     // SCHED_BATCH
    tavrel::host::property_set(kPriorityKey, "11");  // nice 11
    EXPECT_EQ(stateAfterReadyToRun(*mMonitor, "named", kNotGiven, kNotGiven),
              ThreadState("named", SCHED_BATCH, 11));
}

// Given values are the driver's to apply: the monitor leaves the scheduling alone, even
// when only one of them is given and the properties are set.
TEST_F(MonitorReadyToRun, AnyGivenValueLeavesSchedulingToTheDriver) {
    tavrel::host::property_set(kPolicyKey, "0");
    tavrel::host::property_set(kPriorityKey, "11");
    const std::pair<int32_t, int32_t> given[] = {{2, kNotGiven}, {kNotGiven, 5}, {1, 9}};
    for (const auto& [policy, priority] : given) {
        EXPECT_EQ(stateAfterReadyToRun(*mMonitor, "", policy, priority),
                  ThreadState("P2DrvEP-rtr", SCHED_OTHER, mInheritedNice));
    }
}

TEST_F(MonitorReadyToRun, HostDriverNamesTheThreadAndAppliesGivenScheduling) {
    EventFdObserver observer;
    ThreadState state;
    observer.setHook([&](IEventObserver::OnEvent const&) { state = thisThreadState(); });
    mMonitor->attach(&observer, EPOLLIN);
    {
        tavrel::host::ThreadDriver driver(mMonitor, "driven", 0, 12);
        observer.signal();
        ASSERT_TRUE(observer.waitForEvents(1));
    }
    EXPECT_EQ(state, ThreadState("driven", SCHED_BATCH, 12));
    mMonitor->detach(&observer);
}

}  // namespace
}  // namespace tavrel::test
