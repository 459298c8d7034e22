// The floor for timer wake-up latency: one periodic timerfd on a bare epoll loop, the
// kernel keeping the period. It takes tavrel-timerlat's command line, host settings and
// report, so that the two run and read alike; only the loop differs.
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "Clock.h"
#include "HostTuning.h"
#include "Options.h"
#include "Report.h"
#include "ThreadState.h"
#include "tavrel/platform/ThreadControl.h"
#include "tavrel/platform/UniqueFd.h"

namespace tavrel::bench {

namespace {

constexpr int64_t kNsPerUs = 1000;
// The first deadline is this far away, as tavrel-timerlat's.
constexpr int64_t kStartDelayNs = 20 * 1000 * 1000;
constexpr int kBadUsageExit = 2;
constexpr int kRefusedExit = 1;

timespec toTimespec(int64_t ns) {
    return {ns / kNsPerSec, ns % kNsPerSec};
}

// What this loop cannot do of tavrel-timerlat's options; empty when none is asked for.
std::string unsupported(const timerlat::Options& options) {
    if (options.timers != 1 || options.distanceUs != 0) return "one timer only (-t, -d)";
    if (!options.traceFile.empty()) return "no trace (-T)";
    return {};
}

// Applies the options' scheduling and CPU list to the calling thread; empty when granted.
std::string applyThreadSettings(const timerlat::Options& options) {
    if (options.schedGiven &&
        NSCam::Thread::setThreadPriority(NSCam::Thread::getThisThread(), options.priority,
                                         options.policy) != 0) {
        return std::string("cannot run at policy ") + timerlat::policyName(options.policy) +
               " priority " + std::to_string(options.priority);
    }
    if (!options.cpus.empty() && zelcam_perfctrl_set_affinity() != 0) {
        return "cannot pin to CPUs " + options.cpus;
    }
    return {};
}

// Wake-up minus the deadline it was due for, one sample per wake-up, until the loops are
// done or the duration is over.
timerlat::TimerResult measure(const timerlat::Options& options) {
    host::UniqueFd timer(::timerfd_create(options.clock, TFD_NONBLOCK | TFD_CLOEXEC));
    host::UniqueFd epoll(::epoll_create1(EPOLL_CLOEXEC));
    timerlat::TimerResult result{"0", options.intervalUs * kNsPerUs, {}, {}, 0};
    if (!timer.ok() || !epoll.ok()) return result;
    epoll_event event{};
    event.events = EPOLLIN;
    if (::epoll_ctl(epoll.get(), EPOLL_CTL_ADD, timer.get(), &event) != 0) return result;

    const int64_t startNs = readNs(options.clock);
    const int64_t endNs = startNs + static_cast<int64_t>(options.durationSec * kNsPerSec);
    const int64_t firstNs = startNs + kStartDelayNs;
    const itimerspec setting{toTimespec(result.intervalNs), toTimespec(firstNs)};
    if (::timerfd_settime(timer.get(), TFD_TIMER_ABSTIME, &setting, nullptr) != 0) return result;

    uint64_t expiries = 0;
    for (;;) {
        if (options.loops != 0 && static_cast<int64_t>(result.latencies.size()) >= options.loops) {
            break;
        }
        if (options.durationSec > 0 && readNs(options.clock) >= endNs) break;
        epoll_event ready;
        if (::epoll_wait(epoll.get(), &ready, 1, -1) != 1) continue;
        const int64_t wokeNs = readNs(options.clock);
        uint64_t count = 0;
        if (::read(timer.get(), &count, sizeof count) != sizeof count) continue;
        // Late by more than an interval, the wake-up serves several expiries: measured against
        // the earliest, the one it was due for; the others ran no callback of their own.
        const int64_t deadlineNs = firstNs + static_cast<int64_t>(expiries) * result.intervalNs;
        expiries += count;
        result.missed += static_cast<int64_t>(count) - 1;
        result.latencies.push_back(wokeNs - deadlineNs);
    }
    return result;
}

}  // namespace

int run(int argc, char** argv) {
    timerlat::Options options;
    std::string error;
    switch (timerlat::parseOptions(argc, argv, &options, &error)) {
        case timerlat::ParseResult::kHelp:
            timerlat::printUsage(std::cout, argv[0]);
            return EXIT_SUCCESS;
        case timerlat::ParseResult::kBadUsage:
            std::cerr << argv[0] << ": " << error << "\n";
            return kBadUsageExit;
        case timerlat::ParseResult::kRun:
            break;
    }
    if (!unsupported(options).empty()) {
        std::cerr << argv[0] << ": " << unsupported(options) << "\n";
        return kBadUsageExit;
    }
    timerlat::RunFacts facts;
    if (options.lockMemory) {
        error = timerlat::lockAllMemory();
        if (!error.empty()) {
            std::cerr << argv[0] << ": " << error << "\n";
            return kRefusedExit;
        }
        facts.memoryLocked = true;
    }
    timerlat::requestAffinity(options.cpus);
    error = applyThreadSettings(options);
    if (!error.empty()) {
        std::cerr << argv[0] << ": " << error << "\n";
        return kRefusedExit;
    }
    std::unique_ptr<timerlat::DmaLatencyHold> dmaLatency;
    facts.dmaLatency = "left alone";
    if (options.holdDmaLatency) {
        dmaLatency = std::make_unique<timerlat::DmaLatencyHold>();
        facts.dmaLatency = dmaLatency->state();
    }
    facts.thread = timerlat::observeThisThread();
    const int64_t startNs = nowNs();
    const std::vector<timerlat::TimerResult> timers{measure(options)};
    facts.elapsedSec = static_cast<double>(nowNs() - startNs) / kNsPerSec;
    timerlat::printReport(std::cout, options, facts, timers);
    if (options.histogramUs > 0) {
        std::ofstream file;
        if (!options.histogramFile.empty()) file.open(options.histogramFile);
        std::ostream& out = options.histogramFile.empty() ? std::cout : file;
        timerlat::printCyclicHistogram(out, options.histogramUs, timers);
    }
    if (!options.jsonFile.empty()) {
        std::ofstream json(options.jsonFile);
        timerlat::printJson(json, options, facts, timers);
    }
    return EXIT_SUCCESS;
}

}  // namespace tavrel::bench

int main(int argc, char** argv) {
    return tavrel::bench::run(argc, argv);
}
