// The wrappers of files, directories and event primitives: result, error line on both
// routes and trace section of each, and nothing to list at the descriptor limit. (The stress test
// interrupts waits with signals.)
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

#define EXPECT_CALL_GIVES(section, bit, call, result, ...) \
    expectCall(                                            \
        section, bit, [&]() -> int64_t { return call; }, result, Lines{__VA_ARGS__})

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
    ::close(::dirfd(broken));
    char buffer[16] = {};
    itimerspec spec{};
    struct stat st {};
    const std::string badFd = "err=-9(Bad file descriptor)", noEntry = "No such file or directory";
    const std::string invalid = "err=-22(Invalid argument)";
    const std::string at = format("%p", static_cast<void*>(buffer));
    EXPECT_CALL_GIVES("Read", 0, System::Read(-1, buffer, 8), -9,
                      "[Read] read(-1, " + at + ", 8) return -1: " + badFd);
    EXPECT_CALL_GIVES("Write", 0, System::Write(-1, buffer, 8), -9,
                      "[Write] write(-1, " + at + ", 8) return -1: " + badFd);
    EXPECT_CALL_GIVES("Open", 0, System::Open(m, O_RDONLY, kOwner), -2,
                      "[Stat] stat(" + missing + "): " + noEntry,
                      "[Open] Invalid device " + missing + ": " + noEntry);
    EXPECT_CALL_GIVES("Open", 0, System::Open(f, O_RDONLY, kOwner), -19,
                      "[Open] Invalid device node: " + file);
    EXPECT_CALL_GIVES("Open", 0, System::Open("/dev/null", O_RDONLY | O_DIRECTORY, kOwner), -20,
                      "[Open] open(/dev/null) return -1: err=-20(Not a directory)");
    host::setFdsanReaction(host::FdsanReaction::kOff);  // -1 carries no tag
    EXPECT_CALL_GIVES("Close", 0, System::Close(-1, kOwner), -9,
                      "[Close] close(-1) return -1: " + badFd);
    host::setFdsanReaction(host::FdsanReaction::kFatal);
    EXPECT_CALL_GIVES("Stat", 2, System::Stat(m, &st), -2,
                      "[Stat] stat(" + missing + "): " + noEntry);
    EXPECT_CALL_GIVES("ReadLink", 0, System::ReadLink(f, buffer, sizeof(buffer)), -22,
                      "[ReadLink] readlink(" + file + ") return -1: " + invalid);
    EXPECT_CALL_GIVES("OpenDir", 0, System::OpenDir(m) != nullptr, 0,
                      "[OpenDir] opendir(" + missing + ") return NULL: err=-2(" + noEntry + ")");
    // The end of a directory leaves errno as it was.
    EXPECT_CALL_GIVES("ReadDir", 0, (errno = 0, System::ReadDir(atEnd) != nullptr), 0,
                      "[ReadDir] readdir() return NULL: err=0(Success)");
    EXPECT_CALL_GIVES("CloseDir", 0, System::CloseDir(broken), -9,
                      "[CloseDir] closedir() return -1: " + badFd);
    EXPECT_CALL_GIVES("CloseDir", 0, System::CloseDir(atEnd), 0);
    EXPECT_CALL_GIVES("EventFD", 0, System::EventFD(0, -1, kOwner), -22,
                      "[EventFD] eventfd(0, 0xffffffff) return -1: " + invalid);
    EXPECT_CALL_GIVES("EPollCreate", 0, System::EPollCreate(0, kOwner), -22,
                      "[EPollCreate] epoll_create() return -1: " + invalid);
    EXPECT_CALL_GIVES("TimerFDCreate", 0, System::TimerFDCreate(-1, 0, kOwner), -22,
                      "[TimerFDCreate] timerfd_create() return -1: " + invalid);
    const auto ctl = [&](const char* name, const char* op, int fd, const char* err) {
        return format("[EPollCtl%s] epoll_ctl(%d, EPOLL_CTL_%s, %d) return -1: err=%s", name, e, op,
                      fd, err);
    };
    EXPECT_CALL_GIVES("EPollCtlAdd", 1, System::EPollCtlAdd(e, a, &event), -17,
                      ctl("Add", "ADD", a, "-17(File exists)"));
    EXPECT_CALL_GIVES("EPollCtlMod", 1, System::EPollCtlMod(e, o, &event), -2,
                      ctl("Mod", "MOD", o, "-2(No such file or directory)"));
    EXPECT_CALL_GIVES("EPollCtlDel", 1, System::EPollCtlDel(e, o, nullptr), -2,
                      ctl("Del", "DEL", o, "-2(No such file or directory)"));
    EXPECT_CALL_GIVES("EPollWait", 1, System::EPollWait(-1, ready, 4, 0), -9,
                      "[EPollWait] epoll_wait(-1, maxevents=4, timeout=0) return -1: " + badFd);
    EXPECT_CALL_GIVES("EPollWait", 1, System::EPollWait(e, ready, 4, 0), 0);
    EXPECT_CALL_GIVES("TimerFDSetTime", 1, System::TimerFDSetTime(-1, 0, &spec, nullptr), -9,
                      "[TimerFDSetTime] timerfd_settime(-1) return -1: " + badFd);
    EXPECT_CALL_GIVES("TimerFDGetTime", 1, System::TimerFDGetTime(-1, &spec), -9,
                      "[TimerFDGetTime] timerfd_gettime(-1) return -1: " + badFd);
    // Ioctl checks its result only with bit 0 of its flags set.
    EXPECT_CALL_GIVES("Ioctl", 2, System::Ioctl(-1, 0x5401, buffer, 1), -9,
                      "[Ioctl] ioctl(-1, 0x5401): -9(Bad file descriptor)");
    EXPECT_CALL_GIVES("Ioctl", 2, System::Ioctl(-1, int(0x80045430), buffer, 3), -9,
                      "[Ioctl] ioctl(-1, 0x80045430): -9(Bad file descriptor)");
    EXPECT_CALL_GIVES("Ioctl", 2, System::Ioctl(-1, 0x5401, buffer, 0), -1);
    EXPECT_CALL_GIVES("Ioctl", 2, System::Ioctl(-1, 0x5401, buffer, 2), -1);
}

// Exits with what EventFD returned, negated, with every descriptor number in use.
[[noreturn]] void eventFdAtTheLimit() {
    NSCam::Utils::ULog::ULogger::sDetailsLevel = 3;
    limitDescriptors(0);
    _exit(-System::EventFD(0, EFD_CLOEXEC, kOwner));
}

TEST(SystemCallDeathTest, AtTheDescriptorLimitNothingCanBeListed) {
    EXPECT_EXIT(eventFdAtTheLimit(), testing::ExitedWithCode(EMFILE),
                entriesAre({"E tavrel-syscall: [EventFD] eventfd(0, 0x80000) return -1: "
                            "err=-24(Too many open files)"}));
}

}  // namespace
}  // namespace tavrel::test
