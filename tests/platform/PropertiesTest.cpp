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

// Keys the file-loading child reports, each as "key=[raw]" or "key unset"; the getters read
// the same store as in this process.
const char* const kDumpedKeys[] = {"plain", "spaced.key",  "empty.value",
                                   "dup",   "eq.in.value", "never.set"};

void dumpProperties() {
    for (const char* key : kDumpedKeys) {
        char raw[64];
        if (host::property_get(key, raw, sizeof(raw))) {
            std::printf("%s=[%s]\n", key, raw);
        } else {
            std::printf("%s unset\n", key);
        }
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

// The key set to `text` (null: removed), read by one of the getters.
int32_t int32Of(const char* text) {
    host::property_set("tavrel.test.value", text);
    return property_get_int32("tavrel.test.value", kIntDefault);
}
int8_t boolOf(const char* text) {
    host::property_set("tavrel.test.value", text);
    return property_get_bool("tavrel.test.value", kBoolDefault);
}

TEST(PropertiesTest, Int32TakesDecimalAndHexWithinRangeAndBoolTheAndroidWordsOnly) {
    const std::pair<const char*, int32_t> numbers[] = {
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
    };
    for (const auto& [text, value] : numbers) EXPECT_EQ(value, int32Of(text)) << text;
    for (const char* text : {"2147483648", "-2147483649", "0x80000000", "0x1ffffffffffffffff",
                             "12abc", "12 ", " 12", "0x", "-", "", "0xg", "--1", "on"}) {
        EXPECT_EQ(kIntDefault, int32Of(text)) << text;
    }
    for (const char* text : {"1", "y", "yes", "on", "true"}) EXPECT_EQ(1, boolOf(text)) << text;
    for (const char* text : {"0", "n", "no", "off", "false"}) EXPECT_EQ(0, boolOf(text)) << text;
    for (const char* text : {"TRUE", "Yes", "2", "yes ", "", "onn"}) {
        EXPECT_EQ(kBoolDefault, boolOf(text)) << text;
    }
    EXPECT_EQ(kIntDefault, int32Of(nullptr));
    EXPECT_EQ(kBoolDefault, boolOf(nullptr));
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

TEST(PropertiesTest, FileNamedByEnvironmentIsLoadedAndItsFaultsReportedOnce) {
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
                                       "eq.in.value=a=b");
    const ChildResult child = runChild("properties-dump", {"TAVREL_PROPERTIES=" + file}, dir);
    ASSERT_EQ(0, child.status) << child.err;
    EXPECT_EQ(
        "plain=[value]\nspaced.key=[spaced value]\nempty.value=[]\ndup=[second]\n"
        "eq.in.value=[a=b]\nnever.set unset\n",
        child.out);
    EXPECT_EQ("tavrel-properties: " + file + ":6: malformed line skipped (no '=')\n" +
                  "tavrel-properties: " + file + ":7: malformed line skipped (empty key)\n",
              child.err);

    const std::string absent = dir.path() + "/absent.prop";
    const ChildResult missing = runChild("properties-dump", {"TAVREL_PROPERTIES=" + absent}, dir);
    ASSERT_EQ(0, missing.status) << missing.err;
    std::string unset;
    for (const char* key : kDumpedKeys) unset += std::string(key) + " unset\n";
    EXPECT_EQ(unset, missing.out);
    EXPECT_EQ("tavrel-properties: cannot open " + absent + ": No such file or directory\n",
              missing.err);
}

}  // namespace
}  // namespace tavrel::test
