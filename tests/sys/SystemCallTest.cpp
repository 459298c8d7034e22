// The file, directory, eventfd, epoll and timerfd wrappers: results, whole error lines,
// descriptor tags, the silent interrupted wait and the listing of descriptors when the
// process runs out of them.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "common/LogCapture.h"
#include "tavrel/SystemCall.h"
#include "tavrel/platform/Fdsan.h"
#include "tavrel/platform/UniqueFd.h"
#include "utils/sys/SystemCallInternal.h"

namespace {

namespace System = NSCam::NSTavrel::System;
using tavrel::host::UniqueFd;
using tavrel::test::LogCapture;
using tavrel::test::LogSwitches;
using Lines = std::vector<std::string>;

constexpr unsigned long kOwner = 0x5157;
constexpr unsigned long kOtherOwner = 0x5158;
constexpr int kFdsanType = 1;
// Long enough that only the signal can end the wait.
constexpr int kLongWaitMs = 60'000;
constexpr auto kSignalRetry = std::chrono::milliseconds(5);

LogSwitches unifiedOnly() {
    return LogSwitches{2, 5, 0, false};
}

std::string n(int value) {
    return std::to_string(value);
}

// A folder of its own, removed with its content at the end.
class TempDir {
public:
    TempDir() {
        std::string pattern = std::filesystem::temp_directory_path() / "tavrel-sys-XXXXXX";
        if (::mkdtemp(pattern.data()) != nullptr) mPath = pattern;
    }
    ~TempDir() {
        std::error_code ignored;
        if (!mPath.empty()) std::filesystem::remove_all(mPath, ignored);
    }
    const std::string& path() const { return mPath; }

private:
    std::string mPath;  // empty when it could not be made
};

std::string format(const char* fmt, const void* pointer, int fd) {
    char text[256];
    std::snprintf(text, sizeof(text), fmt, fd, pointer);
    return text;
}

std::string sourceLine(int number) {
    std::ifstream in(TAVREL_SOURCE_DIR "/src/utils/sys/SystemCall.cpp");
    std::string line;
    for (int i = 0; i < number && std::getline(in, line); ++i) {
    }
    return line;
}

TEST(FileCall, ReadOfAClosedDescriptor) {
    UniqueFd closed(::eventfd(0, EFD_CLOEXEC));
    const int fd = closed.get();
    closed.reset();
    char buffer[8];
    LogCapture logs;
    EXPECT_EQ(System::Read(fd, buffer, sizeof(buffer)), -EBADF);
    const std::string text =
        format("[Read] read(%d, %p, 8) return -1: err=-9(Bad file descriptor)", buffer, fd);
    const auto unified = logs.unified();
    ASSERT_EQ(unified.size(), 1u);
    EXPECT_EQ(unified[0].text, text);
    EXPECT_EQ(unified[0].tag, "tavrel-syscall");
    EXPECT_EQ(unified[0].level, 1);
    EXPECT_EQ(unified[0].length, static_cast<int>(text.size()));
    const auto debug = logs.debugPrint();
    ASSERT_EQ(debug.size(), 1u);
    EXPECT_EQ(debug[0].level, CAM_DEBUG_ERROR);
    const std::regex whole(
        "\\[tavrel-syscall\\] SystemCall:([0-9]+) Read\\(\\) (.*) "
        "\\(Read\\)\\{#([0-9]+):src/utils/sys/SystemCall\\}");
    std::smatch parts;
    ASSERT_TRUE(std::regex_match(debug[0].text, parts, whole)) << debug[0].text;
    EXPECT_EQ(parts[2], text);
    EXPECT_EQ(parts[1], parts[3]);
    // The number is a line of Read's own error statement, which spans two lines: GCC
    // gives its first, Clang its last.
    const int line = std::stoi(parts[1]);
    const std::string statement = sourceLine(line - 1) + sourceLine(line);
    EXPECT_NE(statement.find("TAVREL_LOGE_IN(fn, \"[%s] read(%d, %p, %zu)"), std::string::npos)
        << statement;
}

std::string badFd(const std::string& call) {
    return call + " return -1: err=-9(Bad file descriptor)";
}

// The shared contract, wrapper by wrapper: a failure returns -errno and writes one whole
// error line (Open two, its own after Stat's); a success writes nothing.
TEST(WrapperCall, FailuresReturnMinusErrnoAndWriteTheirWholeLine) {
    int row = 0;
    const auto expect = [&row](const std::function<long()>& call, long result, const Lines& lines) {
        SCOPED_TRACE("row " + n(++row));
        LogCapture logs(unifiedOnly());
        EXPECT_EQ(call(), result);
        EXPECT_EQ(logs.unifiedTexts(), lines);
    };
    TempDir dir;
    const std::string regular = dir.path() + "/regular";
    std::ofstream(regular) << "data";
    const std::string missing = dir.path() + "/missing";
    UniqueFd epoll(::epoll_create1(EPOLL_CLOEXEC));
    UniqueFd event(::eventfd(1, EFD_CLOEXEC));
    UniqueFd timer(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC));
    UniqueFd closing(::eventfd(0, EFD_CLOEXEC));
    const int closed = closing.get();
    closing.reset();
    // Tagged as if its owner still held it, so that Close reaches close() itself.
    const uint64_t tag = zelcam_fdsan_create_tag(kOwner, kFdsanType);
    ASSERT_EQ(zelcam_fdsan_exchange_tag(closed, 0, tag, kFdsanType), 0);
    const int e = epoll.get();
    const int v = event.get();
    const char data[4] = {};
    char link[16];
    epoll_event interest{EPOLLIN, {}};
    epoll_event ready[2];
    const itimerspec setting{{0, 0}, {100, 0}};
    itimerspec current{};
    const std::string invalid = " return -1: err=-22(Invalid argument)";
    const std::string noEntry = " return -1: err=-2(No such file or directory)";
    const std::string ctl = "epoll_ctl(" + n(e) + ", EPOLL_CTL_";
    const std::string waitArgs = ", maxevents=2, timeout=0)";

