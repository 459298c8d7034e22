// The floor for timer wake-up latency: one periodic timerfd on a bare epoll loop, the
// kernel keeping the period. Prints the same summary row as tavrel-timerlat (microseconds,
// nearest-rank percentiles) so that the two can be read side by side.
#include <getopt.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <vector>

#include "Clock.h"
#include "tavrel/platform/UniqueFd.h"

namespace tavrel::bench {

namespace {

constexpr int64_t kNsPerUs = 1000;
constexpr const char* kUsage =
    "usage: tavrel-raw-timerlat [-i INTERVAL_US] [-l LOOPS]\n"
    "  -i, --interval  timer period in microseconds (default 1000)\n"
    "  -l, --loops     expiries to measure (default 5000)\n";

struct Settings {
    int64_t intervalUs = 1000;
    int64_t loops = 5000;
};

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(EXIT_FAILURE);
}

Settings parse(int argc, char** argv) {
    static const option kLongOptions[] = {
        {"interval", required_argument, nullptr, 'i'},
        {"loops", required_argument, nullptr, 'l'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    Settings settings;
    for (int id; (id = getopt_long(argc, argv, "i:l:h", kLongOptions, nullptr)) != -1;) {
        const long long value = id == 'h' || optarg == nullptr ? 0 : std::atoll(optarg);
        if (id == 'i' && value > 0) {
            settings.intervalUs = value;
        } else if (id == 'l' && value > 0) {
            settings.loops = value;
        } else {
            std::fputs(kUsage, id == 'h' ? stdout : stderr);
            std::exit(id == 'h' ? EXIT_SUCCESS : EXIT_FAILURE);
        }
    }
    return settings;
}

timespec toTimespec(int64_t ns) {
    return {ns / kNsPerSec, ns % kNsPerSec};
}

// Wake-up minus the deadline it was due for, one sample per wake-up.
std::vector<int64_t> measure(const Settings& settings) {
    host::UniqueFd timer(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    host::UniqueFd epoll(::epoll_create1(EPOLL_CLOEXEC));
    if (!timer.ok() || !epoll.ok()) fail("timerfd_create/epoll_create1");
    epoll_event event{};
    event.events = EPOLLIN;
    if (::epoll_ctl(epoll.get(), EPOLL_CTL_ADD, timer.get(), &event) != 0) fail("epoll_ctl");

    const int64_t intervalNs = settings.intervalUs * kNsPerUs;
    const int64_t firstNs = nowNs() + intervalNs;
    const itimerspec setting{toTimespec(intervalNs), toTimespec(firstNs)};
    if (::timerfd_settime(timer.get(), TFD_TIMER_ABSTIME, &setting, nullptr) != 0) fail("settime");

    std::vector<int64_t> latencies;
    latencies.reserve(static_cast<size_t>(settings.loops));
    uint64_t expiries = 0;
    while (static_cast<int64_t>(latencies.size()) < settings.loops) {
        epoll_event ready;
        if (::epoll_wait(epoll.get(), &ready, 1, -1) != 1) continue;
        const int64_t wokeNs = nowNs();
        uint64_t count = 0;
        if (::read(timer.get(), &count, sizeof count) != sizeof count) continue;
        // Late by more than an interval, the wake-up serves several expiries; like
        // tavrel-timerlat, measure it against the earliest of them, the one it was due for.
        const int64_t deadlineNs = firstNs + static_cast<int64_t>(expiries) * intervalNs;
        expiries += count;
        latencies.push_back(wokeNs - deadlineNs);
    }
    return latencies;
}

// Nearest rank, as tavrel-timerlat computes it.
int64_t percentile(const std::vector<int64_t>& sorted, int percent) {
    const size_t rank = (sorted.size() * static_cast<size_t>(percent) + 99) / 100;
    return sorted[std::max<size_t>(rank, 1) - 1];
}

double us(double ns) {
    return ns / static_cast<double>(kNsPerUs);
}

}  // namespace

int run(int argc, char** argv) {
    const Settings settings = parse(argc, argv);
    std::vector<int64_t> latencies = measure(settings);
    std::sort(latencies.begin(), latencies.end());
    const double avg =
        static_cast<double>(std::accumulate(latencies.begin(), latencies.end(), int64_t{0})) /
        static_cast<double>(latencies.size());
    std::printf("raw timerfd  interval %lld us  clock monotonic\n",
                static_cast<long long>(settings.intervalUs));
    std::printf("%-6s %9s %9s %9s %9s %9s %9s\n", "timer", "count", "min", "avg", "p50", "p99",
                "max");
    std::printf("%-6s %9zu %9.1f %9.1f %9.1f %9.1f %9.1f\n", "all", latencies.size(),
                us(static_cast<double>(latencies.front())), us(avg),
                us(static_cast<double>(percentile(latencies, 50))),
                us(static_cast<double>(percentile(latencies, 99))),
                us(static_cast<double>(latencies.back())));
    return EXIT_SUCCESS;
}

}  // namespace tavrel::bench

int main(int argc, char** argv) {
    return tavrel::bench::run(argc, argv);
}
