#include "Options.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace tavrel::bench {

namespace {

constexpr const char* kUsage =
    "usage: tavrel-compare [options]\n"
    "  --pairs=LIST      socket pairs N (default 100,1000,10000)\n"
    "  --active=LIST     active pairs A (default 1,10,100)\n"
    "  --writes=W        bytes passed on per round (default 1000)\n"
    "  --blocks=B        interleaved blocks; each runs every backend once (default 5)\n"
    "  --rounds=R        timed rounds per backend and block (default 30)\n"
    "  --warmup=K        untimed rounds before them (default 3)\n"
    "  --backends=LIST   raw,monitor,libevent,libev,libuv (default all)\n"
    "  --csv=FILE        write the summary as CSV\n"
    "  --blocks-csv=FILE write every block's cost per callback as CSV\n"
    "  --callgrind       count only the timed rounds (run under valgrind --tool=callgrind\n"
    "                    --instr-atstart=no)\n";

enum OptionId {
    kPairs = 1,
    kActive,
    kWrites,
    kBlocks,
    kRounds,
    kWarmup,
    kBackends,
    kCsv,
    kBlocksCsv,
    kGrind
};

[[noreturn]] void usage(int status) {
    std::fputs(kUsage, status == EXIT_SUCCESS ? stdout : stderr);
    std::exit(status);
}

std::vector<std::string> splitList(const char* text) {
    std::vector<std::string> items;
    std::istringstream in(text);
    for (std::string item; std::getline(in, item, ',');) {
        if (!item.empty()) items.push_back(item);
    }
    return items;
}

long positive(const std::string& text) {
    char* end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (end == text.c_str() || *end != '\0' || value <= 0) usage(EXIT_FAILURE);
    return value;
}

std::vector<size_t> sizeList(const char* text) {
    std::vector<size_t> values;
    for (const std::string& item : splitList(text)) {
        values.push_back(static_cast<size_t>(positive(item)));
    }
    if (values.empty()) usage(EXIT_FAILURE);
    return values;
}

}  // namespace

Options parseOptions(int argc, char** argv) {
    static const option kLongOptions[] = {
        {"pairs", required_argument, nullptr, kPairs},
        {"active", required_argument, nullptr, kActive},
        {"writes", required_argument, nullptr, kWrites},
        {"blocks", required_argument, nullptr, kBlocks},
        {"rounds", required_argument, nullptr, kRounds},
        {"warmup", required_argument, nullptr, kWarmup},
        {"backends", required_argument, nullptr, kBackends},
        {"csv", required_argument, nullptr, kCsv},
        {"blocks-csv", required_argument, nullptr, kBlocksCsv},
        {"callgrind", no_argument, nullptr, kGrind},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    Options options;
    for (int id; (id = getopt_long(argc, argv, "h", kLongOptions, nullptr)) != -1;) {
        switch (id) {
            case kPairs:
                options.pairCounts = sizeList(optarg);
                break;
            case kActive:
                options.activeCounts = sizeList(optarg);
                break;
            case kWrites:
                options.writes = static_cast<int>(positive(optarg));
                break;
            case kBlocks:
                options.blocks = static_cast<int>(positive(optarg));
                break;
            case kRounds:
                options.rounds = static_cast<int>(positive(optarg));
                break;
            case kWarmup:
                options.warmup = static_cast<int>(positive(optarg));
                break;
            case kBackends:
                options.backends = splitList(optarg);
                break;
            case kCsv:
                options.csvPath = optarg;
                break;
            case kBlocksCsv:
                options.blocksCsvPath = optarg;
                break;
            case kGrind:
                options.callgrind = true;
                break;
            case 'h':
                usage(EXIT_SUCCESS);
            default:
                usage(EXIT_FAILURE);
        }
    }
    if (optind != argc) usage(EXIT_FAILURE);
    return options;
}

}  // namespace tavrel::bench