    expect([&] { return System::Write(closed, data, sizeof(data)); }, -EBADF,
           {format(badFd("[Write] write(%d, %p, 4)").c_str(), data, closed)});
    expect([&] { return System::Close(closed, kOwner); }, -EBADF,
           {badFd("[Close] close(" + n(closed) + ")")});
    expect([&] { return System::ReadLink("/proc/self/status", link, sizeof(link)); }, -EINVAL,
           {"[ReadLink] readlink(/proc/self/status)" + invalid});
    expect(
        [] { return reinterpret_cast<long>(System::OpenDir("/nonexistent-tavrel")); }, 0,
        {"[OpenDir] opendir(/nonexistent-tavrel) return NULL: err=-2(No such file or directory)"});
    expect([&] { return System::Open(regular.c_str(), O_RDONLY, kOwner); }, -ENODEV,
           {"[Open] Invalid device node: " + regular});
    expect([&] { return System::Open(missing.c_str(), O_RDONLY, kOwner); }, -ENOENT,
           {"[Stat] stat(" + missing + "): No such file or directory",
            "[Open] Invalid device " + missing + ": No such file or directory"});
    expect([] { return System::EventFD(1, -1, kOwner); }, -EINVAL,
           {"[EventFD] eventfd(1, 0xffffffff)" + invalid});
    expect([] { return System::EPollCreate(0, kOwner); }, -EINVAL,
           {"[EPollCreate] epoll_create()" + invalid});
    expect([] { return System::TimerFDCreate(-1, 0, kOwner); }, -EINVAL,
           {"[TimerFDCreate] timerfd_create()" + invalid});
    expect([&] { return System::EPollWait(e, ready, 2, 0); }, 0, {});
    expect([&] { return System::EPollCtlAdd(e, v, &interest); }, 0, {});
    expect([&] { return System::EPollCtlMod(e, v, &interest); }, 0, {});
    expect([&] { return System::EPollWait(e, ready, 2, 0); }, 1, {});
    expect([&] { return System::EPollCtlAdd(e, v, &interest); }, -EEXIST,
           {"[EPollCtlAdd] " + ctl + "ADD, " + n(v) + ") return -1: err=-17(File exists)"});
    expect([&] { return System::EPollCtlDel(e, v, nullptr); }, 0, {});
    expect([&] { return System::EPollCtlDel(e, v, nullptr); }, -ENOENT,
           {"[EPollCtlDel] " + ctl + "DEL, " + n(v) + ")" + noEntry});
    expect([&] { return System::EPollCtlMod(e, v, &interest); }, -ENOENT,
           {"[EPollCtlMod] " + ctl + "MOD, " + n(v) + ")" + noEntry});
    expect([&] { return System::EPollWait(v, ready, 2, 0); }, -EINVAL,
           {"[EPollWait] epoll_wait(" + n(v) + waitArgs + invalid});
    expect([&] { return System::EPollWait(closed, ready, 2, 0); }, -EBADF,
           {badFd("[EPollWait] epoll_wait(" + n(closed) + waitArgs)});
    expect([&] { return System::TimerFDSetTime(timer.get(), 0, &setting, nullptr); }, 0, {});
    expect([&] { return System::TimerFDGetTime(timer.get(), &current); }, 0, {});
    // What TimerFDGetTime read back is the setting made through TimerFDSetTime.
    EXPECT_GT(current.it_value.tv_sec, 0);
    expect([&] { return System::TimerFDSetTime(closed, 0, &setting, nullptr); }, -EBADF,
           {badFd("[TimerFDSetTime] timerfd_settime(" + n(closed) + ")")});
    expect([&] { return System::TimerFDGetTime(closed, &current); }, -EBADF,
           {badFd("[TimerFDGetTime] timerfd_gettime(" + n(closed) + ")")});
}

