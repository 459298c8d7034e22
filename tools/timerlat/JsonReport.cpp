// The report as one JSON object in cyclictest's layout, so that the programs that read
// cyclictest's results read ours; what cyclictest does not measure goes under "tavrel".
#include <cstdio>
#include <cstdlib>
#include <string>

#include "Report.h"

namespace tavrel::timerlat {
namespace {

constexpr double kNsPerUs = 1000.0;
// cyclictest's "cpu" and "node" for a thread not placed on one.
constexpr int kNotPlaced = -1;

// Names and texts here are ours or kernel CPU lists; only quotes and backslashes, which
// error texts may hold, need escaping.
std::string quoted(const std::string& text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + "\"";
}

std::string number(double value, const char* format = "%.3f") {
    char text[64];
    std::snprintf(text, sizeof(text), format, value);
    return text;
}

// A summary's members; the order statistics are null when there are no samples.
std::string members(const Summary& s) {
    const auto us = [&s](double ns) { return s.count == 0 ? "null" : number(ns / kNsPerUs); };
    return "\"count\": " + std::to_string(s.count) + ", \"min_us\": " + us(s.minNs) +
           ", \"avg_us\": " + us(s.avgNs) + ", \"p50_us\": " + us(s.p50Ns) +
           ", \"p99_us\": " + us(s.p99Ns) + ", \"max_us\": " + us(s.maxNs) +
           ", \"overruns\": " + std::to_string(s.overruns) +
           ", \"missed\": " + std::to_string(s.missed) +
           ", \"slip_avg_us\": " + number(s.slipAvgNs / kNsPerUs);
}

std::string threadMembers(const ThreadState& thread) {
    if (!thread.seen) return "\"policy\": null, \"priority\": null, \"cpus\": null";
    return "\"policy\": " + quoted(policyName(thread.policy)) +
           ", \"priority\": " + std::to_string(thread.priority) +
           ", \"cpus\": " + quoted(thread.cpus);
}

// The one CPU the monitor thread was pinned to, as cyclictest's "cpu" of a pinned thread.
int pinnedCpu(const ThreadState& thread) {
    const bool one = thread.seen && !thread.cpus.empty() &&
                     thread.cpus.find_first_not_of("0123456789") == std::string::npos;
    return one ? std::atoi(thread.cpus.c_str()) : kNotPlaced;
}

// cyclictest's members of one thread: the non-empty 1 us buckets, then whole microseconds.
std::string cyclicMembers(const TimerResult& timer, int64_t bucketsUs, int cpu) {
    std::string histogram;
    const std::vector<int64_t> counts = cyclicBuckets(timer, bucketsUs);
    for (size_t us = 0; us < counts.size(); ++us) {
        if (counts[us] == 0) continue;
        histogram += (histogram.empty() ? "\"" : ", \"") + std::to_string(us) +
                     "\": " + std::to_string(counts[us]);
    }
    const Summary s = summarize(timer);
    return "\"histogram\": {" + histogram + "}, \"cycles\": " + std::to_string(s.count) +
           ", \"min\": " + std::to_string(wholeUs(s.minNs)) +
           ", \"max\": " + std::to_string(wholeUs(s.maxNs)) +
           ", \"avg\": " + number(s.avgNs / kNsPerUs, "%.2f") +
           ", \"cpu\": " + std::to_string(cpu) + ", \"node\": " + std::to_string(kNotPlaced);
}

}  // namespace

void printJson(std::ostream& out, const Options& options, const RunFacts& facts,
               const std::vector<TimerResult>& timers) {
    // resolution_in_ns 0: cyclictest's figures are in microseconds.
    out << "{\n  \"num_threads\": " << timers.size() << ",\n  \"resolution_in_ns\": 0,\n"
        << "  \"thread\": {";
    for (size_t i = 0; i < timers.size(); ++i) {
        out << (i == 0 ? "\n" : ",\n") << "    " << quoted(std::to_string(i)) << ": {"
            << cyclicMembers(timers[i], options.histogramUs, pinnedCpu(facts.thread))
            << ",\n      \"tavrel\": {\"interval_us\": " << number(timers[i].intervalNs / kNsPerUs)
            << ", " << members(summarize(timers[i])) << "}}";
    }
    out << "\n  },\n  \"tavrel\": {\"clock\": " << quoted(options.clockName) << ", "
        << threadMembers(facts.thread)
        << ", \"memory_locked\": " << (facts.memoryLocked ? "true" : "false")
        << ", \"dma_latency\": " << quoted(facts.dmaLatency)
        << ",\n    \"interval_us\": " << options.intervalUs
        << ", \"distance_us\": " << options.distanceUs
        << ", \"elapsed_s\": " << number(facts.elapsedSec) << ",\n    \"all\": {"
        << members(summarizeAll(timers)) << "}}\n}\n";
}

}  // namespace tavrel::timerlat
