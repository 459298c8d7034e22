// Summaries and a histogram of latency samples, all in nanoseconds.
#pragma once

#include <cstdint>
#include <vector>

namespace tavrel::timerlat {

struct Summary {
    int64_t count = 0;     // samples
    int64_t minNs = 0;     // smallest sample
    double avgNs = 0;      // mean sample
    int64_t p50Ns = 0;     // median (nearest rank)
    int64_t p99Ns = 0;     // 99th percentile (nearest rank)
    int64_t maxNs = 0;     // largest sample
    int64_t overruns = 0;  // samples of a whole interval or more: expiries that were missed
    double slipAvgNs = 0;  // mean shift of a deadline by the re-arm before it
};

// Summarizes `latencies` (any order); `slips` gives slipAvgNs. Zero when empty.
Summary summarize(std::vector<int64_t> latencies, const std::vector<int64_t>& slips,
                  int64_t intervalNs);

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
