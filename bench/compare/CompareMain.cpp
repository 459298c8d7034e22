// Side-by-side event-loop comparison: the same socket-pair workload under a raw epoll
// loop, the library's EpollMonitor, libevent, libev and libuv, each loop on its own thread
// and the backends interleaved in blocks so that drift of the machine hits all of them.
#include <pthread.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "Backend.h"
#include "FdLimit.h"
#include "Instrumentation.h"
#include "Options.h"
#include "Stats.h"

namespace tavrel::bench {

namespace {

// Descriptors besides the pairs: stdio, epoll instances, eventfds, the loops' own.
constexpr size_t kSpareFds = 64;
constexpr std::string_view kFloor = "raw";

std::vector<Backend> selectBackends(const std::vector<std::string>& names) {
    if (names.empty()) return allBackends();
    std::vector<Backend> selected;
    for (const std::string& name : names) {
        const auto& all = allBackends();
        const auto found =
            std::find_if(all.begin(), all.end(), [&](const Backend& b) { return b.name == name; });
        if (found == all.end()) {
            std::fprintf(stderr, "unknown backend %s\n", name.c_str());
            std::exit(EXIT_FAILURE);
        }
        selected.push_back(*found);
    }
    return selected;
}

// One backend's median per-callback cost over the timed rounds of one block.
struct BlockCost {
    double wallNs;
    double cpuNs;
};

// One backend's turn in a block: start its loop, warm up, time the rounds, stop it.
BlockCost runBlock(const Backend& backend, Workload& workload, const Options& options) {
    const std::unique_ptr<RunningLoop> loop = backend.start(workload);
    clockid_t loopCpuClock;
    if (pthread_getcpuclockid(loop->thread(), &loopCpuClock) != 0) std::abort();
    for (int r = 0; r < options.warmup; ++r) workload.runRound(loopCpuClock);
    const double callbacks = static_cast<double>(workload.callbacksPerRound());
    std::vector<double> wall;
    std::vector<double> cpu;
    if (options.callgrind) startCounting();
    for (int r = 0; r < options.rounds; ++r) {
        const Workload::RoundTime time = workload.runRound(loopCpuClock);
        wall.push_back(static_cast<double>(time.wallNs) / callbacks);
        cpu.push_back(static_cast<double>(time.cpuNs) / callbacks);
    }
    if (options.callgrind) stopCounting();
    return {median(std::move(wall)), median(std::move(cpu))};
}

// Per-block costs of one backend and their ratios to the floor's in the same block.
struct Series {
    std::vector<double> ns;
    std::vector<double> ratio;
};

struct Row {
    size_t pairs;
    size_t active;
    std::string backend;
    Series wall;
    Series cpu;
};

void addRatios(Series& series, const Series& floor) {
    for (size_t b = 0; b < series.ns.size(); ++b)
        series.ratio.push_back(series.ns[b] / floor.ns[b]);
}

std::vector<Row> measure(const std::vector<Backend>& backends, Workload& workload,
                         const Options& options) {
    const size_t count = backends.size();
    std::vector<Row> rows;
    for (const Backend& backend : backends) {
        rows.push_back({workload.pairs().size(), 0, std::string(backend.name), {}, {}});
    }
    for (int block = 0; block < options.blocks; ++block) {
        // Each block starts with a different backend so none always follows the same one.
        for (size_t k = 0; k < count; ++k) {
            const size_t which = (static_cast<size_t>(block) + k) % count;
            const BlockCost cost = runBlock(backends[which], workload, options);
            rows[which].wall.ns.push_back(cost.wallNs);
            rows[which].cpu.ns.push_back(cost.cpuNs);
        }
    }
    const auto floor = std::find_if(rows.begin(), rows.end(),
                                    [](const Row& row) { return row.backend == kFloor; });
    if (floor == rows.end()) return rows;
    for (Row& row : rows) {
        addRatios(row.wall, floor->wall);
        addRatios(row.cpu, floor->cpu);
    }
    return rows;
}

void printTableHeader(const Options& options) {
    std::printf(
        "\n# per callback: median over %d blocks of the median of %d rounds; wall: elapsed,"
        " cpu: the loop thread's CPU time; ratio: median over blocks of the per-block"
        " ratio to raw [min..max]\n",
        options.blocks, options.rounds);
    std::printf("%7s %5s  %-9s %9s %6s %13s  %9s %6s %13s\n", "N", "A", "backend", "wall ns",
                "ratio", "range", "cpu ns", "ratio", "range");
}

void printSeries(const Series& series) {
    std::printf("  %9.1f", median(series.ns));
    if (series.ratio.empty()) {
        std::printf(" %6s %13s", "-", "-");
        return;
    }
    std::printf(" %6.3f %6.3f..%5.3f", median(series.ratio), minimum(series.ratio),
                maximum(series.ratio));
}

void printRow(const Row& row) {
    std::printf("%7zu %5zu  %-9s", row.pairs, row.active, row.backend.c_str());
    printSeries(row.wall);
    printSeries(row.cpu);
    std::printf("\n");
}

void writeSeries(std::ofstream& out, const Series& series) {
    out << ',' << median(series.ns) << ',' << minimum(series.ns) << ',' << maximum(series.ns);
    if (series.ratio.empty()) {
        out << ",,,";
        return;
    }
    out << ',' << median(series.ratio) << ',' << minimum(series.ratio) << ','
        << maximum(series.ratio);
}

void writeCsv(const std::string& path, const std::vector<Row>& rows, const Options& options) {
    std::ofstream out(path);
    out << "pairs,active,backend,blocks,rounds,callbacks_per_round,"
           "wall_ns,wall_ns_min,wall_ns_max,wall_ratio,wall_ratio_min,wall_ratio_max,"
           "cpu_ns,cpu_ns_min,cpu_ns_max,cpu_ratio,cpu_ratio_min,cpu_ratio_max\n";
    for (const Row& row : rows) {
        out << row.pairs << ',' << row.active << ',' << row.backend << ',' << options.blocks << ','
            << options.rounds << ',' << row.active + static_cast<size_t>(options.writes);
        writeSeries(out, row.wall);
        writeSeries(out, row.cpu);
        out << '\n';
    }
}

// One line per backend and block, so that a reader can pair blocks and take its own
// statistics of them.
void writeBlocksCsv(const std::string& path, const std::vector<Row>& rows) {
    std::ofstream out(path);
    out << "pairs,active,backend,block,wall_ns,cpu_ns\n";
    for (const Row& row : rows) {
        for (size_t b = 0; b < row.wall.ns.size(); ++b) {
            out << row.pairs << ',' << row.active << ',' << row.backend << ',' << b << ','
                << row.wall.ns[b] << ',' << row.cpu.ns[b] << '\n';
        }
    }
}

}  // namespace

int run(int argc, char** argv) {
    const Options options = parseOptions(argc, argv);
    const std::vector<Backend> backends = selectBackends(options.backends);

    const size_t largest = *std::max_element(options.pairCounts.begin(), options.pairCounts.end());
    const size_t wanted = 2 * largest + kSpareFds;
    const FdLimit limit = raiseFdLimit(wanted);
    std::printf("# RLIMIT_NOFILE: wanted %zu, using soft %zu, hard %zu\n", wanted, limit.soft,
                limit.hard);
    const size_t fitting = limit.soft > kSpareFds ? (limit.soft - kSpareFds) / 2 : 0;

    std::vector<Row> all;
    for (const size_t requested : options.pairCounts) {
        const size_t pairCount = std::min(requested, fitting);
        if (pairCount != requested) {
            std::printf("# N=%zu does not fit the descriptor limit: using N=%zu\n", requested,
                        pairCount);
        }
        const SocketPairs pairs(pairCount);
        for (const size_t active : options.activeCounts) {
            if (active > pairCount) continue;
            Workload workload(pairs, active, options.writes);
            for (Row& row : measure(backends, workload, options)) {
                row.active = active;
                all.push_back(std::move(row));
            }
            if (options.callgrind) {
                std::printf("callgrind_callbacks=%zu\n",
                            workload.callbacksPerRound() * static_cast<size_t>(options.rounds) *
                                static_cast<size_t>(options.blocks) * backends.size());
            }
            std::fflush(stdout);
        }
    }

    printTableHeader(options);
    for (const Row& row : all) printRow(row);
    if (!options.csvPath.empty()) writeCsv(options.csvPath, all, options);
    if (!options.blocksCsvPath.empty()) writeBlocksCsv(options.blocksCsvPath, all);
    return EXIT_SUCCESS;
}

}  // namespace tavrel::bench

int main(int argc, char** argv) {
    return tavrel::bench::run(argc, argv);
}
