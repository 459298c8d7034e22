// The host platform layer: properties and what they set at load, the unified logger's
// lines, debug print, the trace file, descriptor ownership, crash reports and thread control.

#include "common/Support.h"
#include "tavrel/platform/CrashReporter.h"

namespace tavrel::test {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
namespace Properties = NSCam::Utils::Properties;

TEST(Properties, IntegersAndBooleansParseTheWayAndroidsReadersDo) {
    // Each value, then what property_get_int32 and property_get_bool give with defaults -7, -1.
    // clang-format off
    const char* rows[][2] = {{"42", "42 -1"}, {"-0x1F", "-31 -1"}, {"2147483647", "2147483647 -1"},
        {"2147483648", "-7 -1"}, {"-2147483649", "-7 -1"}, {"12a", "-7 -1"}, {"", "-7 -1"},
        {"1", "1 1"}, {"0", "0 0"}, {"yes", "-7 1"}, {"off", "-7 0"}, {"TRUE", "-7 -1"}};
    // clang-format on
    for (const auto& [raw, parsed] : rows) {
        const ScopedProperty property("test.value", raw);
        EXPECT_EQ(format("%d %d", Properties::property_get_int32("test.value", -7),
                         Properties::property_get_bool("test.value", -1)),
                  parsed)
            << raw;
    }
    char text[4] = "old";
    EXPECT_FALSE(host::property_get("test.value", text, sizeof(text)));
    const ScopedProperty property("test.value", "abcdef");
    EXPECT_TRUE(host::property_get("test.value", text, sizeof(text)));
    EXPECT_STREQ(text, "abc");
}

// Run by the next test in a child whose property file sets everything read at load.
TEST(LoadTime, DISABLED_Settings) {
    char value[64] = {};
    host::property_get("spaced", value, sizeof(value));
    std::printf("spaced=[%s] mode=%u details=%u mask=%#x bits=%#lx tags=%#lx modules=%#lx\n", value,
                ULogger::sMode.load(), ULogger::sDetailsLevel.load(),
                ULogger::sNormalDetailsMask.load(), host::gTavrelTraceBits.load(),
                host::gAtraceEnabledTags.load(), g_logInfoLv[0].enableMask.load());
    ULogger::sULogger.load()->writeLine(0x08002001, "tag", 2, "to the file", 11);
}

TEST(LoadTime, ThePropertyFileSetsSwitchesMasksAndTheLogFileAndReportsBadLines) {
    const TempDir dir;
    const std::string log = dir.path + "/ulog.txt";
    const Outcome child = runWithProperties(
        "LoadTime.DISABLED_Settings",
        "# comment\n  spaced =  two words  \nno equals sign\n=empty "
        "key\ntavrel.host.ulog.mode=0x3\n"
        "tavrel.host.ulog.details_level=4\ntavrel.host.ulog.details_mask=134225920\n"
        "tavrel.host.trace.bits=0x30\ntavrel.host.trace.tags=1024\n"
        "tavrel.host.dbgprint.modules=0x1\ntavrel.host.ulog.file=" +
            log + "\n");
    EXPECT_EQ(child.status, 0) << child.out;
    EXPECT_THAT(child.out,
                MatchesRegex(R"(tavrel-properties: \S+:3: malformed line skipped \(no '='\)
tavrel-properties: \S+:4: malformed line skipped \(empty key\)
(.|\n)*)"));
    EXPECT_THAT(child.out, HasSubstr("spaced=[two words] mode=3 details=4 mask=0x8002000 bits=0x30 "
                                     "tags=0x400 modules=0x1\n"));
    EXPECT_EQ(logEntries(readFile(log)), Lines{"W tag: to the file"});
}

TEST(DebugPrint, TheFileTextIsABaseNameWithoutPercent) {
    EXPECT_STREQ(get_filename_log_control("src/utils/sys/Sys%Call"), "Sys_Call");
}

TEST(FdsanDeathTest, ClosingWithAnotherOwnersTagIsFatal) {
    const uint64_t mine = zelcam_fdsan_create_tag(0x1234, 1),
                   theirs = zelcam_fdsan_create_tag(0x99, 1);
    EXPECT_EQ(mine, 0x0100000000001234u);
    const int fd = ::eventfd(0, EFD_CLOEXEC);
    ASSERT_EQ(zelcam_fdsan_exchange_tag(fd, 0, mine, 1), 0);
    const std::string closing =
        format("fdsan: attempted to close fd %d with tag 0x%lx owned by 0x%lx", fd,
               static_cast<unsigned long>(theirs), static_cast<unsigned long>(mine));
    EXPECT_DEATH(zelcam_fdsan_close_with_tag(fd, theirs, 1),
                 entriesAre({closing, "F fdsan: " + closing}));
    EXPECT_EQ(zelcam_fdsan_close_with_tag(fd, mine, 1), 0);
    EXPECT_EQ(host::fdsanGetTag(fd), 0u);
}

TEST(CrashReporterDeathTest, ReportsGoToTheAndroidLogAndNumberedFilesAndTheServiceEndsWith70) {
    const TempDir dir;
    const ScopedProperty crashDir("tavrel.host.crash.dir", dir.path.c_str());
    const StderrCapture err;
    for (const char* text : {"one", "two"})
        NSCam::NSTavrel::tavrel_ruvex_trigger_exception("mod", "%s", text);
    EXPECT_EQ(logEntries(err.text()),
              (Lines{"F tavrel-crash: mod: one", "F tavrel-crash: mod: two"}));
    EXPECT_THAT(readFile(dir.path + format("/tavrel-crash-%d-2.txt", getpid())),
                MatchesRegex(format("module: mod\npid: %d\ntid: %d\ntime: [-0-9T:]+Z\ntext:\ntwo\n",
                                    getpid(), gettid())));
    // stderr made fully buffered: the line reaches the parent only if the service flushes stdio.
    EXPECT_EXIT((std::setvbuf(stderr, nullptr, _IOFBF, BUFSIZ), std::fprintf(stderr, "buffered\n"),
                 NSCam::Utils::terminateService()),
                testing::ExitedWithCode(70), entriesAre({"buffered"}));
}

// The policies' mapping is applied by the monitor's readyToRun tests and the timerlat runs.
TEST(ThreadControl, NumbersOutOfRangeAreRefusedAndNamesCut) {
    std::thread([] {
        const int tid = NSCam::Thread::getThisThread();
        EXPECT_EQ(tid, gettid());
        for (const auto& [policy, priority] :
             {std::make_pair(1, 20), std::make_pair(2, 0), std::make_pair(4, 1)}) {
            EXPECT_EQ(NSCam::Thread::setThreadPriority(tid, priority, policy), -EINVAL) << policy;
        }
        customizeThreadReadyToRun("a-name-longer-than-fifteen", 26);
        char name[16] = {};
        prctl(PR_GET_NAME, name);
        EXPECT_STREQ(name, "a-name-longer-t");
        const ScopedProperty bad("tavrel.host.perfctrl.affinity", "1-");
        EXPECT_EQ(zelcam_perfctrl_set_affinity(), -EINVAL);
    }).join();
}

}  // namespace
}  // namespace tavrel::test
