#include "Session.h"

#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "LatencyProbe.h"
#include "tavrel/IEpollMonitor.h"
#include "tavrel/IThreadLoop.h"
#include "tavrel/platform/ThreadDriver.h"

namespace tavrel::timerlat {
namespace {

using Clock = std::chrono::steady_clock;
using NSCam::NSTavrel::IEpollMonitor;
using NSCam::NSTavrel::IThreadLoop;

constexpr int64_t kNsPerUs = 1000;
constexpr int64_t kNsPerSec = 1000 * 1000 * 1000;
// Time given to the monitor thread to start before the first deadline.
constexpr int64_t kStartDelayNs = 20 * 1000 * 1000;
// How often the run checks whether it is over.
constexpr auto kPollPeriod = std::chrono::milliseconds(20);
// How often the progress line is redrawn.
constexpr auto kProgressPeriod = std::chrono::milliseconds(250);

int64_t nowNs(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return int64_t{now.tv_sec} * kNsPerSec + now.tv_nsec;
}

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

bool allDone(const std::vector<std::unique_ptr<LatencyProbe>>& probes) {
    return std::all_of(probes.begin(), probes.end(), [](const auto& p) { return p->done(); });
}

void showProgress(std::ostream& out, double elapsedSec,
                  const std::vector<std::unique_ptr<LatencyProbe>>& probes) {
    int64_t count = 0;
    int64_t maxNs = 0;
    for (const auto& probe : probes) {
        count += probe->count();
        maxNs = std::max(maxNs, probe->maxNs());
    }
    printProgress(out, elapsedSec, count, maxNs);
}

// Waits on the caller's thread while the monitor's thread records.
void waitForEnd(const Options& options, const std::atomic<bool>& interrupted,
                std::ostream* progress, const std::vector<std::unique_ptr<LatencyProbe>>& probes,
                Clock::time_point start) {
    auto nextProgress = Clock::now();
    for (;;) {
        const double elapsedSec = secondsSince(start);
        if (interrupted.load() || allDone(probes)) break;
        if (options.durationSec > 0 && elapsedSec >= options.durationSec) break;
        if (progress != nullptr && Clock::now() >= nextProgress) {
            showProgress(*progress, elapsedSec, probes);
            nextProgress += kProgressPeriod;
        }
        std::this_thread::sleep_for(kPollPeriod);
    }
    if (progress == nullptr) return;
    showProgress(*progress, secondsSince(start), probes);
    *progress << "\n";
}

}  // namespace

SessionResult runSession(const Options& options, const std::atomic<bool>& interrupted,
                         std::ostream* progress) {
    std::shared_ptr<IEpollMonitor> monitor = IEpollMonitor::make("timerlat");
    // Fixed before the monitor thread exists, which then sees it without a lock.
    const int64_t firstDeadlineNs = nowNs(options.clock) + kStartDelayNs;
    std::vector<std::unique_ptr<LatencyProbe>> probes;
    for (int i = 0; i < options.timers; ++i) {
        // As cyclictest's threads: each timer's period and start one distance later.
        probes.push_back(std::make_unique<LatencyProbe>(
            i, options.clock, firstDeadlineNs + i * options.distanceUs * kNsPerUs,
            intervalUsOf(options, i) * kNsPerUs, options.loops, !options.traceFile.empty()));
        monitor->attach(probes.back()->timer().get(), probes.back()->timer()->getEventType());
    }

    SessionResult result;
    {
        // Without -p or --policy, as cyclictest's threads: SCHED_OTHER at the nice value
        // the program started with, not the monitor's own default, so that the two compare
        // like for like. Keeping one's own nice value needs no privilege.
        const int32_t policy = options.schedGiven ? options.policy : kOther;
        const int32_t priority =
            options.schedGiven ? options.priority : getpriority(PRIO_PROCESS, 0);
        host::ThreadDriver driver(std::dynamic_pointer_cast<IThreadLoop>(monitor), {}, policy,
                                  priority);
        const Clock::time_point start = Clock::now();
        for (const auto& probe : probes) probe->start();
        waitForEnd(options, interrupted, progress, probes, start);
        // Joined before anything is detached, so no callback can still be running.
        driver.stop();
        result.elapsedSec = secondsSince(start);
    }

    for (size_t i = 0; i < probes.size(); ++i) {
        monitor->detach(probes[i]->timer().get());
        result.timers.push_back(
            TimerResult{std::to_string(i), intervalUsOf(options, static_cast<int>(i)) * kNsPerUs,
                        probes[i]->latencies(), probes[i]->slips(), probes[i]->missed()});
        if (!result.thread.seen) result.thread = probes[i]->thread();
    }
    return result;
}

}  // namespace tavrel::timerlat
