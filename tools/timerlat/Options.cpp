#include "Options.h"

#include <getopt.h>
#include <strings.h>

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ostream>

namespace tavrel::timerlat {
namespace {

// Bounds that keep the run meaningful and its arithmetic far from overflow.
constexpr int kMaxTimers = 1024;
constexpr int64_t kMaxIntervalUs = 60LL * 1000 * 1000;
constexpr double kMaxDurationSec = 24.0 * 3600;
constexpr int64_t kMaxHistogramUs = 1000 * 1000;
constexpr int kMinNice = -20;
constexpr int kMaxNice = 19;
constexpr int kMinRtPriority = 1;
constexpr int kMaxRtPriority = 99;

// Long options without a letter.
enum LongOnly : int {
    kPolicyOption = 256,
    kLaptopOption,
    kTraceAppendOption,
    kJsonOption,
    kHistfileOption,
};

constexpr const char* kShortOptions = "t:i:d:l:D:c:p:a:mH:T:qh";
const option kLongOptions[] = {
    {"timers", required_argument, nullptr, 't'},
    {"interval", required_argument, nullptr, 'i'},
    {"distance", required_argument, nullptr, 'd'},
    {"loops", required_argument, nullptr, 'l'},
    {"duration", required_argument, nullptr, 'D'},
    {"clock", required_argument, nullptr, 'c'},
    {"priority", required_argument, nullptr, 'p'},
    {"policy", required_argument, nullptr, kPolicyOption},
    {"affinity", required_argument, nullptr, 'a'},
    {"mlockall", no_argument, nullptr, 'm'},
    {"laptop", no_argument, nullptr, kLaptopOption},
    {"histogram", required_argument, nullptr, 'H'},
    {"histfile", required_argument, nullptr, kHistfileOption},
    {"json", required_argument, nullptr, kJsonOption},
    {"trace", required_argument, nullptr, 'T'},
    {"trace-append", no_argument, nullptr, kTraceAppendOption},
    {"quiet", no_argument, nullptr, 'q'},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

struct NamedPolicy {
    const char* name;
    int32_t policy;
};
constexpr NamedPolicy kPolicies[] = {
    {"fifo", kFifo}, {"rr", kRoundRobin}, {"other", kOther}, {"batch", kBatch}};

// Seconds per duration suffix, as cyclictest takes them; no suffix means seconds.
struct DurationUnit {
    char suffix;
    double seconds;
};
constexpr DurationUnit kDurationUnits[] = {{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}};

// The long name of an option, for error texts.
std::string nameOf(int id) {
    for (const option& o : kLongOptions) {
        if (o.name != nullptr && o.val == id) return std::string("--") + o.name;
    }
    return "?";
}

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

// A decimal number of seconds, or of the unit its one-letter suffix names, in (0, max].
bool parseDuration(const char* text, double* value) {
    char* end = nullptr;
    errno = 0;
    double parsed = std::strtod(text, &end);
    if (errno != 0 || end == text || !std::isfinite(parsed)) return false;
    if (*end != '\0') {
        if (end[1] != '\0') return false;
        const DurationUnit* unit = nullptr;
        for (const DurationUnit& u : kDurationUnits) {
            if (u.suffix == std::tolower(static_cast<unsigned char>(*end))) unit = &u;
        }
        if (unit == nullptr) return false;
        parsed *= unit->seconds;
    }
    if (!(parsed > 0 && parsed <= kMaxDurationSec)) return false;
    *value = parsed;
    return true;
}

bool parseClock(const char* text, Options* options) {
    if (strcasecmp(text, "monotonic") == 0) {
        options->clock = CLOCK_MONOTONIC;
        options->clockName = "monotonic";
        return true;
    }
    if (strcasecmp(text, "boottime") == 0) {
        options->clock = CLOCK_BOOTTIME;
        options->clockName = "boottime";
        return true;
    }
    return false;
}

bool parsePolicy(const char* text, int32_t* policy) {
    for (const NamedPolicy& p : kPolicies) {
        if (strcasecmp(text, p.name) != 0) continue;
        *policy = p.policy;
        return true;
    }
    return false;
}

// Digits, dashes and commas; the kernel's rules for a CPU list are checked when it is applied.
bool isCpuList(const char* text) {
    return text[0] != '\0' && std::strspn(text, "0123456789-,") == std::strlen(text);
}

// Which of the scheduling options the command line gave.
struct Given {
    bool policy = false;
    bool priority = false;
};

// Applies one option; false when its argument is not acceptable.
bool applyOption(int id, const char* argument, Options* options, Given* given) {
    int64_t value = 0;
    switch (id) {
        case 't':
            if (!parseInteger(argument, 1, kMaxTimers, &value)) return false;
            options->timers = static_cast<int>(value);
            return true;
        case 'i':
            return parseInteger(argument, 1, kMaxIntervalUs, &options->intervalUs);
        case 'd':
            return parseInteger(argument, 0, kMaxIntervalUs, &options->distanceUs);
        case 'l':
            return parseInteger(argument, 1, INT64_MAX, &options->loops);
        case 'D':
            return parseDuration(argument, &options->durationSec);
        case 'c':
            return parseClock(argument, options);
        case 'p':
            if (!parseInteger(argument, kMinNice, kMaxRtPriority, &value)) return false;
            options->priority = static_cast<int32_t>(value);
            given->priority = true;
            return true;
        case kPolicyOption:
            given->policy = true;
            return parsePolicy(argument, &options->policy);
        case 'a':
            options->cpus = argument;
            return isCpuList(argument);
        case 'm':
            options->lockMemory = true;
            return true;
        case kLaptopOption:
            options->holdDmaLatency = false;
            return true;
        case 'H':
            return parseInteger(argument, 1, kMaxHistogramUs, &options->histogramUs);
        case kHistfileOption:
            options->histogramFile = argument;
            return !options->histogramFile.empty();
        case kJsonOption:
            options->jsonFile = argument;
            return !options->jsonFile.empty();
        case 'T':
            options->traceFile = argument;
            return !options->traceFile.empty();
        case kTraceAppendOption:
            options->traceAppend = true;
            return true;
        case 'q':
            options->quiet = true;
            return true;
    }
    return false;
}

// The option getopt_long just refused. optind has not passed a word it stopped inside
// ("-Zq"), so that word is no guide; optopt names the option, but is 0 for an unknown long one.
std::string offendingOption(char** argv) {
    if (optopt == 0) return argv[optind - 1];
    const std::string name = nameOf(optopt);
    return name != "?" ? name : std::string("-") + static_cast<char>(optopt);
}

bool isRealTime(int32_t policy) {
    return policy == kFifo || policy == kRoundRobin;
}

// Settles the scheduling request as cyclictest does (-p alone means fifo) and checks the
// options that depend on each other. Empty when they fit together.
std::string settle(const Given& given, Options* options) {
    if (given.priority && !given.policy) options->policy = kFifo;
    options->schedGiven = given.priority || given.policy;
    const bool realTime = isRealTime(options->policy);
    if (given.policy && !given.priority && realTime) {
        return std::string("--policy ") + policyName(options->policy) + " needs -p 1 to 99";
    }
    const int min = realTime ? kMinRtPriority : kMinNice;
    const int max = realTime ? kMaxRtPriority : kMaxNice;
    if (options->schedGiven && (options->priority < min || options->priority > max)) {
        return "priority " + std::to_string(options->priority) + " is out of range for " +
               policyName(options->policy) + " (" + std::to_string(min) + " to " +
               std::to_string(max) + ")";
    }
    if (intervalUsOf(*options, options->timers - 1) > kMaxIntervalUs) {
        return "the last timer's interval (-i + (-t - 1) * -d) is over 60 s";
    }
    if (!options->histogramFile.empty() && options->histogramUs == 0) {
        return "--histfile needs -H";
    }
    if (options->traceAppend && options->traceFile.empty()) return "--trace-append needs -T";
    if (options->loops == 0 && options->durationSec == 0) {
        options->durationSec = kDefaultDurationSec;
    }
    return {};
}

}  // namespace

const char* policyName(int32_t policy) {
    for (const NamedPolicy& p : kPolicies) {
        if (p.policy == policy) return p.name;
    }
    return "?";
}

int64_t intervalUsOf(const Options& options, int index) {
    return options.intervalUs + index * options.distanceUs;
}

ParseResult parseOptions(int argc, char** argv, Options* options, std::string* error) {
    // 0, not 1: glibc then also forgets where it stopped inside a word such as "-Zq", which
    // the next parse would otherwise take up, in a command line that may be gone.
    optind = 0;
    opterr = 0;
    Given given;
    int id = 0;
    while ((id = getopt_long(argc, argv, kShortOptions, kLongOptions, nullptr)) != -1) {
        if (id == 'h') return ParseResult::kHelp;
        if (id == '?' || id == ':') {
            *error = "unknown option or missing argument: " + offendingOption(argv);
            return ParseResult::kBadUsage;
        }
        if (!applyOption(id, optarg, options, &given)) {
            *error = "bad value for " + nameOf(id) + ": " + optarg;
            return ParseResult::kBadUsage;
        }
    }
    if (optind < argc) {
        *error = std::string("unexpected argument: ") + argv[optind];
        return ParseResult::kBadUsage;
    }
    *error = settle(given, options);
    return error->empty() ? ParseResult::kRun : ParseResult::kBadUsage;
}

void printUsage(std::ostream& out, const char* program) {
    out << "usage: " << program << " [options]\n"
        << "Measures how late periodic timers on one event monitor run their callbacks.\n"
        << "  -t, --timers N        periodic timers on the monitor, 1 to 1024 (default 1)\n"
        << "  -i, --interval US     period of the first timer, 1 to 60000000 us (default 1000)\n"
        << "  -d, --distance US     timer n runs at -i + n * US and starts n * US after timer\n"
        << "                        0, as cyclictest's threads (default 0: all together); the\n"
        << "                        last timer's period, -i + (-t - 1) * US, must stay within\n"
        << "                        60 s\n"
        << "  -l, --loops N         stop after N (1 or more) expiries of every timer\n"
        << "  -D, --duration TIME   stop after TIME: seconds, or a number with s, m, h or d;\n"
        << "                        at most 24 h (default 3 s when -l is not given)\n"
        << "  -c, --clock NAME      monotonic (default) or boottime, in any case\n"
        << "  -p, --priority N      priority of the monitor thread: 1 to 99 for fifo and rr,\n"
        << "                        the nice value -20 to 19 for other and batch\n"
        << "      --policy NAME     fifo, rr, other or batch (default fifo when -p is given;\n"
        << "                        without either, the monitor's own default applies)\n"
        << "  -a, --affinity CPUS   CPU list for the monitor thread, such as 0 or 0-1,3\n"
        << "  -m, --mlockall        lock current and future memory\n"
        << "      --laptop          leave /dev/cpu_dma_latency alone; by default it is held at\n"
        << "                        0 while running when it can be opened, and the header\n"
        << "                        says whether it was\n"
        << "  -H, --histogram US    after the report, cyclictest's histogram: one line per\n"
        << "                        1 us bucket below US (1 to 1000000), a column per timer,\n"
        << "                        then its summary lines\n"
        << "      --histfile FILE   write that histogram to FILE instead of stdout\n"
        << "      --json FILE       write the settings, the summary and per-timer figures\n"
        << "  -T, --trace FILE      write the library's trace sections to FILE, and each\n"
        << "                        callback's latency (us) as a counter named after its timer\n"
        << "                        (Timer-0, Timer-1, ...); FILE is replaced\n"
        << "      --trace-append    append to the -T file instead of replacing it\n"
        << "  -q, --quiet           no live progress line\n"
        << "  -h, --help            this text\n"
        << "Latency is measured from the deadline in force to the start of the callback.\n"
        << "overruns: callbacks that ran a whole interval or more late.\n"
        << "missed: deadlines that passed without a callback of their own, between the first\n"
        << "and the last callback of the timer.\n"
        << "slip: the mean shift of a timer's schedule per expiry, in us. The Timer re-arms\n"
        << "itself after each callback with the time that remained of its period, which moves\n"
        << "the next deadline later by the time between that read and the write; slip is\n"
        << "that move, not latency.\n"
        << "A privilege the options ask for and the process lacks (-p, --policy, -a, -m)\n"
        << "ends the run before it starts, with exit status 1; bad usage exits with 2.\n";
}

}  // namespace tavrel::timerlat
