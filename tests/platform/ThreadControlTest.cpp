// Thread control: ids, the policy mapping, refusals that change nothing, names, affinity.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "ChildProcess.h"
#include "tavrel/platform/Properties.h"
#include "tavrel/platform/ThreadControl.h"

namespace {

using NSCam::Thread::getThisThread;
using NSCam::Thread::setThreadPriority;
using tavrel::test::readFile;

constexpr const char* kAffinityKey = "tavrel.host.perfctrl.affinity";

// Runs `body` on a fresh thread, so that scheduling changes die with it.
template <typename Body>
void onFreshThread(Body body) {
    std::thread(body).join();
}

struct Scheduling {
    int policy;
    int nice;
    bool operator==(const Scheduling& other) const {
        return policy == other.policy && nice == other.nice;
    }
};

Scheduling schedulingOf(int tid) {
    errno = 0;
    return {sched_getscheduler(tid), getpriority(PRIO_PROCESS, tid)};
}

TEST(ThreadControlTest, ThisThreadIsTheKernelThreadId) {
    EXPECT_EQ(getThisThread(), gettid());
    int other = 0;
    onFreshThread([&] { other = getThisThread(); });
    EXPECT_NE(other, getThisThread());
    EXPECT_GT(other, 0);
}

TEST(ThreadControlTest, NormalPoliciesSetClassAndNiceValue) {
    Scheduling monitorDefault{};
    Scheduling batch{};
    int results[2] = {-1, -1};
    onFreshThread([&] {
        results[0] = setThreadPriority(getThisThread(), 6, 1);
        monitorDefault = schedulingOf(getThisThread());
        results[1] = setThreadPriority(getThisThread(), 9, 0);
        batch = schedulingOf(getThisThread());
    });
    EXPECT_EQ(results[0], 0);
    EXPECT_EQ(monitorDefault, (Scheduling{SCHED_OTHER, 6}));
    EXPECT_EQ(results[1], 0);
    EXPECT_EQ(batch, (Scheduling{SCHED_BATCH, 9}));
}

TEST(ThreadControlTest, NumbersOutsideTheMappingAreRefused) {
    onFreshThread([] {
        const Scheduling before = schedulingOf(getThisThread());
        EXPECT_EQ(setThreadPriority(getThisThread(), 0, 4), -EINVAL);
        EXPECT_EQ(setThreadPriority(getThisThread(), 20, 1), -EINVAL);
        EXPECT_EQ(setThreadPriority(getThisThread(), -21, 0), -EINVAL);
        EXPECT_EQ(setThreadPriority(getThisThread(), 0, 2), -EINVAL);
        EXPECT_EQ(setThreadPriority(getThisThread(), 100, 3), -EINVAL);
        EXPECT_EQ(schedulingOf(getThisThread()), before);
    });
}

// Child mode: gives up every privilege (real-time limit 0; as root, also the user), then
// asks for real-time and for a lower nice value, and reports results and what changed.
void tryWithoutPrivilege() {
    const rlimit none{0, 0};
    if (setrlimit(RLIMIT_RTPRIO, &none) != 0 || setrlimit(RLIMIT_NICE, &none) != 0) {
        printf("cannot lower limits: %s\n", strerror(errno));
        return;
    }
    constexpr uid_t kNobody = 65534;
    if (getuid() == 0 && (setgid(kNobody) != 0 || setuid(kNobody) != 0)) {
        printf("cannot drop root: %s\n", strerror(errno));
        return;
    }
    const int tid = getThisThread();
    if (setThreadPriority(tid, 5, 1) != 0) {
        printf("cannot raise nice\n");
        return;
    }
    const Scheduling before = schedulingOf(tid);
    const int fifo = setThreadPriority(tid, 10, 2);
    const int roundRobin = setThreadPriority(tid, 10, 3);
    const int lowerNice = setThreadPriority(tid, 0, 1);
    const Scheduling after = schedulingOf(tid);
    printf("fifo=%d rr=%d nice=%d policy=%d/%d nice=%d/%d\n", fifo, roundRobin, lowerNice,
           before.policy, after.policy, before.nice, after.nice);
}
const tavrel::test::ChildMode kWithoutPrivilege("thread-without-privilege", tryWithoutPrivilege);

TEST(ThreadControlTest, RefusedRequestReturnsErrorAndChangesNothing) {
    tavrel::test::TempDir dir;
    const auto child = tavrel::test::runChild("thread-without-privilege", {}, dir);
    ASSERT_EQ(child.status, 0) << child.err;
    EXPECT_EQ(child.out, "fifo=-1 rr=-1 nice=-1 policy=0/0 nice=5/5\n");
}

std::string commOf(int tid) {
    return readFile("/proc/self/task/" + std::to_string(tid) + "/comm");
}

TEST(ThreadControlTest, ReadyToRunNamesTheThreadWithinTheKernelsLimit) {
    std::string longName;
    std::string shortName;
    onFreshThread([&] {
        const std::string name = "P2DrvEP-camera-timer-monitor";
        customizeThreadReadyToRun(name.data(), name.size());
        longName = commOf(getThisThread());
        const char unterminated[] = {'P', '2', 'D', 'r', 'v', 'X', 'Y', 'Z'};
        customizeThreadReadyToRun(unterminated, 5);
        shortName = commOf(getThisThread());
    });
    EXPECT_EQ(longName, "P2DrvEP-camera-\n");
    EXPECT_EQ(shortName, "P2Drv\n");
}

// Runs zelcam_perfctrl_set_affinity() on a fresh thread with the property set to `list`
// (null: unset) and returns its result and the thread's affinity afterwards.
int applyAffinity(const char* list, cpu_set_t* after) {
    tavrel::host::property_set(kAffinityKey, list);
    int result = 1;
    onFreshThread([&] {
        result = zelcam_perfctrl_set_affinity();
        sched_getaffinity(0, sizeof(*after), after);
    });
    tavrel::host::property_set(kAffinityKey, nullptr);
    return result;
}

TEST(ThreadControlTest, AffinityComesFromTheCpuListProperty) {
    cpu_set_t allowed;
    ASSERT_EQ(sched_getaffinity(0, sizeof(allowed), &allowed), 0);
    int first = 0;
    while (!CPU_ISSET(first, &allowed)) ++first;
    cpu_set_t only;
    CPU_ZERO(&only);
    CPU_SET(first, &only);

    cpu_set_t after;
    EXPECT_EQ(applyAffinity(std::to_string(first).c_str(), &after), 0);
    EXPECT_TRUE(CPU_EQUAL(&after, &only));
    const std::string range = std::to_string(first) + "-" + std::to_string(first) + ",1023";
    EXPECT_EQ(applyAffinity(range.c_str(), &after), 0);
    EXPECT_TRUE(CPU_EQUAL(&after, &only));
    EXPECT_EQ(applyAffinity(nullptr, &after), 0);
    EXPECT_TRUE(CPU_EQUAL(&after, &allowed));
}

TEST(ThreadControlTest, BadCpuListIsRefusedAndChangesNothing) {
    cpu_set_t allowed;
    ASSERT_EQ(sched_getaffinity(0, sizeof(allowed), &allowed), 0);
    for (const char* list : {"1-0", "0,", ",0", "x", " 0", "0-", "0;1", "1024", "-1"}) {
        cpu_set_t after;
        EXPECT_EQ(applyAffinity(list, &after), -EINVAL) << list;
        EXPECT_TRUE(CPU_EQUAL(&after, &allowed)) << list;
    }
}

}  // namespace
