#include "Report.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <string>

namespace tavrel::timerlat {
namespace {

constexpr double kNsPerUs = 1000.0;
// Width of the longest histogram bar.
constexpr int64_t kBarWidth = 50;

std::string format(const char* format, ...) __attribute__((format(printf, 1, 2)));

std::string format(const char* format, ...) {
    char line[256];
    va_list args;
    va_start(args, format);
    std::vsnprintf(line, sizeof(line), format, args);
    va_end(args);
    return line;
}

double us(double ns) {
    return ns / kNsPerUs;
}

void printRow(std::ostream& out, const std::string& label, const Summary& s) {
    if (s.count == 0) {
        out << format("%-6s %9d  no samples\n", label.c_str(), 0);
        return;
    }
    out << format("%-6s %9lld %9.1f %9.1f %9.1f %9.1f %9.1f %9lld %9lld %9.2f\n", label.c_str(),
                  static_cast<long long>(s.count), us(s.minNs), us(s.avgNs), us(s.p50Ns),
                  us(s.p99Ns), us(s.maxNs), static_cast<long long>(s.overruns),
                  static_cast<long long>(s.missed), us(s.slipAvgNs));
}

void printHistogram(std::ostream& out, const std::vector<TimerResult>& timers) {
    Histogram histogram;
    for (const TimerResult& timer : timers) {
        for (int64_t latency : timer.latencies) histogram.add(latency);
    }
    int first = Histogram::kBuckets;
    int last = -1;
    int64_t largest = 0;
    for (int b = 0; b < Histogram::kBuckets; ++b) {
        if (histogram.count(b) == 0) continue;
        first = std::min(first, b);
        last = b;
        largest = std::max(largest, histogram.count(b));
    }
    if (last < 0) return;
    out << "histogram (all timers, us):\n";
    for (int b = first; b <= last; ++b) {
        const std::string range =
            b == Histogram::kBuckets - 1
                ? format(">= %lld", static_cast<long long>(Histogram::lowerUs(b)))
                : format("%lld-%lld", static_cast<long long>(Histogram::lowerUs(b)),
                         static_cast<long long>(Histogram::lowerUs(b + 1)));
        const int64_t bar = (histogram.count(b) * kBarWidth + largest - 1) / largest;
        out << format("%14s | %-50s %lld\n", range.c_str(), std::string(bar, '#').c_str(),
                      static_cast<long long>(histogram.count(b)));
    }
}

}  // namespace

void printProgress(std::ostream& out, double elapsedSec, int64_t count, int64_t maxNs) {
    out << format("\r%7.1f s  %10lld expiries  max %9.1f us", elapsedSec,
                  static_cast<long long>(count), us(maxNs))
        << std::flush;
}

void printReport(std::ostream& out, const Options& options, const RunFacts& facts,
                 const std::vector<TimerResult>& timers) {
    out << "clock " << options.clockName << "  " << describe(facts.thread) << "  memory "
        << (facts.memoryLocked ? "locked" : "not locked") << "  dma latency " << facts.dmaLatency
        << "\n";
    out << format("timers %d  interval %lld us  distance %lld us  elapsed %.2f s\n", options.timers,
                  static_cast<long long>(options.intervalUs),
                  static_cast<long long>(options.distanceUs), facts.elapsedSec);
    out << format("%-6s %9s %9s %9s %9s %9s %9s %9s %9s %9s\n", "timer", "count", "min", "avg",
                  "p50", "p99", "max", "overruns", "missed", "slip");
    for (const TimerResult& timer : timers) printRow(out, timer.label, summarize(timer));
    const Summary all = summarizeAll(timers);
    printRow(out, "all", all);
    out << "latency, slip: us; overruns: callbacks a whole interval late or more; missed: "
           "deadlines without a callback\n";
    // Each deadline is placed no later than it was, so a latency below zero means the
    // clock itself went backwards; shown as measured, and said so.
    int64_t early = 0;
    for (const TimerResult& timer : timers) {
        early += std::count_if(timer.latencies.begin(), timer.latencies.end(),
                               [](int64_t latency) { return latency < 0; });
    }
    if (early > 0) {
        out << format(
            "warning: %lld callbacks ran before their deadline: the %s clock went "
            "backwards\n",
            static_cast<long long>(early), options.clockName.c_str());
    }
    printHistogram(out, timers);
}

}  // namespace tavrel::timerlat
