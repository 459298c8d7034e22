// The wrappers of files, directories and event primitives: result, error line on both
// routes and trace section of each. (The stress test interrupts waits with signals; the
// monitor's death test reaches the descriptor limit.)
#include <dirent.h>

#include "common/Support.h"

namespace tavrel::test {
namespace {

constexpr unsigned long kOwner = 0x5ca1ab1e;

// One wrapper call with only its trace category on: its result, its error lines (or none)
// on both routes, its section.
void expectCall(const char* section, int bit, const std::function<int64_t()>& call, int64_t result,
                const Lines& lines) {
    const TraceCapture trace(uint64_t{1} << bit);
    const LogCapture capture;
    EXPECT_EQ(call(), result) << section << " " << lines.size();
    Lines unified, debug;
    for (const std::string& line : lines) {
        const std::string fn = line.substr(1, line.find(']') - 1);
        unified.push_back(format("1 tavrel-syscall 0x8002001 %zu ", line.size()) + line);
        debug.push_back("1 tavrel-syscall [tavrel-syscall] SystemCall:N " + fn + "() " + line +
                        " (" + fn + "){#N:src/utils/sys/SystemCall}");
    }
    EXPECT_EQ(capture.unified(), unified);
    EXPECT_EQ(capture.debug(), debug);
    EXPECT_EQ(trace.markers(), (Lines{std::string("B|") + section, "E"}));
}

// System::fn called with `args` under trace category `bit`; its section is the call's name.
#define EXPECT_CALL_GIVES(bit, fn, args, result, ...) \
    expectCall(                                       \
        #fn, bit, [&]() -> int64_t { return System::fn args; }, result, Lines{__VA_ARGS__})

TEST(SystemCall, EachWrapperHasItsResultErrorLineAndTraceSection) {
    const TempDir temp;
    const std::string missing = temp.path + "/missing", file = temp.write("plain", "x");
    const char *m = missing.c_str(), *f = file.c_str();
    const UniqueFd ep(::epoll_create1(EPOLL_CLOEXEC)), efd(::eventfd(0, EFD_CLOEXEC)),
        other(::eventfd(0, 0));
    const int e = ep.get(), a = efd.get(), o = other.get();
    epoll_event event{EPOLLIN, {}}, ready[4];
    ::epoll_ctl(e, EPOLL_CTL_ADD, a, &event);
    DIR *atEnd = ::opendir(temp.path.c_str()), *broken = ::opendir(temp.path.c_str());
    while (::readdir(atEnd) != nullptr) continue;
    char buffer[16] = {};
    itimerspec spec{};
    struct stat st {};
    const std::string noEntry = "No such file or directory", enoent = "-2(" + noEntry + ")";
    const std::string ebadf = "-9(Bad file descriptor)", badFd = "return -1: err=" + ebadf;
    const std::string invalid = "return -1: err=-22(Invalid argument)",
                      at = format("%p", static_cast<void*>(buffer));
    EXPECT_CALL_GIVES(0, Read, (-1, buffer, 8), -9, "[Read] read(-1, " + at + ", 8) " + badFd);
    EXPECT_CALL_GIVES(0, Write, (-1, buffer, 8), -9, "[Write] write(-1, " + at + ", 8) " + badFd);
    EXPECT_CALL_GIVES(0, Open, (m, O_RDONLY, kOwner), -2,
                      "[Stat] stat(" + missing + "): " + noEntry,
                      "[Open] Invalid device " + missing + ": " + noEntry);
    EXPECT_CALL_GIVES(0, Open, (f, O_RDONLY, kOwner), -19, "[Open] Invalid device node: " + file);
    EXPECT_CALL_GIVES(0, Open, ("/dev/null", O_RDONLY | O_DIRECTORY, kOwner), -20,
                      "[Open] open(/dev/null) return -1: err=-20(Not a directory)");
    host::setFdsanReaction(host::FdsanReaction::kOff);  // -1 carries no tag
    EXPECT_CALL_GIVES(0, Close, (-1, kOwner), -9, "[Close] close(-1) " + badFd);
    host::setFdsanReaction(host::FdsanReaction::kFatal);
    EXPECT_CALL_GIVES(2, Stat, (m, &st), -2, "[Stat] stat(" + missing + "): " + noEntry);
    EXPECT_CALL_GIVES(0, ReadLink, (f, buffer, sizeof(buffer)), -22,
                      "[ReadLink] readlink(" + file + ") " + invalid);
    expectCall("OpenDir", 0, [&] { return int64_t(System::OpenDir(m) != nullptr); }, 0,
               {"[OpenDir] opendir(" + missing + ") return NULL: err=" + enoent});
    // The end of a directory leaves errno as it was.
    expectCall("ReadDir", 0,
               [&] { return int64_t((errno = 0, System::ReadDir(atEnd) != nullptr)); }, 0,
               {"[ReadDir] readdir() return NULL: err=0(Success)"});
    // Its descriptor closed only now: the capture's trace file would take the number.
    EXPECT_CALL_GIVES(0, CloseDir, ((::close(::dirfd(broken)), broken)), -9,
                      "[CloseDir] closedir() " + badFd);
    EXPECT_CALL_GIVES(0, CloseDir, (atEnd), 0);
    EXPECT_CALL_GIVES(0, EventFD, (0, -1, kOwner), -22,
                      "[EventFD] eventfd(0, 0xffffffff) " + invalid);
    EXPECT_CALL_GIVES(0, EPollCreate, (0, kOwner), -22, "[EPollCreate] epoll_create() " + invalid);
    EXPECT_CALL_GIVES(0, TimerFDCreate, (-1, 0, kOwner), -22,
                      "[TimerFDCreate] timerfd_create() " + invalid);
    EXPECT_CALL_GIVES(1, EPollCtlAdd, (e, a, &event), -17,
                      epollCtlError("Add", e, a, "err=-17(File exists)"));
    EXPECT_CALL_GIVES(1, EPollCtlMod, (e, o, &event), -2,
                      epollCtlError("Mod", e, o, "err=" + enoent));
    EXPECT_CALL_GIVES(1, EPollCtlDel, (e, o, nullptr), -2,
                      epollCtlError("Del", e, o, "err=" + enoent));
    EXPECT_CALL_GIVES(1, EPollWait, (-1, ready, 4, 0), -9,
                      "[EPollWait] epoll_wait(-1, maxevents=4, timeout=0) " + badFd);
    EXPECT_CALL_GIVES(1, EPollWait, (e, ready, 4, 0), 0);
    EXPECT_CALL_GIVES(1, TimerFDSetTime, (-1, 0, &spec, nullptr), -9,
                      "[TimerFDSetTime] timerfd_settime(-1) " + badFd);
    EXPECT_CALL_GIVES(1, TimerFDGetTime, (-1, &spec), -9,
                      "[TimerFDGetTime] timerfd_gettime(-1) " + badFd);
    // Ioctl checks its result only with bit 0 of its flags set.
    EXPECT_CALL_GIVES(2, Ioctl, (-1, 0x5401, buffer, 1), -9, "[Ioctl] ioctl(-1, 0x5401): " + ebadf);
    EXPECT_CALL_GIVES(2, Ioctl, (-1, int(0x80045430), buffer, 3), -9,
                      "[Ioctl] ioctl(-1, 0x80045430): " + ebadf);
    EXPECT_CALL_GIVES(2, Ioctl, (-1, 0x5401, buffer, 0), -1);
    EXPECT_CALL_GIVES(2, Ioctl, (-1, 0x5401, buffer, 2), -1);
}

}  // namespace
}  // namespace tavrel::test
