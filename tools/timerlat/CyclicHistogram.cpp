// cyclictest's histogram output, so that the same readers take either program's.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "Report.h"

namespace tavrel::timerlat {
namespace {

constexpr int64_t kNsPerUs = 1000;

std::string field(const char* format, long long value) {
    char text[32];
    std::snprintf(text, sizeof(text), format, value);
    return text;
}

// One summary line: the label, then one field per timer.
template <typename Value>
void printLine(std::ostream& out, const char* label, const std::vector<TimerResult>& timers,
               const char* format, Value value) {
    out << label;
    for (const TimerResult& timer : timers) out << field(format, value(timer));
    out << "\n";
}

}  // namespace

int64_t wholeUs(int64_t ns) {
    return std::max<int64_t>(ns, 0) / kNsPerUs;
}

std::vector<int64_t> cyclicBuckets(const TimerResult& timer, int64_t bucketsUs) {
    std::vector<int64_t> counts(bucketsUs);
    for (int64_t ns : timer.latencies) {
        if (wholeUs(ns) < bucketsUs) ++counts[wholeUs(ns)];
    }
    return counts;
}

void printCyclicHistogram(std::ostream& out, int64_t bucketsUs,
                          const std::vector<TimerResult>& timers) {
    std::vector<std::vector<int64_t>> counts;
    for (const TimerResult& timer : timers) counts.push_back(cyclicBuckets(timer, bucketsUs));
    out << "# Histogram\n";
    for (int64_t us = 0; us < bucketsUs; ++us) {
        out << field("%06lld", us);
        for (size_t t = 0; t < timers.size(); ++t) {
            out << (t == 0 ? " " : "\t") << field("%06lld", counts[t][us]);
        }
        out << "\n";
    }
    const auto overflows = [bucketsUs](const TimerResult& timer) {
        return std::count_if(timer.latencies.begin(), timer.latencies.end(),
                             [bucketsUs](int64_t ns) { return wholeUs(ns) >= bucketsUs; });
    };
    const auto extreme = [](const TimerResult& timer, bool largest) -> long long {
        if (timer.latencies.empty()) return 0;
        const auto [min, max] = std::minmax_element(timer.latencies.begin(), timer.latencies.end());
        return wholeUs(largest ? *max : *min);
    };
    printLine(out, "# Total:", timers, " %09lld", [&](const TimerResult& timer) {
        return static_cast<long long>(timer.latencies.size() - overflows(timer));
    });
    printLine(out, "# Min Latencies:", timers, " %05lld",
              [&](const TimerResult& timer) { return extreme(timer, false); });
    printLine(out, "# Avg Latencies:", timers, " %05lld", [](const TimerResult& timer) {
        return static_cast<long long>(wholeUs(static_cast<int64_t>(summarize(timer).avgNs)));
    });
    printLine(out, "# Max Latencies:", timers, " %05lld",
              [&](const TimerResult& timer) { return extreme(timer, true); });
    printLine(out, "# Histogram Overflows:", timers, " %05lld",
              [&](const TimerResult& timer) { return static_cast<long long>(overflows(timer)); });
    // As cyclictest: the first expiries (counted from 0) that overflowed, as many as there
    // are buckets, then how many more did.
    out << "# Histogram Overflow at cycle number:\n";
    for (size_t t = 0; t < timers.size(); ++t) {
        out << "# Thread " << t << ":";
        int64_t listed = 0;
        int64_t others = 0;
        for (size_t cycle = 0; cycle < timers[t].latencies.size(); ++cycle) {
            if (wholeUs(timers[t].latencies[cycle]) < bucketsUs) continue;
            if (listed < bucketsUs) {
                out << field(" %05lld", static_cast<long long>(cycle));
                ++listed;
            } else {
                ++others;
            }
        }
        if (others > 0) out << field(" # %05lld others", others);
        out << "\n";
    }
}

}  // namespace tavrel::timerlat