TEST(WrapperCall, CreatedDescriptorsCarryTheirOwnersTag) {
    const uint64_t tag = zelcam_fdsan_create_tag(kOwner, kFdsanType);
    LogCapture logs(unifiedOnly());
    for (const int fd : {System::Open("/dev/null", O_RDONLY | O_CLOEXEC, kOwner),
                         System::EventFD(0, EFD_CLOEXEC, kOwner), System::EPollCreate(1, kOwner),
                         System::TimerFDCreate(CLOCK_MONOTONIC, TFD_CLOEXEC, kOwner)}) {
        ASSERT_GE(fd, 0);
        EXPECT_EQ(tavrel::host::fdsanGetTag(fd), tag);
        EXPECT_EQ(System::Close(fd, kOwner), 0);
        EXPECT_EQ(tavrel::host::fdsanGetTag(fd), 0u);
    }
    EXPECT_TRUE(logs.unified().empty());
}

TEST(EventCallDeathTest, ClosingWithAnotherOwnerIsCaught) {
    const int fd = System::EventFD(0, EFD_CLOEXEC, kOwner);
    ASSERT_GE(fd, 0);
    char expected[160];
    std::snprintf(expected, sizeof(expected),
                  "fdsan: attempted to close fd %d with tag 0x%" PRIx64 " owned by 0x%" PRIx64, fd,
                  zelcam_fdsan_create_tag(kOtherOwner, kFdsanType),
                  zelcam_fdsan_create_tag(kOwner, kFdsanType));
    EXPECT_DEATH(System::Close(fd, kOtherOwner), expected);
    EXPECT_EQ(System::Close(fd, kOwner), 0);
}

void ignoreSignal(int) {}

TEST(EventCall, InterruptedWaitIsSilent) {
    struct sigaction handler {};
    handler.sa_handler = ignoreSignal;  // no SA_RESTART: the wait returns EINTR
    struct sigaction previous {};
    ASSERT_EQ(::sigaction(SIGUSR1, &handler, &previous), 0);
    UniqueFd epoll(::epoll_create1(EPOLL_CLOEXEC));
    epoll_event ready[1];
    LogCapture logs;
    std::atomic<bool> done{false};
    const pthread_t waiter = pthread_self();
    // Repeats the signal: one sent before the wait began would be lost.
    std::thread sender([&] {
        while (!done.load()) {
            pthread_kill(waiter, SIGUSR1);
            std::this_thread::sleep_for(kSignalRetry);
        }
    });
    EXPECT_EQ(System::EPollWait(epoll.get(), ready, 1, kLongWaitMs), -EINTR);
    done.store(true);
    sender.join();
    ::sigaction(SIGUSR1, &previous, nullptr);
    EXPECT_TRUE(logs.unified().empty());
    EXPECT_TRUE(logs.debugPrint().empty());
}

// The first block device under /dev, or an empty text.
std::string findBlockDevice() {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/dev", error)) {
        if (entry.is_block_file(error)) return entry.path();
    }
    return {};
}

TEST(FileCall, OpenAcceptsABlockDevice) {
    const std::string device = findBlockDevice();
    if (device.empty()) GTEST_SKIP() << "no block device under /dev on this machine";
    LogCapture logs(unifiedOnly());
    // O_PATH needs no permission on the device itself.
    const int fd = System::Open(device.c_str(), O_PATH | O_CLOEXEC, kOwner);
    ASSERT_GE(fd, 0) << device;
    EXPECT_EQ(System::Close(fd, kOwner), 0);
    EXPECT_TRUE(logs.unifiedTexts().empty());
}

TEST(FileCall, EndOfDirectoryIsLoggedAsAnError) {
    TempDir dir;
    LogCapture logs(unifiedOnly());
    DIR* stream = System::OpenDir(dir.path().c_str());
    ASSERT_NE(stream, nullptr);
    std::set<std::string> names;
    for (int i = 0; i < 2; ++i) names.insert(System::ReadDir(stream)->d_name);
    EXPECT_EQ(names, (std::set<std::string>{".", ".."}));
    errno = 0;
    EXPECT_EQ(System::ReadDir(stream), nullptr);
    EXPECT_EQ(System::CloseDir(stream), 0);
    EXPECT_EQ(logs.unifiedTexts(), Lines{"[ReadDir] readdir() return NULL: err=0(Success)"});
}

