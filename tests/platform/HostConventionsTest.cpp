// The host's conventions: fdsan at every close, ANDROID_LOG_TAGS, property mistakes.
#include <tuple>

#include "common/Support.h"
#include "tavrel/platform/AndroidLogTags.h"

namespace {

using namespace tavrel::host;
using namespace testing::internal;
using namespace NSCam::Utils::Properties;

// A number far above what the program opens, the same in a re-run death-test child.
constexpr int kOwnedFd = 901;
const std::string kOwner = "owned by 0x100000000000abc";

// kOwnedFd, open and owned.
int ownedFd() {
    const int source = eventfd(0, EFD_CLOEXEC);
    dup2(source, kOwnedFd);
    close(source);
    zelcam_fdsan_exchange_tag(kOwnedFd, 0, zelcam_fdsan_create_tag(0xabc, 1), 1);
    return kOwnedFd;
}

// What stderr showed since CaptureStderr(): its start, as long as `expected`; an empty
// `expected` means nothing at all.
void expectCaptured(const std::string& expected) {
    EXPECT_EQ(GetCapturedStderr().substr(0, expected.empty() ? std::string::npos : expected.size()),
              expected);
}

TEST(HostFdsanDeathTest, PlainCallsOnAnOwnedDescriptorMeetTheReactionAtOnce) {
    const std::pair<void (*)(int), std::string> cases[] = {
        {[](int fd) { close(fd); }, "close fd 901 with tag 0x0 " + kOwner},
        {[](int fd) { dup2(STDIN_FILENO, fd); }, "dup2 onto fd 901 but it is " + kOwner},
        {[](int fd) { dup3(STDIN_FILENO, fd, 0); }, "dup3 onto fd 901 but it is " + kOwner},
    };
    for (const auto& [call, report] : cases) {
        EXPECT_DEATH(call(ownedFd()), "^fdsan: attempted to " + report + "\n");
    }
}

// Warned once or off, the close goes on and the tag goes with the descriptor.
TEST(HostFdsanTest, ClosesGoOnUnderTheMilderReactions) {
    for (const FdsanReaction reaction : {FdsanReaction::kWarnOnce, FdsanReaction::kOff}) {
        setFdsanReaction(reaction);
        CaptureStderr();
        EXPECT_EQ(close(ownedFd()), 0);
        expectCaptured(reaction == FdsanReaction::kOff ? "" : "fdsan W ");
        EXPECT_EQ(fdsanGetTag(kOwnedFd), 0u);
        EXPECT_EQ(fcntl(kOwnedFd, F_GETFD), -1);
    }
    setFdsanReaction(FdsanReaction::kFatal);
}

// A line of tag "a" or "b" at one debug level under each filter expression, and the
// start of what stderr shows.
TEST(HostAndroidLogTest, AndroidLogTagsFilterWithLogcatRules) {
    const char* const badRule =
        "tavrel-log: ANDROID_LOG_TAGS rule 'x:Q' left out (expected tag:level or *:level, with "
        "a level of V, D, I, W, E, F or S)\n";
    const std::tuple<const char*, const char*, cam_debug_level_t, const char*> rows[] = {
        {"", "a", CAM_DEBUG_INFO, "a I "},          {"a:W *:S", "a", CAM_DEBUG_WARNING, "a W "},
        {"a:W *:S", "a", CAM_DEBUG_INFO, ""},       {"a:W *:S", "b", CAM_DEBUG_ERROR, ""},
        {"*:E", "b", CAM_DEBUG_ERROR, "b E "},      {"*:w", "b", CAM_DEBUG_INFO, ""},
        {"a *:S", "a", CAM_DEBUG_INFO, "a I "},     {"a:i,a:e", "a", CAM_DEBUG_WARNING, ""},
        {"b:S\ta:E", "a", CAM_DEBUG_ERROR, "a E "}, {"x:Q *:S", "a", CAM_DEBUG_ERROR, badRule},
    };
    for (const auto& [tags, tag, level, said] : rows) {
        CaptureStderr();
        setAndroidLogTags(tags);
        log_dbg_print(tag, level, "line");
        expectCaptured(said);
    }
    setAndroidLogTags(nullptr);
}

// Each mistake is said once, when first set or read; an empty value is no mistake. The
// unknown key's report is checked up to its first host key.
TEST(HostPropertiesTest, MistakesAreReportedOnceNamingKeyAndExpectation) {
    const std::tuple<const char*, const char*, void (*)(), const char*> rows[] = {
        {"tavrel.host.x", "3", [] {},
         "unknown key tavrel.host.x ignored (expected one of tavrel.host.ulog.mode, "},
        {"t.int", "abc", [] { property_get_int32("t.int", 0); },
         "t.int=abc ignored (expected a signed 32-bit number, decimal or 0x hex)\n"},
        {"t.int", "", [] { property_get_int32("t.int", 0); }, nullptr},
        {"t.bool", "maybe", [] { property_get_bool("t.bool", 0); },
         "t.bool=maybe ignored (expected 1, y, yes, on, true, 0, n, no, off or false)\n"},
        {"tavrel.host.perfctrl.affinity", "0-", [] { zelcam_perfctrl_set_affinity(); },
         "tavrel.host.perfctrl.affinity=0- ignored (expected a CPU list such as 0-1,3)\n"},
    };
    for (const auto& [key, value, read, report] : rows) {
        for (const char* said : {report, static_cast<const char*>(nullptr)}) {
            CaptureStderr();
            property_set(key, value);
            read();
            expectCaptured(said != nullptr ? std::string("tavrel-properties: ") + said : "");
        }
        property_set(key, nullptr);
    }
}

}  // namespace
