// tavrel-timerlat: its command lines, its reports, and the program run as a user runs it.
#include <deque>
#include <iterator>
#include <tuple>

#include "Report.h"
#include "common/Support.h"

namespace tavrel::timerlat {
namespace {

// The settings as "name=value" words.
std::vector<std::string> wordsOf(const Options& p) {
    std::ostringstream s;
    s << "t=" << p.timers << " i=" << p.intervalUs << " d=" << p.distanceUs << " l=" << p.loops
      << " D=" << p.durationSec << " c=" << p.clockName << " sched=" << p.schedGiven << "/"
      << policyName(p.policy) << "/" << p.priority << " a=" << p.cpus << " m=" << p.lockMemory
      << p.holdDmaLatency << " h=" << p.histogramUs << "/" << p.histogramFile
      << " json=" << p.jsonFile << " T=" << p.traceFile << "/" << p.traceAppend << " q=" << p.quiet;
    std::istringstream words(s.str());
    return {std::istream_iterator<std::string>(words), {}};
}

// Arguments, and the settings they change, "help", or "error: " and why. Rows run in turn:
// the one after a parse that stopped inside a bundle starts afresh.
// clang-format off
const std::pair<const char*, const char*> kCommandLines[] = {
    {"-D 1m -c BootTime", "D=60 c=boottime"}, {"-D 1.5h -l 9 -i 50", "i=50 l=9 D=5400"},
    {"-D 2d", "error: bad value for --duration: 2d"}, {"-t 5 -Zq", "error: unknown option -Z"},
    {"-p 80", "sched=1/fifo/80"}, {"-p -5 --policy BATCH", "sched=1/batch/-5"},
    {"--policy rr", "error: --policy rr needs -p 1 to 99"},
    {"--policy other -p 20", "error: priority 20 is out of range for other (-20 to 19)"},
    {"-t 3 -d 500 -a 0-1,3 -m --laptop", "t=3 d=500 a=0-1,3 m=10"},
    {"-t 1024 -d 58652", "error: the last timer's interval (-i + (-t - 1) * -d) is over 60 s"},
    {"-h 99 --histfile h --json j -T t --trace-append", "h=99/h json=j T=t/1"},
    {"--histfile h", "error: --histfile needs -h"}, {"-q --help", "help"},
    {"-m -l", "error: missing argument for -l"}};
// clang-format on

TEST(TimerlatTest, CommandLines) {
    Options defaults;
    defaults.durationSec = kDefaultDurationSec;
    std::deque<std::string> words;  // alive to the end, as a program's arguments are
    for (const auto& [arguments, expected] : kCommandLines) {
        std::istringstream in(std::string("tavrel-timerlat ") + arguments);
        std::vector<char*> argv;
        for (std::string word; in >> word;) argv.push_back(words.emplace_back(word).data());
        Options o;
        std::string text;
        const ParseResult result = parseOptions(argv.size(), argv.data(), &o, &text);
        const std::vector<std::string> got = wordsOf(o), base = wordsOf(defaults);
        for (size_t i = 0; result == ParseResult::kRun && i < got.size(); ++i)
            if (got[i] != base[i]) text += (text.empty() ? "" : " ") + got[i];
        if (result == ParseResult::kHelp) text = "help";
        EXPECT_EQ(result == ParseResult::kBadUsage ? "error: " + text : text, expected)
            << arguments;
    }
}

// Texts in the report, the 3-bucket histogram and the JSON (runs of blanks as one), with the
// monitor thread seen at fifo 80 on the CPUs given and memory locked when there are samples.
const std::tuple<const char*, std::vector<TimerResult>, std::vector<const char*>> kReports[] = {
    {"",
     {{"0", 1000, {}, {}, 0}},
     {"clock monotonic policy ? priority ? cpus ? (no callback ran) memory not locked dma",
      "\n0 0 no samples\nall 0 no samples\n", "\"all\": {\"count\": 0, \"min_us\": null,",
      "\"cycles\": 0, \"min\": 0, \"max\": 0, \"avg\": 0.00, \"cpu\": -1, \"node\": -1,\n"}},
    {"0-1",
     {{"0", 200000, {12000, 250000, 30000}, {1000, 3000}, 4},
      {"1", 300000, {250000, -22500}, {}, 1}},
     {"clock monotonic policy fifo priority 80 cpus 0-1 memory locked dma latency 0 us held\n",
      "\n0 3 12.0 97.3 30.0 250.0 250.0 1 4 2.00\n1 2 -22.5 113.8 -22.5 250.0 250.0 0 1 0.00\n",
      "\nall 5 -22.5 103.9 30.0 250.0 250.0 1 5 2.00\n", "warning: 1 callbacks ran before",
      "{\n \"num_threads\": 2,\n \"resolution_in_ns\": 0,\n \"thread\": {\n \"0\": {\"histogram\": "
      "{}, \"cycles\": 3, \"min\": 12, \"max\": 250, \"avg\": 97.33, \"cpu\": -1, \"node\": -1,\n",
      "\"p99_us\": 250.000, \"max_us\": 250.000, \"overruns\": 1, \"missed\": 4, \"slip_avg_us\"",
      "{\"0\": 1}, \"cycles\": 2, \"min\": 0, \"max\": 250, \"avg\": 113.75,"}},
    {"1",
     {{"0", 1000, {2100}, {}, 0}, {"1", 1000, {500, 1500, 1999, 5000, 6000, 7000, 8000}, {}, 0}},
     {"{\"2\": 1}, \"cycles\": 1, \"min\": 2, \"max\": 2, \"avg\": 2.10, \"cpu\": 1,",
      "\"histogram\": {\"0\": 1, \"1\": 2}, \"cycles\": 7, \"min\": 0, \"max\": 8, \"avg\": 4.29,",
      "# Histogram\n000000 000000\t000001\n000001 000000\t000002\n000002 000001\t000000\n"
      "# Total: 000000001 000000003\n# Min Latencies: 00002 00000\n# Avg Latencies: 00002 "
      "00004\n# Max Latencies: 00002 00008\n# Histogram Overflows: 00000 00004\n# Histogram "
      "Overflow at cycle number:\n# Thread 0:\n# Thread 1: 00003 00004 00005 # 00001 others\n"}},
};

TEST(TimerlatTest, Reports) {
    Options options;
    options.histogramUs = 3;
    for (const auto& [cpus, timers, texts] : kReports) {
        const bool seen = !timers[0].latencies.empty();
        const RunFacts facts{{seen, kFifo, 80, cpus}, seen, "0 us held", 2.0};
        std::ostringstream out;
        printReport(out, options, facts, timers);
        printCyclicHistogram(out, options.histogramUs, timers);
        printJson(out, options, facts, timers);
        const std::string text = std::regex_replace(out.str(), std::regex(" +"), " ");
        for (const char* want : texts) EXPECT_NE(text.find(want), std::string::npos) << text;
    }
}

// Exit status and output (runs of blanks as one) of a shell command in which "%T" runs
// the program.
std::pair<int, std::string> run(const std::string& command) {
    const test::Outcome outcome = test::run(command, TAVREL_TIMERLAT_PATH);
    return {outcome.status, std::regex_replace(outcome.out, std::regex(" +"), " ")};
}

// Two runs into one trace file (the second replaces it: one header, a counter value per
// callback of Timer-0), the monitor thread without -p at SCHED_OTHER and the nice value the
// program started with (this process's), as cyclictest's; then a real-time priority, which
// needs CAP_SYS_NICE or RLIMIT_RTPRIO: this process finds out first whether it has them, and
// so the program.
TEST(TimerlatTest, Runs) {
    const auto [status, output] =
        run("d=$(mktemp -d) && %T -l 3 -q -T $d/t >/dev/null && %T -t 2 -i 2000 -d 500 -l 20 -q -c "
            "BootTime -T $d/t 2>&1 && grep -c -e '# tracer: nop' -e '|Timer-0|' $d/t; s=$?; rm -r "
            "$d; exit $s");
    const std::regex report("clock boottime policy other nice " + std::to_string(nice(0)) +
                            " cpus \\S+ memory not locked dma latency .*\ntimers 2 interval 2000 "
                            "us distance 500 us .*\n.*\n0 20 .*\n1 20 .*\nall 40 [\\s\\S]*\n21\n$");
    EXPECT_TRUE(status == 0 && std::regex_search(output, report)) << output;
    int refused = 0;
    std::thread([&] { refused = NSCam::Thread::setThreadPriority(gettid(), 99, kFifo); }).join();
    const auto [exit, fifo] = run("%T -p 99 -l 5 -q 2>&1");
    const char* says = refused ? "cannot run the monitor thread at policy fifo priority 99: "
                               : "policy fifo priority 99 cpus ";
    EXPECT_TRUE(exit == (refused ? 1 : 0) && fifo.find(says) != std::string::npos) << fifo;
}

}  // namespace
}  // namespace tavrel::timerlat
