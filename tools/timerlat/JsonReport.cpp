// The report as one JSON object, for programs that read the results.
#include <cstdio>
#include <string>

#include "Report.h"

namespace tavrel::timerlat {
namespace {

constexpr double kNsPerUs = 1000.0;

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

std::string number(double value) {
    char text[64];
    std::snprintf(text, sizeof(text), "%.3f", value);
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

}  // namespace

void printJson(std::ostream& out, const Options& options, const RunFacts& facts,
               const std::vector<TimerResult>& timers) {
    out << "{\n  \"clock\": " << quoted(options.clockName) << ", " << threadMembers(facts.thread)
        << ",\n  \"memory_locked\": " << (facts.memoryLocked ? "true" : "false")
        << ", \"dma_latency\": " << quoted(facts.dmaLatency)
        << ",\n  \"timers\": " << options.timers << ", \"interval_us\": " << options.intervalUs
        << ", \"distance_us\": " << options.distanceUs
        << ", \"elapsed_s\": " << number(facts.elapsedSec) << ",\n  \"all\": {"
        << members(summarizeAll(timers)) << "},\n  \"per_timer\": [";
    for (size_t i = 0; i < timers.size(); ++i) {
        out << (i == 0 ? "\n" : ",\n") << "    {\"timer\": " << quoted(timers[i].label)
            << ", \"interval_us\": " << number(timers[i].intervalNs / kNsPerUs) << ", "
            << members(summarize(timers[i])) << "}";
    }
    out << "\n  ]\n}\n";
}

}  // namespace tavrel::timerlat
