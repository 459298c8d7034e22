#include <gtest/gtest.h>

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

// Runs the "ulog-write" child with the logger's four switches set as given.
ChildResult runLogChild(const std::string& mode, const std::string& level, const std::string& mask,
                        const std::string& file, const TempDir& dir) {
    return runWithProperties(
        "ulog-write",
        "tavrel.host.ulog.mode=" + mode + "\ntavrel.host.ulog.details_level=" + level +
            "\ntavrel.host.ulog.details_mask=" + mask + "\ntavrel.host.ulog.file=" + file + "\n",
        dir);
}

// The lines of the "ulog-write" child `pid`, each under its timestamp: its level lines, then
// every writer's lines whole, each from a thread other than the main one.
void expectWrittenLines(const std::vector<std::string>& lines, pid_t pid) {
    ASSERT_EQ(5u + kWriterThreads * kLinesPerWriter, lines.size());
    const std::string id = std::to_string(pid);
    const std::string ids = id + " " + id;
    const std::vector<std::string> levels = {
        ids + " E tavrel-test: an error", ids + " W tavrel-test: a warning",
        ids + " I tavrel-test: cut", ids + " V tavrel-test: verbose",
        ids + " ? tavrel-test: odd level"};
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::vector<std::string> match = matchWhole(
            lines[i], "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6} (.*)");
        ASSERT_FALSE(match.empty()) << lines[i];
        if (i < levels.size()) {
            EXPECT_EQ(levels[i], match[1]);
            continue;
        }
        const std::vector<std::string> fromWriter =
            matchWhole(match[1], id + " ([0-9]+) I tavrel-mt: writer [0-3](\\.*)");
        ASSERT_FALSE(fromWriter.empty()) << match[1];
        EXPECT_NE(id, fromWriter[1]);
        EXPECT_EQ(std::string(kPadding, '.'), fromWriter[2]);
    }
}

TEST(ULoggerTest, PropertiesSetSwitchesAndFileAndLinesNeverInterleave) {
    TempDir dir;
    const std::string log = dir.path() + "/ulog.txt";
    const ChildResult child = runLogChild("0xA", "5", "0x88002000", log, dir);
    ASSERT_EQ(0, child.status) << child.err;
    EXPECT_EQ("mode=10 level=5 mask=0x88002000\n", child.out);
    EXPECT_EQ("", child.err);
    expectWrittenLines(splitLines(readFile(log)), child.pid);
}

TEST(ULoggerTest, BadSwitchValuesGiveDefaultsAndUnopenableFileFallsBackToStderr) {
    TempDir dir;
    const std::string log = dir.path() + "/missing/ulog.txt";
    const ChildResult child = runLogChild("junk", "-1", "0x100000000", log, dir);
    ASSERT_EQ(0, child.status) << child.err;
    EXPECT_EQ("mode=2 level=2 mask=0x0\n", child.out);
    const std::vector<std::string> lines = splitLines(child.err);
    ASSERT_GE(lines.size(), 4u);
    const std::string key = "tavrel-properties: tavrel.host.ulog.";
    const std::string expected = " ignored (expected an unsigned 32-bit number, decimal or 0x hex)";
    EXPECT_EQ(
        (std::vector<std::string>{
            key + "mode=junk" + expected, key + "details_level=-1" + expected,
            key + "details_mask=0x100000000" + expected,
            "tavrel-ulog: cannot open " + log + ": No such file or directory; logging to stderr"}),
        std::vector<std::string>(lines.begin(), lines.begin() + 4));
    expectWrittenLines({lines.begin() + 4, lines.end()}, child.pid);
}

}  // namespace
}  // namespace tavrel::test
