#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "tavrel/platform/ULogger.h"

namespace tavrel::test {
namespace {

using NSCam::Utils::ULog::ULogger;

constexpr uint32_t kModuleId = 0x08002001;
constexpr int kWriterThreads = 4;
constexpr int kLinesPerWriter = 200;
constexpr size_t kPadding = 300;  // long lines make interleaving, if any, likely

void printSwitches() {
    std::printf("mode=%u level=%u mask=0x%x\n", ULogger::sMode.load(),
                ULogger::sDetailsLevel.load(), ULogger::sNormalDetailsMask.load());
}

// One line per level; the third passes a length beyond the text, as a caller that cut
// its text does, and its buffer continues past the NUL.
void writeLevels() {
    ULogger* logger = ULogger::sULogger.load();
    logger->writeLine(kModuleId, "tavrel-test", 1, "an error", 8);
    logger->writeLine(kModuleId, "tavrel-test", 2, "a warning", 9);
    const char cut[] = "cut\0beyond the end";
    logger->writeLine(kModuleId, "tavrel-test", 3, cut, 2000);
    logger->writeLine(kModuleId, "tavrel-test", 5, "verbose", 7);
    logger->writeLine(kModuleId, "tavrel-test", 9, "odd level", 9);
}

void logFromThreads() {
    printSwitches();
    writeLevels();
    std::vector<std::thread> writers;
    for (int t = 0; t < kWriterThreads; ++t) {
        writers.emplace_back([t] {
            const std::string text = "writer " + std::to_string(t) + std::string(kPadding, '.');
            for (int i = 0; i < kLinesPerWriter; ++i) {
                ULogger::sULogger.load()->writeLine(kModuleId, "tavrel-mt", 3, text.c_str(),
                                                    static_cast<int>(text.size()));
            }
        });
    }
    for (std::thread& writer : writers) writer.join();
}
const ChildMode kLogMode("ulog-write", logFromThreads);

// The line after its timestamp, or "no timestamp: <line>" when it does not start with one.
std::string afterTimestamp(const std::string& line) {
    const std::vector<std::string> match =
        matchWhole(line, "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6} (.*)");
    if (match.empty()) return "no timestamp: " + line;
    return match[1];
}

std::vector<std::string> levelLines(pid_t pid) {
    const std::string ids = std::to_string(pid) + " " + std::to_string(pid);
    return {ids + " E tavrel-test: an error", ids + " W tavrel-test: a warning",
            ids + " I tavrel-test: cut", ids + " V tavrel-test: verbose",
            ids + " ? tavrel-test: odd level"};
}

TEST(ULoggerTest, PropertiesSetSwitchesAndFileAndLinesNeverInterleave) {
    TempDir dir;
    const std::string log = dir.path() + "/ulog.txt";
    const std::string props = dir.write("ulog.prop",
                                        "tavrel.host.ulog.mode=0xA\n"
                                        "tavrel.host.ulog.details_level=5\n"
                                        "tavrel.host.ulog.details_mask=0x88002000\n"
                                        "tavrel.host.ulog.file=" +
                                            log + "\n");
    const ChildResult child = runChild("ulog-write", {"TAVREL_PROPERTIES=" + props}, dir);
    ASSERT_TRUE(WIFEXITED(child.status));
    EXPECT_EQ(0, WEXITSTATUS(child.status));
    EXPECT_EQ("mode=10 level=5 mask=0x88002000\n", child.out);
    EXPECT_EQ("", child.err);

    const std::vector<std::string> lines = splitLines(readFile(log));
    ASSERT_EQ(5u + kWriterThreads * kLinesPerWriter, lines.size());
    const std::vector<std::string> expected = levelLines(child.pid);
    for (size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(expected[i], afterTimestamp(lines[i]));
    int fromWorkers = 0;
    for (size_t i = expected.size(); i < lines.size(); ++i) {
        const std::string rest = afterTimestamp(lines[i]);
        const std::vector<std::string> match =
            matchWhole(rest, "([0-9]+) ([0-9]+) I tavrel-mt: writer [0-3](\\.*)");
        ASSERT_FALSE(match.empty()) << rest;
        EXPECT_EQ(std::to_string(child.pid), match[1]);
        EXPECT_EQ(std::string(kPadding, '.'), match[3]);
        fromWorkers += match[2] != std::to_string(child.pid) ? 1 : 0;
    }
    EXPECT_EQ(kWriterThreads * kLinesPerWriter, fromWorkers);
}

TEST(ULoggerTest, BadSwitchValuesGiveDefaultsAndUnopenableFileFallsBackToStderr) {
    TempDir dir;
    const std::string log = dir.path() + "/missing/ulog.txt";
    const std::string props = dir.write("ulog.prop",
                                        "tavrel.host.ulog.mode=junk\n"
                                        "tavrel.host.ulog.details_level=-1\n"
                                        "tavrel.host.ulog.details_mask=0x100000000\n"
                                        "tavrel.host.ulog.file=" +
                                            log + "\n");
    const ChildResult child = runChild("ulog-write", {"TAVREL_PROPERTIES=" + props}, dir);
    ASSERT_TRUE(WIFEXITED(child.status));
    EXPECT_EQ(0, WEXITSTATUS(child.status));
    EXPECT_EQ("mode=2 level=2 mask=0x0\n", child.out);

    const std::vector<std::string> lines = splitLines(child.err);
    ASSERT_EQ(6u + kWriterThreads * kLinesPerWriter, lines.size());
    EXPECT_EQ("tavrel-ulog: cannot open " + log + ": No such file or directory; logging to stderr",
              lines[0]);
    const std::vector<std::string> expected = levelLines(child.pid);
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(expected[i], afterTimestamp(lines[i + 1]));
    }
}

}  // namespace
}  // namespace tavrel::test
