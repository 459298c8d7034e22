// Command line of tavrel-timerlat.
#pragma once

#include <time.h>

#include <cstdint>
#include <iosfwd>
#include <string>

#include "tavrel/platform/ThreadControl.h"

namespace tavrel::timerlat {

using host::kBatch;
using host::kFifo;
using host::kOther;
using host::kRoundRobin;

struct Options {
    int timers = 1;                       // periodic timers attached to the one monitor
    int64_t intervalUs = 1000;            // period of the first timer
    int64_t distanceUs = 0;               // each further timer's period and start are this later
    int64_t loops = 0;                    // expiries per timer before stopping; 0: no limit
    double durationSec = 0;               // run time before stopping; 0: no limit
    clockid_t clock = CLOCK_MONOTONIC;    // clock the timers run on
    std::string clockName = "monotonic";  // the clock's name in lower case, for the report
    bool schedGiven = false;              // false: other at the nice value started with
    int32_t policy = kOther;              // with schedGiven, applied by the thread driver
    int32_t priority = 0;                 // real-time priority (fifo, rr) or nice value
    std::string cpus;                     // CPU list for the monitor thread; empty: unchanged
    bool lockMemory = false;              // mlockall before the run
    bool holdDmaLatency = true;           // hold /dev/cpu_dma_latency at 0 while running
    std::string traceFile;                // trace output file; empty: tracing stays off
    bool traceAppend = false;             // append to the trace file instead of replacing it
    std::string jsonFile;                 // the results as cyclictest's JSON; empty: none
    int64_t histogramUs = 0;              // 1 us buckets of the histogram (-h); 0: none
    std::string histogramFile;            // where the histogram goes; empty: stdout
    bool quiet = false;                   // no live progress line
};

// Run time when neither a loop count nor a duration is given.
inline constexpr double kDefaultDurationSec = 3.0;

enum class ParseResult { kRun, kHelp, kBadUsage };

// Fills `options` from the command line. On kBadUsage, `error` says what was wrong.
ParseResult parseOptions(int argc, char** argv, Options* options, std::string* error);

// The help text.
void printUsage(std::ostream& out, const char* program);

// "fifo", "rr", "other" or "batch"; "?" for any other number.
const char* policyName(int32_t policy);

// The period of timer `index`.
int64_t intervalUsOf(const Options& options, int index);

}  // namespace tavrel::timerlat
