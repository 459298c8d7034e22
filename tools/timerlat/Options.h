// Command line of tavrel-timerlat.
#pragma once

#include <time.h>

#include <cstdint>
#include <iosfwd>
#include <string>

namespace tavrel::timerlat {

struct Options {
    int timers = 1;                       // periodic timers attached to the one monitor
    int64_t intervalUs = 1000;            // period of every timer
    int64_t loops = 0;                    // expiries per timer before stopping; 0: no limit
    double durationSec = 0;               // run time before stopping; 0: no limit
    clockid_t clock = CLOCK_MONOTONIC;    // clock the timers run on
    std::string clockName = "monotonic";  // the clock as the user named it, for the report
    std::string traceFile;                // trace output file; empty: tracing stays off
    bool quiet = false;                   // no live progress line
};

// Run time when neither a loop count nor a duration is given.
inline constexpr double kDefaultDurationSec = 3.0;

enum class ParseResult { kRun, kHelp, kBadUsage };

// Fills `options` from the command line. On kBadUsage, `error` says what was wrong.
ParseResult parseOptions(int argc, char** argv, Options* options, std::string* error);

// The help text.
void printUsage(std::ostream& out, const char* program);

}  // namespace tavrel::timerlat
