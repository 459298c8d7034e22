// tavrel-timerlat: how late the callbacks of periodic Timers on one event monitor run.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <iostream>
#include <string>

#include "Options.h"
#include "Report.h"
#include "Session.h"
#include "tavrel/platform/Trace.h"

namespace {

using tavrel::timerlat::Options;
using tavrel::timerlat::ParseResult;

// Exit status of a command line that cannot be run.
constexpr int kBadUsageExit = 2;
// Exit status when the trace file cannot be opened.
constexpr int kTraceExit = 1;
// Every category of the library's trace points, and the camera tag that gates them all.
constexpr uint64_t kAllTraceBits = ~uint64_t{0};
constexpr uint64_t kCameraTraceTag = 0x400;

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

bool startTracing(const std::string& path) {
    if (!tavrel::host::setTraceFile(path.c_str())) return false;
    tavrel::host::setTavrelTraceBits(kAllTraceBits);
    tavrel::host::setAtraceEnabledTags(kCameraTraceTag);
    return true;
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
    if (!options.traceFile.empty() && !startTracing(options.traceFile)) {
        std::cerr << argv[0] << ": cannot write the trace file " << options.traceFile << "\n";
        return kTraceExit;
    }
    installSignalHandlers();

    const bool live = !options.quiet && isatty(STDOUT_FILENO);
    const auto result =
        tavrel::timerlat::runSession(options, sInterrupted, live ? &std::cout : nullptr);
    tavrel::timerlat::printReport(std::cout, options, result.elapsedSec, result.timers,
                                  result.overall);
    return 0;
}
