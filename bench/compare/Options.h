// Command line of tavrel-compare.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace tavrel::bench {

struct Options {
    std::vector<size_t> pairCounts{100, 1000, 10000};  // N
    std::vector<size_t> activeCounts{1, 10, 100};      // A
    int writes = 1000;                                 // W, bytes passed on per round
    int blocks = 5;                     // rounds of interleaving: every backend runs once per block
    int rounds = 30;                    // timed rounds per backend per block
    int warmup = 3;                     // untimed rounds before them
    std::vector<std::string> backends;  // empty: all
    std::string csvPath;                // summary as CSV; empty: none
    std::string blocksCsvPath;          // every block's figures as CSV; empty: none
    bool callgrind = false;             // instrument only the timed rounds (run under callgrind)
};

// Parses argv; prints usage and ends the process on a bad or --help argument.
Options parseOptions(int argc, char** argv);

}  // namespace tavrel::bench
