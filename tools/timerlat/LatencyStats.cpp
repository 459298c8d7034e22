#include "LatencyStats.h"

#include <algorithm>
#include <numeric>

namespace tavrel::timerlat {
namespace {

constexpr int64_t kNsPerUs = 1000;

// Nearest-rank percentile of sorted, non-empty samples.
int64_t percentile(const std::vector<int64_t>& sorted, int percent) {
    const size_t rank = (sorted.size() * percent + 99) / 100;
    return sorted[rank == 0 ? 0 : rank - 1];
}

double mean(const std::vector<int64_t>& values) {
    if (values.empty()) return 0;
    const double sum = std::accumulate(values.begin(), values.end(), 0.0);
    return sum / static_cast<double>(values.size());
}

// The order statistics of `latencies`; count stays 0 when there are none.
Summary ofSamples(std::vector<int64_t> latencies, const std::vector<int64_t>& slips) {
    Summary summary;
    summary.slipAvgNs = mean(slips);
    if (latencies.empty()) return summary;
    std::sort(latencies.begin(), latencies.end());
    summary.count = static_cast<int64_t>(latencies.size());
    summary.minNs = latencies.front();
    summary.maxNs = latencies.back();
    summary.avgNs = mean(latencies);
    summary.p50Ns = percentile(latencies, 50);
    summary.p99Ns = percentile(latencies, 99);
    return summary;
}

}  // namespace

Summary summarize(const TimerResult& timer) {
    Summary summary = ofSamples(timer.latencies, timer.slips);
    summary.overruns = std::count_if(timer.latencies.begin(), timer.latencies.end(),
                                     [&](int64_t ns) { return ns >= timer.intervalNs; });
    summary.missed = timer.missed;
    return summary;
}

Summary summarizeAll(const std::vector<TimerResult>& timers) {
    std::vector<int64_t> latencies;
    std::vector<int64_t> slips;
    int64_t overruns = 0;
    int64_t missed = 0;
    for (const TimerResult& timer : timers) {
        latencies.insert(latencies.end(), timer.latencies.begin(), timer.latencies.end());
        slips.insert(slips.end(), timer.slips.begin(), timer.slips.end());
        overruns += summarize(timer).overruns;
        missed += timer.missed;
    }
    Summary summary = ofSamples(std::move(latencies), slips);
    summary.overruns = overruns;
    summary.missed = missed;
    return summary;
}

void Histogram::add(int64_t latencyNs) {
    int bucket = 0;
    for (int64_t us = latencyNs / kNsPerUs; us > 0 && bucket < kBuckets - 1; us >>= 1) {
        ++bucket;
    }
    ++mCounts[bucket];
}

int64_t Histogram::lowerUs(int bucket) {
    return bucket == 0 ? 0 : int64_t{1} << (bucket - 1);
}

}  // namespace tavrel::timerlat
