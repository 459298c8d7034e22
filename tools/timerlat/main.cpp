// tavrel-timerlat: how late the callbacks of periodic Timers on one event monitor run.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>

#include "HostTuning.h"
#include "Options.h"
#include "Report.h"
#include "Session.h"
#include "tavrel/platform/Trace.h"

namespace {

using tavrel::timerlat::Options;
using tavrel::timerlat::ParseResult;

// Exit status of a command line that cannot be run.
constexpr int kBadUsageExit = 2;
// Exit status when something the options ask for is refused: a privilege or a file.
constexpr int kRefusedExit = 1;
// Every category of the library's trace points, and the camera tag that gates them all.
constexpr uint64_t kAllTraceBits = ~uint64_t{0};
constexpr uint64_t kCameraTraceTag = 0x400;
constexpr mode_t kTraceFileMode = 0644;

// Set by SIGINT and SIGTERM: end the run early and still report.
std::atomic<bool> sInterrupted{false};

void onSignal(int) {
    sInterrupted.store(true);
}

void installSignalHandlers() {
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

// A new run starts the file afresh, so that it holds one header and one process.
bool startTracing(const Options& options) {
    if (!options.traceAppend) {
        const int fd = open(options.traceFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC,
                            kTraceFileMode);
        if (fd < 0) return false;
        close(fd);
    }
    if (!tavrel::host::setTraceFile(options.traceFile.c_str())) return false;
    tavrel::host::setTavrelTraceBits(kAllTraceBits);
    tavrel::host::setAtraceEnabledTags(kCameraTraceTag);
    return true;
}

int refuse(const char* program, const std::string& why) {
    std::cerr << program << ": " << why << "\n";
    return kRefusedExit;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    std::string error;
    switch (tavrel::timerlat::parseOptions(argc, argv, &options, &error)) {
        case ParseResult::kHelp:
            tavrel::timerlat::printUsage(std::cout, argv[0]);
            return 0;
        case ParseResult::kBadUsage:
            std::cerr << argv[0] << ": " << error << "\n";
            tavrel::timerlat::printUsage(std::cerr, argv[0]);
            return kBadUsageExit;
        case ParseResult::kRun:
            break;
    }
    // Files are opened before the run, so that a bad path does not cost one.
    std::ofstream json;
    if (!options.jsonFile.empty()) json.open(options.jsonFile);
    if (!options.jsonFile.empty() && !json) {
        return refuse(argv[0], "cannot write the JSON file " + options.jsonFile);
    }
    std::ofstream histogramFile;
    if (!options.histogramFile.empty()) histogramFile.open(options.histogramFile);
    if (!options.histogramFile.empty() && !histogramFile) {
        return refuse(argv[0], "cannot write the histogram file " + options.histogramFile);
    }
    if (!options.traceFile.empty() && !startTracing(options)) {
        return refuse(argv[0], "cannot write the trace file " + options.traceFile);
    }

    tavrel::timerlat::RunFacts facts;
    if (options.lockMemory) {
        error = tavrel::timerlat::lockAllMemory();
        if (!error.empty()) return refuse(argv[0], error);
        facts.memoryLocked = true;
    }
    tavrel::timerlat::requestAffinity(options.cpus);
    error = tavrel::timerlat::tryThreadSettings(options);
    if (!error.empty()) return refuse(argv[0], error);
    std::unique_ptr<tavrel::timerlat::DmaLatencyHold> dmaLatency;
    facts.dmaLatency = "left alone";
    if (options.holdDmaLatency) {
        dmaLatency = std::make_unique<tavrel::timerlat::DmaLatencyHold>();
        facts.dmaLatency = dmaLatency->state();
        if (!dmaLatency->held()) {
            std::cerr << argv[0] << ": dma latency " << facts.dmaLatency
                      << "; deep CPU idle states stay allowed (--laptop: leave it alone without "
                         "this warning)\n";
        }
    }
    installSignalHandlers();

    const bool live = !options.quiet && isatty(STDOUT_FILENO);
    const auto result =
        tavrel::timerlat::runSession(options, sInterrupted, live ? &std::cout : nullptr);
    facts.thread = result.thread;
    facts.elapsedSec = result.elapsedSec;
    tavrel::timerlat::printReport(std::cout, options, facts, result.timers);
    if (options.histogramUs > 0) {
        std::ostream& out = options.histogramFile.empty() ? std::cout : histogramFile;
        tavrel::timerlat::printCyclicHistogram(out, options.histogramUs, result.timers);
    }
    if (json.is_open()) tavrel::timerlat::printJson(json, options, facts, result.timers);
    return 0;
}
