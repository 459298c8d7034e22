#include "Options.h"

#include <getopt.h>

#include <cerrno>
#include <cstdlib>
#include <ostream>

namespace tavrel::timerlat {
namespace {

// Bounds that keep the run meaningful and its arithmetic far from overflow.
constexpr int kMaxTimers = 1024;
constexpr int64_t kMaxIntervalUs = 60LL * 1000 * 1000;
constexpr double kMaxDurationSec = 24.0 * 3600;

constexpr const char* kShortOptions = "t:i:l:D:c:T:qh";
const option kLongOptions[] = {
    {"timers", required_argument, nullptr, 't'},
    {"interval", required_argument, nullptr, 'i'},
    {"loops", required_argument, nullptr, 'l'},
    {"duration", required_argument, nullptr, 'D'},
    {"clock", required_argument, nullptr, 'c'},
    {"trace", required_argument, nullptr, 'T'},
    {"quiet", no_argument, nullptr, 'q'},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

// A whole decimal integer in [min, max].
bool parseInteger(const char* text, int64_t min, int64_t max, int64_t* value) {
    char* end = nullptr;
    errno = 0;
    const long long parsed = std::strtoll(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0') return false;
    if (parsed < min || parsed > max) return false;
    *value = parsed;
    return true;
}

// A whole decimal number of seconds in (0, max].
bool parseSeconds(const char* text, double* value) {
    char* end = nullptr;
    errno = 0;
    const double parsed = std::strtod(text, &end);
    if (errno != 0 || end == text || *end != '\0') return false;
    if (!(parsed > 0 && parsed <= kMaxDurationSec)) return false;
    *value = parsed;
    return true;
}

bool parseClock(const char* text, Options* options) {
    const std::string name = text;
    if (name == "monotonic") {
        options->clock = CLOCK_MONOTONIC;
    } else if (name == "boottime") {
        options->clock = CLOCK_BOOTTIME;
    } else {
        return false;
    }
    options->clockName = name;
    return true;
}

// Applies one option; false when its argument is not acceptable.
bool applyOption(int option, const char* argument, Options* options) {
    int64_t value = 0;
    switch (option) {
        case 't':
            if (!parseInteger(argument, 1, kMaxTimers, &value)) return false;
            options->timers = static_cast<int>(value);
            return true;
        case 'i':
            return parseInteger(argument, 1, kMaxIntervalUs, &options->intervalUs);
        case 'l':
            return parseInteger(argument, 1, INT64_MAX, &options->loops);
        case 'D':
            return parseSeconds(argument, &options->durationSec);
        case 'c':
            return parseClock(argument, options);
        case 'T':
            options->traceFile = argument;
            return !options->traceFile.empty();
        case 'q':
            options->quiet = true;
            return true;
    }
    return false;
}

}  // namespace

ParseResult parseOptions(int argc, char** argv, Options* options, std::string* error) {
    optind = 1;
    opterr = 0;
    int option = 0;
    while ((option = getopt_long(argc, argv, kShortOptions, kLongOptions, nullptr)) != -1) {
        if (option == 'h') return ParseResult::kHelp;
        if (option == '?' || option == ':') {
            *error = std::string("unknown option or missing argument: ") + argv[optind - 1];
            return ParseResult::kBadUsage;
        }
        if (!applyOption(option, optarg, options)) {
            *error = std::string("bad value for -") + static_cast<char>(option) + ": " + optarg;
            return ParseResult::kBadUsage;
        }
    }
    if (optind < argc) {
        *error = std::string("unexpected argument: ") + argv[optind];
        return ParseResult::kBadUsage;
    }
    if (options->loops == 0 && options->durationSec == 0) {
        options->durationSec = kDefaultDurationSec;
    }
    return ParseResult::kRun;
}

void printUsage(std::ostream& out, const char* program) {
    out << "usage: " << program << " [options]\n"
        << "Measures how late periodic timers on one event monitor run their callbacks.\n"
        << "  -t, --timers N       periodic timers on the monitor (default 1)\n"
        << "  -i, --interval US    period of each timer in microseconds (default 1000)\n"
        << "  -l, --loops N        stop after N expiries of every timer\n"
        << "  -D, --duration SEC   stop after SEC seconds (default 3 when -l is not given)\n"
        << "  -c, --clock NAME     monotonic (default) or boottime\n"
        << "  -T, --trace FILE     write the library's trace sections to FILE\n"
        << "  -q, --quiet          no live progress line\n"
        << "  -h, --help           this text\n"
        << "Latency is measured from the deadline in force to the start of the callback.\n"
        << "An overrun is an expiry whose callback ran a whole interval or more late.\n";
}

}  // namespace tavrel::timerlat
