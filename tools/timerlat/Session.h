// One measuring run: a monitor on a thread of its own, the probes' timers attached to it.
#pragma once

#include <atomic>
#include <ostream>
#include <vector>

#include "Options.h"
#include "Report.h"

namespace tavrel::timerlat {

struct SessionResult {
    double elapsedSec = 0;            // from arming the timers to stopping the monitor
    std::vector<TimerResult> timers;  // one per timer, in index order
    ThreadState thread;               // the monitor thread, from the first callback that ran
};

// Runs until the loops are done, the duration is over or `interrupted` is set. With
// `progress` non-null, keeps one line of progress on it. Tears everything down. The
// monitor thread gets the options' policy and priority from its driver (when not given,
// SCHED_OTHER at the caller's nice value), and the CPU list of requestAffinity
// (HostTuning.h) in its readyToRun.
SessionResult runSession(const Options& options, const std::atomic<bool>& interrupted,
                         std::ostream* progress);

}  // namespace tavrel::timerlat
