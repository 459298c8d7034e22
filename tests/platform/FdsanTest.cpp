// Descriptor ownership checks: tags, the three reactions and the exact error texts.
#include <android/log.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <string>
#include <thread>
#include <vector>

#include "tavrel/platform/Fdsan.h"
#include "tavrel/platform/UniqueFd.h"

namespace {

using tavrel::host::fdsanGetTag;
using tavrel::host::FdsanReaction;
using tavrel::host::UniqueFd;

// A fixed number, so that messages of re-executed death-test children are predictable.
constexpr int kFixedFd = 900;
constexpr int kType = 1;
const uint64_t kOwnerTag = zelcam_fdsan_create_tag(0xabc, kType);
const uint64_t kOtherTag = zelcam_fdsan_create_tag(0xdef, kType);

// An eventfd moved to kFixedFd.
UniqueFd fixedFd() {
    UniqueFd source(eventfd(0, EFD_CLOEXEC));
    return UniqueFd(dup2(source.get(), kFixedFd));
}

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1 || errno != EBADF;
}

// Restores the test programs' fatal reaction after each case.
class FdsanTest : public testing::Test {
protected:
    void TearDown() override { tavrel::host::setFdsanReaction(FdsanReaction::kFatal); }
};

// The cases whose child dies, named so that runs leaving death tests out find them.
class FdsanDeathTest : public FdsanTest {};

TEST_F(FdsanTest, OwnedDescriptorClosesWithItsTagAndLosesIt) {
    // The type takes the top byte, whatever the owner's value held there.
    EXPECT_EQ(zelcam_fdsan_create_tag(0xff12345678abcdefUL, 2), 0x0212345678abcdefULL);
    UniqueFd fd(eventfd(0, EFD_CLOEXEC));
    EXPECT_EQ(fdsanGetTag(fd.get()), 0u);
    EXPECT_EQ(zelcam_fdsan_exchange_tag(fd.get(), 0, kOwnerTag, kType), 0);
    EXPECT_EQ(fdsanGetTag(fd.get()), kOwnerTag);
    EXPECT_EQ(zelcam_fdsan_exchange_tag(fd.get(), kOwnerTag, kOtherTag, kType), 0);
    EXPECT_EQ(fdsanGetTag(fd.get()), kOtherTag);
    const int number = fd.release();
    EXPECT_EQ(zelcam_fdsan_close_with_tag(number, kOtherTag, kType), 0);
    EXPECT_EQ(fdsanGetTag(number), 0u);
    EXPECT_FALSE(isOpen(number));
}

// Each misuse of kFixedFd, owned by kOwnerTag, and the report it dies with.
TEST_F(FdsanDeathTest, FatalReactionNamesDescriptorAndBothOwners) {
    const std::pair<void (*)(int), const char*> cases[] = {
        {[](int fd) { zelcam_fdsan_close_with_tag(fd, kOtherTag, kType); },
         "^fdsan: attempted to close fd 900 with tag 0x100000000000def owned by "
         "0x100000000000abc\n"},
        {[](int fd) { zelcam_fdsan_close_with_tag(fd, 0, kType); },
         "^fdsan: attempted to close fd 900 with tag 0x0 owned by 0x100000000000abc\n"},
        {[](int fd) {
             zelcam_fdsan_close_with_tag(fd, kOwnerTag, kType);
             zelcam_fdsan_close_with_tag(fd, kOwnerTag, kType);
         },
         "^fdsan: attempted to close fd 900 with tag 0x100000000000abc owned by 0x0\n"},
        {[](int fd) { zelcam_fdsan_exchange_tag(fd, kOtherTag, 0, kType); },
         "^fdsan: attempted to exchange tag of fd 900 from 0x100000000000def to 0x0 but it is "
         "owned by 0x100000000000abc\n"},
    };
    for (const auto& [misuse, report] : cases) {
        EXPECT_DEATH(
            {
                UniqueFd fd = fixedFd();
                zelcam_fdsan_exchange_tag(fd.get(), 0, kOwnerTag, kType);
                misuse(fd.release());
            },
            report);
    }
}

// Android log lines of the warn_once case, as "priority|tag|text".
std::vector<std::string> gLogged;

void captureLog(const __android_logger_data* data, const char* message) {
    gLogged.push_back(std::to_string(data->priority) + "|" + data->tag + "|" + message);
}

// The first error warns and turns the checks off; from then on errors are silent, closes
// still close and an exchange from the wrong owner is refused.
TEST_F(FdsanTest, WarnOnceWarnsForTheFirstErrorOnlyThenTurnsChecksOff) {
    tavrel::host::setFdsanReaction(FdsanReaction::kWarnOnce);
    gLogged.clear();
    __android_log_set_logger(captureLog);
    UniqueFd first(eventfd(0, EFD_CLOEXEC));
    UniqueFd second(eventfd(0, EFD_CLOEXEC));
    zelcam_fdsan_exchange_tag(first.get(), 0, kOwnerTag, kType);
    zelcam_fdsan_exchange_tag(second.get(), 0, kOwnerTag, kType);
    const int firstNumber = first.release();
    EXPECT_EQ(zelcam_fdsan_close_with_tag(firstNumber, kOtherTag, kType), 0);
    EXPECT_EQ(zelcam_fdsan_exchange_tag(second.get(), kOtherTag, 0, kType), -1);
    EXPECT_EQ(fdsanGetTag(second.get()), kOwnerTag);
    const int secondNumber = second.release();
    EXPECT_EQ(zelcam_fdsan_close_with_tag(secondNumber, 0, kType), 0);
    __android_log_set_logger(__android_log_stderr_logger);

    EXPECT_EQ(gLogged, (std::vector<std::string>{
                           std::to_string(ANDROID_LOG_WARN) +
                           "|fdsan|fdsan: attempted to close fd " + std::to_string(firstNumber) +
                           " with tag 0x100000000000def owned by 0x100000000000abc"}));
    EXPECT_EQ(tavrel::host::fdsanReaction(), FdsanReaction::kOff);
    for (const int number : {firstNumber, secondNumber}) {
        EXPECT_FALSE(isOpen(number));
        EXPECT_EQ(fdsanGetTag(number), 0u);
    }
}

// Descriptors at the top of the hard limit, made usable by raising the soft limit after the
// table was first used, and tagged from several threads at once so that they race to
// install the same chunk.
TEST_F(FdsanTest, TableCoversDescriptorsOfARaisedLimit) {
    constexpr int kThreads = 4;
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    rlimit raised = saved;
    raised.rlim_cur = saved.rlim_max;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
    const int base = static_cast<int>(std::min<rlim_t>(saved.rlim_max, INT_MAX)) - kThreads;
    ASSERT_GT(base, kFixedFd);

    UniqueFd source(eventfd(0, EFD_CLOEXEC));
    std::vector<int> results(kThreads, -1);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            UniqueFd fd(dup2(source.get(), base + t));
            const uint64_t tag = zelcam_fdsan_create_tag(t + 1, kType);
            zelcam_fdsan_exchange_tag(fd.get(), 0, tag, kType);
            const bool tagged = fdsanGetTag(fd.get()) == tag;
            results[t] = tagged ? zelcam_fdsan_close_with_tag(fd.release(), tag, kType) : -1;
        });
    }
    for (std::thread& thread : threads) thread.join();
    setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_EQ(results, std::vector<int>(kThreads, 0));
}

}  // namespace
