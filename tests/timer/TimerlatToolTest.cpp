// The tavrel-timerlat program, run as a user runs it.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "common/ChildCommand.h"

namespace {

struct ToolRun {
    int exitStatus = -1;  // the program's exit status, or -1 if it did not exit
    std::string output;   // standard output and standard error together
};

ToolRun run(const std::string& arguments) {
    // Through the emulator in a cross build (see ChildCommand.h); no word holds a space.
    std::string command;
    for (const std::string& word : tavrel::test::commandFor(TAVREL_TIMERLAT_PATH))
        command += word + " ";
    command += arguments + " 2>&1";
    ToolRun result;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return result;
    char buffer[4096];
    size_t n = 0;
    while ((n = fread(buffer, 1, sizeof(buffer), pipe)) > 0) result.output.append(buffer, n);
    const int status = pclose(pipe);
    if (WIFEXITED(status)) result.exitStatus = WEXITSTATUS(status);
    return result;
}

struct Row {
    std::string label;
    long long count = 0;
    double minUs = 0, avgUs = 0, p50Us = 0, p99Us = 0, maxUs = 0;
    long long overruns = 0;
    double slipUs = 0;
};

// The table rows of the report, in order.
std::vector<Row> rowsOf(const std::string& output) {
    std::vector<Row> rows;
    std::istringstream lines(output);
    std::string line;
    bool inTable = false;
    while (std::getline(lines, line)) {
        if (line.rfind("timer ", 0) == 0) {
            inTable = true;
            continue;
        }
        if (!inTable) continue;
        std::istringstream fields(line);
        Row row;
        if (!(fields >> row.label >> row.count >> row.minUs >> row.avgUs >> row.p50Us >>
              row.p99Us >> row.maxUs >> row.overruns >> row.slipUs)) {
            break;
        }
        rows.push_back(row);
    }
    return rows;
}

TEST(TimerlatToolTest, ShortRunReportsEveryTimerAndTheirSum) {
    constexpr long long kLoops = 200;
    const ToolRun result = run("-t 2 -i 2000 -l 200 -q");
    ASSERT_EQ(result.exitStatus, 0) << result.output;
    const std::vector<Row> rows = rowsOf(result.output);
    std::vector<std::pair<std::string, long long>> counts;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.label);
        counts.emplace_back(row.label, row.count);
        // Deadlines are placed no later than they were: no callback runs before its own.
        EXPECT_GE(row.minUs, 0);
        EXPECT_LE(row.minUs, row.p50Us);
        EXPECT_LE(row.p50Us, row.p99Us);
        EXPECT_LE(row.p99Us, row.maxUs);
        EXPECT_LE(row.minUs, row.avgUs);
        EXPECT_LE(row.avgUs, row.maxUs);
        EXPECT_LE(row.overruns, row.count);
        EXPECT_LT(row.slipUs, 2000);
    }
    EXPECT_EQ(counts, (std::vector<std::pair<std::string, long long>>{
                          {"0", kLoops}, {"1", kLoops}, {"all", 2 * kLoops}}))
        << result.output;
    EXPECT_NE(result.output.find("timers 2  interval 2000 us  clock monotonic"), std::string::npos)
        << result.output;
    EXPECT_NE(result.output.find("histogram (all timers, us):"), std::string::npos);
}

TEST(TimerlatToolTest, DurationEndsTheRunOnBoottime) {
    const ToolRun result = run("--timers 1 --interval 5000 --duration 0.3 --clock boottime -q");
    ASSERT_EQ(result.exitStatus, 0) << result.output;
    const std::vector<Row> rows = rowsOf(result.output);
    ASSERT_EQ(rows.size(), 2u) << result.output;
    // 0.3 s of a 5 ms period: at most 60 expiries, and a loaded machine still gets some.
    EXPECT_GE(rows[0].count, 1);
    EXPECT_LE(rows[0].count, 61);
    EXPECT_NE(result.output.find("clock boottime"), std::string::npos);
}

TEST(TimerlatToolTest, BadOptionsPrintUsageAndExitWithTwo) {
    for (const char* arguments : {"-t 0", "-i abc", "-c realtime", "--bogus", "-l", "extra"}) {
        SCOPED_TRACE(arguments);
        const ToolRun result = run(arguments);
        EXPECT_EQ(result.exitStatus, 2);
        EXPECT_NE(result.output.find("usage: "), std::string::npos) << result.output;
    }
    const ToolRun help = run("--help");
    EXPECT_EQ(help.exitStatus, 0);
    EXPECT_EQ(help.output.rfind("usage: ", 0), 0u) << help.output;
}

}  // namespace
