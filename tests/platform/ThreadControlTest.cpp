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
#include <tuple>
#include <utility>

#include "ChildProcess.h"
#include "tavrel/platform/Properties.h"
#include "tavrel/platform/ThreadControl.h"

namespace tavrel::test {
namespace {

using NSCam::Thread::getThisThread;
using NSCam::Thread::setThreadPriority;

constexpr const char* kAffinityKey = "tavrel.host.perfctrl.affinity";

// Runs `body` on a fresh thread, so that scheduling changes die with it.
template <typename Body>
void onFreshThread(Body body) {
    std::thread(body).join();
}

// A thread's scheduling class and nice value.
using Scheduling = std::pair<int, int>;

Scheduling schedulingOf(int tid) {
    errno = 0;
    return {sched_getscheduler(tid), getpriority(PRIO_PROCESS, tid)};
}

// Each request in turn on one thread, and its scheduling after it: the normal policies set
// the class and the nice value, numbers outside the mapping are refused and change nothing.
TEST(ThreadControlTest, NormalPoliciesSetClassAndNiceValueAndOtherNumbersAreRefused) {
    struct Request {
        int priority;
        int policy;
        int result;
        Scheduling after;
    };
    const Request requests[] = {
        {6, 1, 0, {SCHED_OTHER, 6}},         {9, 0, 0, {SCHED_BATCH, 9}},
        {0, 4, -EINVAL, {SCHED_BATCH, 9}},   {20, 1, -EINVAL, {SCHED_BATCH, 9}},
        {-21, 0, -EINVAL, {SCHED_BATCH, 9}}, {0, 2, -EINVAL, {SCHED_BATCH, 9}},
        {100, 3, -EINVAL, {SCHED_BATCH, 9}},
    };
    onFreshThread([&] {
        // The thread is named by its kernel id, not the process's or the library's own.
        ASSERT_EQ(getThisThread(), gettid());
        for (const Request& r : requests) {
            SCOPED_TRACE(std::to_string(r.priority) + "/" + std::to_string(r.policy));
            EXPECT_EQ(setThreadPriority(getThisThread(), r.priority, r.policy), r.result);
            EXPECT_EQ(schedulingOf(getThisThread()), r.after);
        }
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
           before.first, after.first, before.second, after.second);
}
const ChildMode kWithoutPrivilege("thread-without-privilege", tryWithoutPrivilege);

TEST(ThreadControlTest, RefusedRequestReturnsErrorAndChangesNothing) {
    TempDir dir;
    const auto child = runChild("thread-without-privilege", {}, dir);
    ASSERT_EQ(child.status, 0) << child.err;
    EXPECT_EQ(child.out, "fifo=-1 rr=-1 nice=-1 policy=0/0 nice=5/5\n");
}

std::string commOf(int tid) {
    return readFile("/proc/self/task/" + std::to_string(tid) + "/comm");
}

TEST(ThreadControlTest, ReadyToRunNamesTheThreadWithinTheKernelsLimit) {
    onFreshThread([] {
        const std::string name = "P2DrvEP-camera-timer-monitor";
        customizeThreadReadyToRun(name.data(), name.size());
        EXPECT_EQ(commOf(getThisThread()), "P2DrvEP-camera-\n");
        const char unterminated[] = {'P', '2', 'D', 'r', 'v', 'X', 'Y', 'Z'};
        customizeThreadReadyToRun(unterminated, 5);
        EXPECT_EQ(commOf(getThisThread()), "P2Drv\n");
    });
}

// Runs zelcam_perfctrl_set_affinity() on a fresh thread with the property set to `list`
// (null: unset) and returns its result and the thread's affinity afterwards.
int applyAffinity(const char* list, cpu_set_t* after) {
    host::property_set(kAffinityKey, list);
    int result = 1;
    onFreshThread([&] {
        result = zelcam_perfctrl_set_affinity();
        sched_getaffinity(0, sizeof(*after), after);
    });
    host::property_set(kAffinityKey, nullptr);
    return result;
}

// A list naming CPUs binds the thread to those it may use, an unset one leaves it as it was,
// and a malformed one is refused and changes nothing.
TEST(ThreadControlTest, AffinityComesFromTheCpuListProperty) {
    cpu_set_t allowed;
    ASSERT_EQ(sched_getaffinity(0, sizeof(allowed), &allowed), 0);
    int first = 0;
    while (!CPU_ISSET(first, &allowed)) ++first;
    cpu_set_t only;
    CPU_ZERO(&only);
    CPU_SET(first, &only);
    const std::string one = std::to_string(first);
    const std::string range = one + "-" + one + ",1023";
    const std::tuple<const char*, int, const cpu_set_t*> cases[] = {
        {one.c_str(), 0, &only},    {range.c_str(), 0, &only},   {nullptr, 0, &allowed},
        {"1-0", -EINVAL, &allowed}, {"0,", -EINVAL, &allowed},   {",0", -EINVAL, &allowed},
        {"x", -EINVAL, &allowed},   {" 0", -EINVAL, &allowed},   {"0-", -EINVAL, &allowed},
        {"0;1", -EINVAL, &allowed}, {"1024", -EINVAL, &allowed}, {"-1", -EINVAL, &allowed}};
    for (const auto& [list, result, expected] : cases) {
        SCOPED_TRACE(list != nullptr ? list : "unset");
        cpu_set_t after;
        EXPECT_EQ(applyAffinity(list, &after), result);
        EXPECT_TRUE(CPU_EQUAL(&after, expected));
    }
}

}  // namespace
}  // namespace tavrel::test
