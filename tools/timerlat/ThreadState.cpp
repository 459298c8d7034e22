#include "ThreadState.h"

#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include "Options.h"

namespace tavrel::timerlat {
namespace {

int32_t stackPolicyOf(int policy) {
    switch (policy & ~SCHED_RESET_ON_FORK) {
        case SCHED_FIFO:
            return kFifo;
        case SCHED_RR:
            return kRoundRobin;
        case SCHED_OTHER:
            return kOther;
        case SCHED_BATCH:
            return kBatch;
    }
    return -1;
}

// Kernel-style CPU list of a set: ranges of neighbours joined by a dash.
std::string cpuList(const cpu_set_t& set) {
    std::string list;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (!CPU_ISSET(cpu, &set)) continue;
        int last = cpu;
        while (last + 1 < CPU_SETSIZE && CPU_ISSET(last + 1, &set)) ++last;
        if (!list.empty()) list += ",";
        list += std::to_string(cpu);
        if (last > cpu) list += "-" + std::to_string(last);
        cpu = last;
    }
    return list;
}

}  // namespace

ThreadState observeThisThread() {
    ThreadState state;
    state.seen = true;
    state.policy = stackPolicyOf(sched_getscheduler(0));
    if (state.policy == kFifo || state.policy == kRoundRobin) {
        sched_param param{};
        sched_getparam(0, &param);
        state.priority = param.sched_priority;
    } else {
        state.priority = getpriority(PRIO_PROCESS, static_cast<id_t>(gettid()));
    }
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof(set), &set) == 0) state.cpus = cpuList(set);
    return state;
}

std::string describe(const ThreadState& state) {
    if (!state.seen) return "policy ?  priority ?  cpus ? (no callback ran)";
    const bool realTime = state.policy == kFifo || state.policy == kRoundRobin;
    return std::string("policy ") + policyName(state.policy) +
           (realTime ? "  priority " : "  nice ") + std::to_string(state.priority) + "  cpus " +
           state.cpus;
}

}  // namespace tavrel::timerlat
