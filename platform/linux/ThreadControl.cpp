// Thread control of Linux hosts: thread ids, the stack's scheduling numbers
// (tavrel::host::StackPolicy) mapped onto the Linux scheduler, thread names and the CPU
// affinity property.
//
// Any other policy, or a priority outside its policy's range, is refused with -EINVAL.
// Without CAP_SYS_NICE the kernel accepts a nice value at or above the thread's current
// one (or down to the RLIMIT_NICE ceiling) and a real-time priority up to RLIMIT_RTPRIO;
// anything else is refused with -EPERM. The monitor's default, policy 1 with priority 6,
// therefore needs no privilege from a thread running at the usual nice 0.
#include "tavrel/platform/ThreadControl.h"

#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "HostKeys.h"
#include "PropertyReport.h"
#include "tavrel/platform/Properties.h"

namespace {

// Room for a CPU list property ("0-3,6,8-11").
constexpr unsigned long kAffinityValueSize = 256;
// The kernel keeps 15 characters of a thread name, plus the terminator.
constexpr size_t kThreadNameSize = 16;

constexpr int kMinNice = -20;
constexpr int kMaxNice = 19;
constexpr int kMinRtPriority = 1;
constexpr int kMaxRtPriority = 99;

// The kernel's struct sched_attr, first version; the C library has no wrapper for it.
struct SchedAttr {
    uint32_t size;           // of this structure, for the kernel's versioning
    uint32_t schedPolicy;    // SCHED_*
    uint64_t schedFlags;     // none used
    int32_t schedNice;       // nice value of the normal classes
    uint32_t schedPriority;  // real-time priority
    uint64_t schedRuntime;   // deadline class only
    uint64_t schedDeadline;  // deadline class only
    uint64_t schedPeriod;    // deadline class only
};

// Translates the stack's numbers; false when they are out of range.
bool toSchedAttr(int policy, int priority, SchedAttr* attr) {
    *attr = SchedAttr{};
    attr->size = sizeof(SchedAttr);
    switch (policy) {
        case tavrel::host::kBatch:
        case tavrel::host::kOther:
            if (priority < kMinNice || priority > kMaxNice) return false;
            attr->schedPolicy = policy == tavrel::host::kBatch ? SCHED_BATCH : SCHED_OTHER;
            attr->schedNice = priority;
            return true;
        case tavrel::host::kFifo:
        case tavrel::host::kRoundRobin:
            if (priority < kMinRtPriority || priority > kMaxRtPriority) return false;
            attr->schedPolicy = policy == tavrel::host::kFifo ? SCHED_FIFO : SCHED_RR;
            attr->schedPriority = static_cast<uint32_t>(priority);
            return true;
        default:
            return false;
    }
}

// Parses a non-negative decimal number at `*cursor`, advancing it.
bool parseCpu(const char** cursor, long* cpu) {
    if (**cursor < '0' || **cursor > '9') return false;
    char* end = nullptr;
    errno = 0;
    *cpu = strtol(*cursor, &end, 10);
    if (errno != 0 || *cpu >= CPU_SETSIZE) return false;
    *cursor = end;
    return true;
}

// Parses a kernel-style CPU list ("0-1,3"): comma-separated numbers and ascending ranges,
// no blanks. False for anything else, the empty list included.
bool parseCpuList(const char* text, cpu_set_t* set) {
    CPU_ZERO(set);
    const char* cursor = text;
    while (true) {
        long first = 0;
        if (!parseCpu(&cursor, &first)) return false;
        long last = first;
        if (*cursor == '-') {
            ++cursor;
            if (!parseCpu(&cursor, &last) || last < first) return false;
        }
        for (long cpu = first; cpu <= last; ++cpu) CPU_SET(static_cast<size_t>(cpu), set);
        if (*cursor == '\0') return true;
        if (*cursor != ',') return false;
        ++cursor;
    }
}

}  // namespace

namespace NSCam::Thread {

int getThisThread() {
    return static_cast<int>(gettid());
}

int setThreadPriority(int tid, int priority, int policy) {
    SchedAttr attr;
    if (!toSchedAttr(policy, priority, &attr)) return -EINVAL;
    // One call sets class and level together, so a refusal leaves both as they were.
    const unsigned int kNoFlags = 0;
    if (syscall(SYS_sched_setattr, tid, &attr, kNoFlags) != 0) return -errno;
    return 0;
}

}  // namespace NSCam::Thread

void customizeThreadReadyToRun(const char* name, size_t length) {
    char threadName[kThreadNameSize] = {};
    memcpy(threadName, name, std::min(length, kThreadNameSize - 1));
    prctl(PR_SET_NAME, threadName);
}

extern "C" int zelcam_perfctrl_set_affinity() {
    char value[kAffinityValueSize] = {};
    if (!tavrel::host::property_get(tavrel::host::kAffinityKey, value, sizeof(value)) ||
        value[0] == '\0') {
        return 0;
    }
    cpu_set_t set;
    if (!parseCpuList(value, &set)) {
        tavrel::host::reportBadValue(tavrel::host::kAffinityKey, value, "a CPU list such as 0-1,3");
        return -EINVAL;
    }
    if (sched_setaffinity(0, sizeof(set), &set) != 0) return -errno;
    return 0;
}
