// What tavrel-timerlat prints: the live progress line, the report, cyclictest's histogram
// and the JSON summary.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "LatencyStats.h"
#include "Options.h"
#include "ThreadState.h"

namespace tavrel::timerlat {

// How the run went, as observed rather than as asked.
struct RunFacts {
    ThreadState thread;         // the monitor thread, seen from inside a callback
    bool memoryLocked = false;  // mlockall succeeded
    std::string dmaLatency;     // "0 us held", "left alone" or "not held (...)"
    double elapsedSec = 0;      // from arming the timers to stopping the monitor
};

// Overwrites the current terminal line with the progress so far.
void printProgress(std::ostream& out, double elapsedSec, int64_t count, int64_t maxNs);

// The header lines, a table row per timer and one for all, the power-of-two histogram.
void printReport(std::ostream& out, const Options& options, const RunFacts& facts,
                 const std::vector<TimerResult>& timers);

// Whole microseconds, as cyclictest counts them; the clock going backwards counts as 0.
int64_t wholeUs(int64_t ns);

// One timer's samples per 1 us bucket below `bucketsUs`, as cyclictest's histogram counts.
std::vector<int64_t> cyclicBuckets(const TimerResult& timer, int64_t bucketsUs);

// cyclictest's histogram: a line per 1 us bucket below `bucketsUs` with a column per
// timer, then the totals, minimum, average and maximum, overflows and the expiries that
// overflowed.
void printCyclicHistogram(std::ostream& out, int64_t bucketsUs,
                          const std::vector<TimerResult>& timers);

// cyclictest's JSON layout (num_threads, resolution_in_ns, and under "thread" each timer's
// cycles, min, max, avg, cpu, node and its -h histogram), with the settings, the
// facts and the other figures of all timers and of each under "tavrel".
void printJson(std::ostream& out, const Options& options, const RunFacts& facts,
               const std::vector<TimerResult>& timers);

}  // namespace tavrel::timerlat
