// What every event-loop backend of the comparison offers: start a loop on its own thread
// that runs Workload::onReadable for each readable pair; stop it by destroying it.
#pragma once

#include <pthread.h>

#include <memory>
#include <string_view>
#include <vector>

#include "Workload.h"

namespace tavrel::bench {

// A loop running on its own thread with every pair of the workload registered. The
// destructor ends the thread, joins it and unregisters everything.
class RunningLoop {
public:
    virtual ~RunningLoop() = default;

    // The thread the loop runs on, whose CPU time the rounds are charged with.
    virtual pthread_t thread() = 0;
};

using StartLoop = std::unique_ptr<RunningLoop> (*)(Workload& workload);

struct Backend {
    std::string_view name;
    StartLoop start;
};

std::unique_ptr<RunningLoop> startRawEpoll(Workload& workload);
std::unique_ptr<RunningLoop> startEpollMonitor(Workload& workload);
std::unique_ptr<RunningLoop> startLibevent(Workload& workload);
std::unique_ptr<RunningLoop> startLibev(Workload& workload);
std::unique_ptr<RunningLoop> startLibuv(Workload& workload);

// Every backend, the raw loop (the floor that ratios are taken against) first.
const std::vector<Backend>& allBackends();

}  // namespace tavrel::bench
