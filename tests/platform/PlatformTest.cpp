// The host platform layer: properties and what they set at load, the unified logger's
// lines, debug print, the trace file, descriptor ownership, crash reports and thread control.

#include <android/log.h>

#include "common/Support.h"
#include "tavrel/platform/AndroidLogTags.h"
#include "tavrel/platform/CrashReporter.h"

namespace tavrel::test {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
namespace Properties = NSCam::Utils::Properties;

TEST(Properties, IntegersAndBooleansParseTheWayAndroidsReadersDo) {
    // Each value, then what property_get_int32 and property_get_bool give with defaults -7, -1.
    // clang-format off
    const char* rows[][2] = {{"42", "42 -1"}, {"-0xAfaF", "-44975 -1"}, {"2147483647", "2147483647 -1"},
        {"2147483648", "-7 -1"}, {"-2147483649", "-7 -1"}, {"18446744073709551616", "-7 -1"},
        {"12a", "-7 -1"}, {"1-", "-7 -1"}, {"", "-7 -1"}, {"TRUE", "-7 -1"}, {"1", "1 1"}, {"y", "-7 1"},
        {"yes", "-7 1"}, {"on", "-7 1"}, {"true", "-7 1"}, {"0", "0 0"}, {"n", "-7 0"}, {"no", "-7 0"},
        {"off", "-7 0"}, {"false", "-7 0"}};
    // clang-format on
    for (const auto& [raw, parsed] : rows) {
        const ScopedProperty property("test.value", raw);
        EXPECT_EQ(format("%d %d", Properties::property_get_int32("test.value", -7),
                         Properties::property_get_bool("test.value", -1)),
                  parsed)
            << raw;
    }
    char text[4] = "old";
    EXPECT_FALSE(host::property_get("test.value", text, 4) || host::property_get(nullptr, text, 4));
    const ScopedProperty property("test.value", "abcdef");
    EXPECT_TRUE(host::property_get("test.value", nullptr, 0) &&
                host::property_get("test.value", text, sizeof(text)) && text == std::string("abc"));
}

// A tag longer than any fixed header buffer holds: it must come out whole.
const std::string kLongTag(120, 't');

// Run by the next test in a child whose property file sets everything read at load.
TEST(LoadTime, DISABLED_Settings) {
    char value[64] = {};
    host::property_get("spaced", value, sizeof(value));
    std::printf("spaced=[%s] mode=%u details=%u mask=%#x bits=%#lx tags=%#lx modules=%#lx\n", value,
                ULogger::sMode.load(), ULogger::sDetailsLevel.load(),
                ULogger::sNormalDetailsMask.load(), host::gTavrelTraceBits.load(),
                host::gAtraceEnabledTags.load(), g_logInfoLv[0].enableMask.load());
    ULogger::sULogger.load()->writeLine(0x08002001, kLongTag.c_str(), 5, "to the file", 11);
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
    EXPECT_EQ(logEntries(readFile(log)), Lines{"V " + kLongTag + ": to the file"});
}

TEST(DebugPrint, TheFileTextIsABaseNameWithoutPercent) {
    EXPECT_STREQ(get_filename_log_control("src/utils/sys/Sys%Call"), "Sys_Call");
}

// A descriptor number far above what the program opens, the same in a death-test child,
// open and owned by 0xabc (an owner value's bits from 56 up give way to the type).
constexpr int kOwnedFd = 901;
constexpr uint64_t kOwnerTag = 0x0100000000000abc;

int ownedFd() {
    ::dup3(UniqueFd(::eventfd(0, EFD_CLOEXEC)).get(), kOwnedFd, O_CLOEXEC);
    const uint64_t tag = zelcam_fdsan_create_tag(0xff00000000000abc, 1);
    EXPECT_EQ(zelcam_fdsan_exchange_tag(kOwnedFd, 0, tag, 1), 0);
    return kOwnedFd;
}

TEST(FdsanDeathTest, AnyCloseOrDupOntoAnOwnedDescriptorMeetsTheReactionAtOnce) {
    const std::string owner = " owned by 0x100000000000abc";
    const std::pair<void (*)(int), std::string> rows[] = {
        {[](int fd) { zelcam_fdsan_close_with_tag(fd, kOwnerTag + 1, 1); },
         "close fd 901 with tag 0x100000000000abd" + owner},
        {[](int fd) { ::close(fd); }, "close fd 901 with tag 0x0" + owner},
        {[](int fd) { System::Close(fd, 0); }, "close fd 901 with tag 0x0" + owner},
        {[](int fd) { ::dup2(STDIN_FILENO, fd); }, "dup2 onto fd 901 but it is" + owner},
        {[](int fd) { ::dup3(STDIN_FILENO, fd, 0); }, "dup3 onto fd 901 but it is" + owner}};
    for (const auto& [call, report] : rows) {
        EXPECT_DEATH(call(ownedFd()), entriesAre({"fdsan: attempted to " + report,
                                                  "F fdsan: fdsan: attempted to " + report}));
    }
}

// Closed by its owner, warned once or unchecked, the close goes on and the tag goes with
// the descriptor.
TEST(Fdsan, ClosesGoOnForTheOwnerAndUnderTheMilderReactions) {
    EXPECT_EQ(zelcam_fdsan_close_with_tag(ownedFd(), kOwnerTag, 1), 0);
    // Owner 0 means unowned, as on the device: its descriptors carry no tag.
    const int unowned = System::EventFD(0, EFD_CLOEXEC, 0);
    EXPECT_EQ(host::fdsanGetTag(unowned), 0u);
    EXPECT_EQ(System::Close(unowned, 0), 0);
    const Lines warning{
        "W fdsan: fdsan: attempted to close fd 901 with tag 0x0 owned by 0x100000000000abc"};
    for (const auto reaction : {host::FdsanReaction::kWarnOnce, host::FdsanReaction::kOff}) {
        host::setFdsanReaction(reaction);
        const StderrCapture err;
        EXPECT_EQ(::close(ownedFd()), 0);
        EXPECT_EQ(logEntries(err.text()),
                  reaction == host::FdsanReaction::kOff ? Lines{} : warning);
        EXPECT_EQ(host::fdsanGetTag(kOwnedFd), 0u);
        EXPECT_EQ(::fcntl(kOwnedFd, F_GETFD), -1);
    }
    host::setFdsanReaction(host::FdsanReaction::kFatal);
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

// A line of tag "a" or "b" at one debug level under each filter expression, and what
// stderr shows.
TEST(HostAndroidLogTest, AndroidLogTagsFilterWithLogcatRules) {
    const char* const badRule =
        "tavrel-log: ANDROID_LOG_TAGS rule 'x:Q' left out (expected tag:level or *:level, with "
        "a level of V, D, I, W, E, F or S)";
    // clang-format off
    const std::tuple<const char*, const char*, cam_debug_level_t, const char*> rows[] = {
        {"", "a", CAM_DEBUG_INFO, "I a: line"}, {"a:W *:S", "a", CAM_DEBUG_WARNING, "W a: line"},
        {"a:W *:S", "a", CAM_DEBUG_INFO, nullptr}, {"a:W *:S", "b", CAM_DEBUG_ERROR, nullptr},
        {"*:E", "b", CAM_DEBUG_ERROR, "E b: line"}, {"*:w", "b", CAM_DEBUG_INFO, nullptr},
        {"a *:S", "a", CAM_DEBUG_INFO, "I a: line"}, {"a:i,a:e", "a", CAM_DEBUG_WARNING, nullptr},
        {"b:S\ta:E", "a", CAM_DEBUG_ERROR, "E a: line"}, {"x:Q *:S", "a", CAM_DEBUG_ERROR, badRule}};
    // clang-format on
    for (const auto& [tags, tag, level, said] : rows) {
        const StderrCapture err;
        host::setAndroidLogTags(tags);
        log_dbg_print(tag, level, "line");
        EXPECT_EQ(logEntries(err.text()), said != nullptr ? Lines{said} : Lines{}) << tags;
    }
    host::setAndroidLogTags(nullptr);
}

// As `logcat -v threadtime` prints it, each line of a message with its own header.
TEST(HostAndroidLogTest, LinesAreLogcatThreadtime) {
    const StderrCapture err;
    __android_log_write(ANDROID_LOG_WARN, "tag", "one\ntwo\n");
    const std::string header = format(
        "[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} %5d %5d W tag     : ", getpid(),
        gettid());
    EXPECT_THAT(err.text(), MatchesRegex(header + "one\n" + header + "two\n"));
}

// Each mistake is said once, when first set or read; an empty value is no mistake. The
// unknown key's report is checked up to its first host key.
TEST(HostPropertiesTest, MistakesAreReportedOnceNamingKeyAndExpectation) {
    const std::tuple<const char*, const char*, void (*)(), const char*> rows[] = {
        {"tavrel.host.x", "3", [] {},
         "unknown key tavrel.host.x ignored (expected one of tavrel.host.ulog.mode, "},
        {"t.int", "abc", [] { Properties::property_get_int32("t.int", 0); },
         "t.int=abc ignored (expected a signed 32-bit number, decimal or 0x hex)\n"},
        {"t.int", "", [] { Properties::property_get_int32("t.int", 0); }, nullptr},
        {"t.bool", "maybe", [] { Properties::property_get_bool("t.bool", 0); },
         "t.bool=maybe ignored (expected 1, y, yes, on, true, 0, n, no, off or false)\n"},
        {"tavrel.host.perfctrl.affinity", "0-", [] { zelcam_perfctrl_set_affinity(); },
         "tavrel.host.perfctrl.affinity=0- ignored (expected a CPU list such as 0-1,3)\n"},
    };
    for (const auto& [key, value, read, report] : rows) {
        for (const char* said : {report, static_cast<const char*>(nullptr)}) {
            const StderrCapture err;
            host::property_set(key, value);
            read();
            const std::string expected = said ? "tavrel-properties: " + std::string(said) : "";
            EXPECT_EQ(err.text().substr(0, said ? expected.size() : std::string::npos), expected);
        }
        host::property_set(key, nullptr);
    }
}

// Numbers out of their policy's range (nice 20 and -21, real-time 0) and a policy that does not
// exist are refused before the kernel sees them; nice 19 no kernel refuses. A CPU list is
// applied when set, kernel-style. A success is 0 whatever errno held before. The policies' mapping
// and the cut of a long thread name are checked by the monitor's readyToRun test and the timerlat
// runs.
TEST(ThreadControl, NumbersAndCpuListsOutOfRangeAreRefused) {
    std::thread([] {
        const int tid = NSCam::Thread::getThisThread();  // proved by readyToRun's test
        // clang-format off
        for (const auto& [policy, priority, result] : {std::tuple{1, 20, -EINVAL}, {1, -21, -EINVAL},
                 {2, 0, -EINVAL}, {4, 1, -EINVAL}, {1, 19, 0}})
            EXPECT_EQ((errno = EIO, NSCam::Thread::setThreadPriority(tid, priority, policy)), result)
                << priority;
        // clang-format on
        for (const auto& [list, result] :
             {std::pair{"", 0}, {"0-0", 0}, {"1-", -EINVAL}, {"0;1", -EINVAL}}) {
            const ScopedProperty affinity("tavrel.host.perfctrl.affinity", list);
            EXPECT_EQ((errno = EIO, zelcam_perfctrl_set_affinity()), result) << list;
        }
    }).join();
}

}  // namespace
}  // namespace tavrel::test