// procfs gives every descriptor link a size of 64 whatever its target, and the listing
// sizes its buffer from that, so a longer target shows only its first 64 bytes.
constexpr size_t kProcFdLinkSize = 64;

std::string listingLine(const std::string& name, const std::string& target) {
    return "[dumpProcessFileState] " + name + " -> " + target.substr(0, kProcFdLinkSize);
}

// What the descriptor listing should say now: one line per open descriptor, the listing's
// own directory stream included (it takes the number this scan's stream had).
Lines currentDescriptors() {
    Lines lines;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", error)) {
        const std::string target = std::filesystem::read_symlink(entry.path(), error);
        lines.push_back(listingLine(entry.path().filename().string(), target));
    }
    return lines;
}

Lines sorted(Lines lines) {
    std::sort(lines.begin(), lines.end());
    return lines;
}

// Regression: a descriptor inherited from the runner with a long path (its log file) made
// the listing differ from an untruncated expectation. A long target of our own keeps the
// cut exercised wherever the suite runs.
TEST(ErrnoReaction, OutOfDescriptorsListsThemAtInfoLevel) {
    TempDir dir;
    const std::string longPath = dir.path() + "/" + std::string(2 * kProcFdLinkSize, 'n');
    UniqueFd longTarget(::open(longPath.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    ASSERT_TRUE(longTarget.ok()) << longPath;
    UniqueFd extra(::eventfd(0, EFD_CLOEXEC));
    LogCapture logs(LogSwitches{2, 3, 0, false});
    const Lines expected = currentDescriptors();
    NSCam::NSTavrel::System::internal::handleErrno(EMFILE);
    const Lines listed = sorted(logs.unifiedTexts());
    EXPECT_EQ(listed, sorted(expected));
    for (const auto& line : logs.unified()) EXPECT_EQ(line.level, 3);
    const auto has = [&listed](const std::string& line) {
        return std::find(listed.begin(), listed.end(), line) != listed.end();
    };
    EXPECT_TRUE(
        has("[dumpProcessFileState] " + std::to_string(extra.get()) + " -> anon_inode:[eventfd]"));
    EXPECT_TRUE(has("[dumpProcessFileState] " + std::to_string(longTarget.get()) + " -> " +
                    longPath.substr(0, kProcFdLinkSize)));
}

TEST(ErrnoReaction, NothingListedBelowInfoOrForOtherErrors) {
    LogCapture logs(LogSwitches{3, 2, 0, true});
    NSCam::NSTavrel::System::internal::handleErrno(EMFILE);
    EXPECT_TRUE(logs.unified().empty());
    EXPECT_TRUE(logs.debugPrint().empty());
    logs.clear();
    NSCam::Utils::ULog::ULogger::sDetailsLevel.store(5);
    NSCam::NSTavrel::System::internal::handleErrno(ENFILE);
    NSCam::NSTavrel::System::internal::handleErrno(EBADF);
    EXPECT_TRUE(logs.unified().empty());
}

// At the descriptor limit, a wrapper fails with EMFILE and the listing cannot open its
// directory either: one error line and nothing listed.
void exhaustDescriptors() {
    LogCapture logs(unifiedOnly());
    // UndefinedBehaviorSanitizer checks the logger's dynamic type by probing memory through
    // a pipe, which cannot be opened at the limit. One line logged beforehand puts the type
    // in the checker's cache, so the line under test is checked without a probe.
    char byte = 0;
    System::Read(-1, &byte, sizeof(byte));
    logs.clear();
    UniqueFd probe(::eventfd(0, EFD_CLOEXEC));
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) _exit(2);
    limit.rlim_cur = static_cast<rlim_t>(probe.get());
    probe.reset();
    // Every number below the probe's is taken, so nothing can be opened any more.
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) _exit(2);
    const int result = System::EventFD(0, 0, kOwner);
    for (const std::string& text : logs.unifiedTexts()) std::fprintf(stderr, "%s\n", text.c_str());
    std::fprintf(stderr, "result %d\n", result);
    std::fflush(stderr);
    _exit(0);
}

TEST(ErrnoReactionDeathTest, AtTheLimitNothingIsListed) {
    EXPECT_EXIT(exhaustDescriptors(), testing::ExitedWithCode(0),
                "^\\[EventFD\\] eventfd\\(0, 0\\) return -1: err=-24\\(Too many open files\\)\n"
                "result -24\n$");
}

}  // namespace
