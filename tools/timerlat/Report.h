// What tavrel-timerlat prints: the live progress line and the final report.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "LatencyStats.h"
#include "Options.h"

namespace tavrel::timerlat {

// One timer's results, or all timers' together.
struct TimerResult {
    std::string label;               // the timer's index, or "all"
    std::vector<int64_t> latencies;  // ns, in the order of the expiries
    std::vector<int64_t> slips;      // ns, in the order of the re-arms
};

// Overwrites the current terminal line with the progress so far.
void printProgress(std::ostream& out, double elapsedSec, int64_t count, int64_t maxNs);

// The settings line, a table row per result and the histogram of `overall`.
void printReport(std::ostream& out, const Options& options, double elapsedSec,
                 const std::vector<TimerResult>& timers, const TimerResult& overall);

}  // namespace tavrel::timerlat
