#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "tavrel/platform/Properties.h"

namespace tavrel::test {
namespace {

using NSCam::Utils::Properties::property_get_bool;
using NSCam::Utils::Properties::property_get_int32;

constexpr int32_t kIntDefault = -99;
constexpr int8_t kBoolDefault = 5;

// Keys the file-loading child reports, each as "key=[raw] int bool" or "key unset".
const char* const kDumpedKeys[] = {"plain",       "spaced.key", "empty.value", "dup",
                                   "eq.in.value", "int.hex",    "int.bad",     "bool.on",
                                   "bool.bad",    "never.set"};

void dumpProperties() {
    for (const char* key : kDumpedKeys) {
        char raw[64];
        if (!host::property_get(key, raw, sizeof(raw))) {
            std::printf("%s unset\n", key);
            continue;
        }
        std::printf("%s=[%s] %d %d\n", key, raw, property_get_int32(key, kIntDefault),
                    property_get_bool(key, kBoolDefault));
    }
}
const ChildMode kDumpMode("properties-dump", dumpProperties);

TEST(PropertiesTest, RawValuesAreCopiedTruncatedAndRemoved) {
    host::property_set("tavrel.test.raw", "  spaced value ");
    char out[32] = "untouched";
    ASSERT_TRUE(host::property_get("tavrel.test.raw", out, sizeof(out)));
    EXPECT_STREQ("  spaced value ", out);
    char small[5];
    ASSERT_TRUE(host::property_get("tavrel.test.raw", small, sizeof(small)));
    EXPECT_STREQ("  sp", small);

    host::property_set("tavrel.test.raw", nullptr);
    std::snprintf(out, sizeof(out), "untouched");
    EXPECT_FALSE(host::property_get("tavrel.test.raw", out, sizeof(out)));
    EXPECT_STREQ("untouched", out);
    EXPECT_EQ(kIntDefault, property_get_int32("tavrel.test.raw", kIntDefault));
}

TEST(PropertiesTest, Int32AcceptsDecimalAndHexWithinRangeOnly) {
    const std::vector<std::pair<const char*, int32_t>> cases = {
        {"0", 0},
        {"42", 42},
        {"-42", -42},
        {"+7", 7},
        {"010", 10},
        {"0x1F", 31},
        {"0X1f", 31},
        {"-0x10", -16},
        {"2147483647", 2147483647},
        {"-2147483648", -2147483647 - 1},
        {"2147483648", kIntDefault},
        {"-2147483649", kIntDefault},
        {"0x80000000", kIntDefault},
        {"0x1ffffffffffffffff", kIntDefault},
        {"12abc", kIntDefault},
        {"12 ", kIntDefault},
        {" 12", kIntDefault},
        {"0x", kIntDefault},
        {"-", kIntDefault},
        {"", kIntDefault},
        {"0xg", kIntDefault},
        {"--1", kIntDefault},
    };
    for (const auto& [text, expected] : cases) {
        host::property_set("tavrel.test.int", text);
        EXPECT_EQ(expected, property_get_int32("tavrel.test.int", kIntDefault)) << text;
    }
    host::property_set("tavrel.test.int", nullptr);
    EXPECT_EQ(kIntDefault, property_get_int32("tavrel.test.int", kIntDefault));
}

TEST(PropertiesTest, BoolAcceptsAndroidWordsOnly) {
    const std::vector<std::pair<const char*, int8_t>> cases = {
        {"1", 1},
        {"y", 1},
        {"yes", 1},
        {"on", 1},
        {"true", 1},
        {"0", 0},
        {"n", 0},
        {"no", 0},
        {"off", 0},
        {"false", 0},
        {"TRUE", kBoolDefault},
        {"Yes", kBoolDefault},
        {"2", kBoolDefault},
        {"yes ", kBoolDefault},
        {"", kBoolDefault},
        {"onn", kBoolDefault},
    };
    for (const auto& [text, expected] : cases) {
        host::property_set("tavrel.test.bool", text);
        EXPECT_EQ(expected, property_get_bool("tavrel.test.bool", kBoolDefault)) << text;
    }
    host::property_set("tavrel.test.bool", nullptr);
    EXPECT_EQ(kBoolDefault, property_get_bool("tavrel.test.bool", kBoolDefault));
}

TEST(PropertiesTest, ConcurrentWritersAndReadersEachSeeWholeValues) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 2000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            const std::string key = "tavrel.test.thread" + std::to_string(t);
            for (int i = 0; i < kRounds; ++i) {
                host::property_set(key.c_str(), std::to_string(i).c_str());
                host::property_set("tavrel.test.shared", i % 2 == 0 ? "on" : "off");
                const int8_t shared = property_get_bool("tavrel.test.shared", kBoolDefault);
                ASSERT_TRUE(shared == 0 || shared == 1);
                ASSERT_EQ(i, property_get_int32(key.c_str(), kIntDefault));
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (int t = 0; t < kThreads; ++t) {
        const std::string key = "tavrel.test.thread" + std::to_string(t);
        EXPECT_EQ(kRounds - 1, property_get_int32(key.c_str(), kIntDefault));
        host::property_set(key.c_str(), nullptr);
    }
    host::property_set("tavrel.test.shared", nullptr);
}

TEST(PropertiesTest, FileNamedByEnvironmentIsLoadedAndBadLinesReportedOnce) {
    TempDir dir;
    const std::string file = dir.write("test.prop",
                                       "# comment line\n"
                                       "   # indented comment\n"
                                       "\n"
                                       "plain=value\n"
                                       "  spaced.key   =   spaced value   \n"
                                       "no.equals.here\n"
                                       " = orphan\n"
                                       "empty.value=\n"
                                       "dup=first\n"
                                       "dup=second\n"
                                       "eq.in.value=a=b\n"
                                       "int.hex=0x7fffffff\n"
                                       "int.bad=12abc\n"
                                       "bool.on=on\n"
                                       "bool.bad=maybe");
    const ChildResult child = runChild("properties-dump", {"TAVREL_PROPERTIES=" + file}, dir);
    ASSERT_TRUE(WIFEXITED(child.status));
    EXPECT_EQ(0, WEXITSTATUS(child.status));
    EXPECT_EQ(
        "plain=[value] -99 5\n"
        "spaced.key=[spaced value] -99 5\n"
        "empty.value=[] -99 5\n"
        "dup=[second] -99 5\n"
        "eq.in.value=[a=b] -99 5\n"
        "int.hex=[0x7fffffff] 2147483647 5\n"
        "int.bad=[12abc] -99 5\n"
        "bool.on=[on] -99 1\n"
        "bool.bad=[maybe] -99 5\n"
        "never.set unset\n",
        child.out);
    EXPECT_EQ("tavrel-properties: " + file + ":6: malformed line skipped (no '=')\n" +
                  "tavrel-properties: " + file + ":7: malformed line skipped (empty key)\n",
              child.err);
}

TEST(PropertiesTest, MissingFileIsReportedAndLeavesTheStoreEmpty) {
    TempDir dir;
    const std::string file = dir.path() + "/absent.prop";
    const ChildResult child = runChild("properties-dump", {"TAVREL_PROPERTIES=" + file}, dir);
    ASSERT_TRUE(WIFEXITED(child.status));
    EXPECT_EQ(0, WEXITSTATUS(child.status));
    std::string unset;
    for (const char* key : kDumpedKeys) unset += std::string(key) + " unset\n";
    EXPECT_EQ(unset, child.out);
    EXPECT_EQ("tavrel-properties: cannot open " + file + ": No such file or directory\n",
              child.err);
}

}  // namespace
}  // namespace tavrel::test
