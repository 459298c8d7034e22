// Summaries and a histogram of latency samples, all in nanoseconds.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tavrel::timerlat {

// One timer's samples.
struct TimerResult {
    std::string label;               // the timer's index
    int64_t intervalNs = 0;          // its period
    std::vector<int64_t> latencies;  // ns, in the order of the expiries
    std::vector<int64_t> slips;      // ns, in the order of the re-arms
    int64_t missed = 0;              // deadlines that passed without a callback of their own
};

struct Summary {
    int64_t count = 0;     // samples
    int64_t minNs = 0;     // smallest sample
    double avgNs = 0;      // mean sample
    int64_t p50Ns = 0;     // median (nearest rank)
    int64_t p99Ns = 0;     // 99th percentile (nearest rank)
    int64_t maxNs = 0;     // largest sample
    int64_t overruns = 0;  // samples of a whole interval or more
    int64_t missed = 0;    // deadlines without a callback
    double slipAvgNs = 0;  // mean shift of a deadline by the re-arm before it
};

// One timer's figures; zero when it has no samples.
Summary summarize(const TimerResult& timer);

// Every timer's samples together; overruns count against each timer's own interval.
Summary summarizeAll(const std::vector<TimerResult>& timers);

// Counts of samples in power-of-two microsecond buckets: bucket 0 holds what is below
// 1 us, bucket b holds [2^(b-1), 2^b) us, the last bucket everything above.
class Histogram {
public:
    static constexpr int kBuckets = 18;

    void add(int64_t latencyNs);
    int64_t count(int bucket) const { return mCounts[bucket]; }
    // Lower bound of a bucket in microseconds (0 for bucket 0).
    static int64_t lowerUs(int bucket);

private:
    int64_t mCounts[kBuckets] = {};  // samples per bucket
};

}  // namespace tavrel::timerlat
