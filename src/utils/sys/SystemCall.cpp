// The system-call layer: one checked, logged and traced wrapper per call, each written as
// its row (its rule, its call, its error line) over the contract of CheckedCall.h, and the
// errno reaction that lists the process's descriptors when it has run out of them.
#include "tavrel/SystemCall.h"

#include <fcntl.h>
#include <linux/media.h>
#include <linux/videodev2.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstring>
#include <string>

#include "tavrel/platform/Fdsan.h"
#include "utils/log/FileSettings.h"
#include "utils/log/Log.h"
#include "utils/sys/CheckedCall.h"

namespace NSCam::NSTavrel::System {

using internal::checked;
using internal::Fails;
using internal::handleErrno;
using internal::kNoRoutineErrno;
using internal::Rule;
using internal::zeroOnSuccess;

namespace {

constexpr Log::Site kLogSite{"tavrel-syscall", "src/utils/sys/SystemCall"};

TAVREL_DEFINE_FILE_SETTINGS();

// The request numbers as the driver's 64-bit interface defines them.
static_assert(MEDIA_IOC_REQUEST_ALLOC == 0x80047C05UL);
static_assert(MEDIA_REQUEST_IOC_REINIT == 0x7C81UL);
static_assert(MEDIA_REQUEST_IOC_QUEUE == 0x7C80UL);
static_assert(VIDIOC_QBUF == 0xC058560FUL);
static_assert(VIDIOC_DQBUF == 0xC0585611UL);
static_assert(VIDIOC_DQEVENT == 0x80885659UL);

// Kind of descriptor the fdsan tags of this layer describe.
constexpr int kFdsanType = 1;
// File-type bits that only character (0x2000) and block (0x6000) devices share.
constexpr mode_t kDeviceTypeMask = 0xB000;
constexpr mode_t kDeviceTypeBits = 0x2000;

// Where the process's descriptors are listed, one symbolic link each.
constexpr const char* kFdFolder = "/proc/self/fd";
// Link buffer size when lstat reports no length. procfs reports 64 for every descriptor
// link, so the listing shows the first 64 bytes of a longer target.
constexpr size_t kUnknownLinkSize = 4096;

// Gives a newly created descriptor its owner's tag; failures pass through untouched.
int tagged(int fd, unsigned long owner) {
    if (fd < 0) return fd;
    zelcam_fdsan_exchange_tag(fd, 0, zelcam_fdsan_create_tag(owner, kFdsanType), kFdsanType);
    return fd;
}

// Logs where one descriptor of the process leads. Uses the C library directly: a failure
// here must not re-enter the errno reaction.
void dumpProcessFileState(const dirent& entry) {
    const std::string path = std::string(kFdFolder) + "/" + entry.d_name;
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) return;
    if (entry.d_type != DT_LNK) return;
    const size_t size = st.st_size > 0 ? static_cast<size_t>(st.st_size) + 1 : kUnknownLinkSize;
    std::string target(size, '\0');
    const ssize_t length = ::readlink(path.c_str(), target.data(), size);
    if (length < 0) return;
    target.resize(static_cast<size_t>(length) < size ? static_cast<size_t>(length) : size - 1);
    TAVREL_LOGI("[%s] %s -> %s", __func__, entry.d_name, target.c_str());
}

void dumpProcessFileState() {
    DIR* dir = ::opendir(kFdFolder);
    if (dir == nullptr) return;
    while (const dirent* entry = ::readdir(dir)) dumpProcessFileState(*entry);
    ::closedir(dir);
}

// The duration check of the queueing requests is fixed at load: verbose details then, and
// a camera log level that is unset or above 2.
bool measureQueueDuration() {
    constexpr int32_t kLowestMeasuredLevel = 3;
    return sVerboseDetails && (sCameraLogLevel == Log::kCameraLogLevelUnset ||
                               sCameraLogLevel >= kLowestMeasuredLevel);
}

// Issues `request`, timing it when the check is on. A slow request is reported through
// `warnSlow(elapsedText)` before its result is judged; errno survives the report.
template <typename Request, typename WarnSlow>
int timed(Request request, WarnSlow warnSlow) {
    if (!measureQueueDuration()) return request();
    const auto start = std::chrono::steady_clock::now();
    const int result = request();
    const auto elapsed = std::chrono::steady_clock::now() - start;
    const int64_t ns = std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count();
    if (!internal::exceedsQueueLimit(ns)) return result;
    const int savedErrno = errno;
    char text[sizeof("-9223372036854775808")];
    std::snprintf(text, sizeof(text), "%" PRId64, ns);
    warnSlow(text);
    errno = savedErrno;
    return result;
}

// Request numbers arrive as int; widening through unsigned int keeps them the 32-bit
// values the kernel headers define instead of sign-extending the high ones.
unsigned long requestNumber(int request) {
    return static_cast<unsigned int>(request);
}

// Ioctl without the result check: the request inside its section, nothing more. Out of
// line, so that the checked form saves no register for it: 3 instructions a call.
__attribute__((noinline)) int uncheckedIoctl(int fd, int request, void* arg) {
    Trace::Section section(Trace::kStatIoctl, "Ioctl");
    return ::ioctl(fd, requestNumber(request), arg);
}

}  // namespace

namespace internal {

void handleErrno(int err) {
    if (err == EMFILE) dumpProcessFileState();
}

}  // namespace internal

// Files and directories.

int64_t Read(int fd, void* buf, unsigned long count) {
    static constexpr Rule kRule{__func__, Trace::kFileCalls};
    return checked(
        kRule, [=] { return ::read(fd, buf, count); },
        [=](const char* fn, ssize_t result, int err) {
            TAVREL_LOGE_IN(fn, "[%s] read(%d, %p, %zu) return %zd: err=%d(%s)", fn, fd, buf, count,
                           result, -err, strerror(err));
        });
}

int64_t Write(int fd, const void* buf, unsigned long count) {
    static constexpr Rule kRule{__func__, Trace::kFileCalls};
    return checked(
        kRule, [=] { return ::write(fd, buf, count); },
        [=](const char* fn, ssize_t result, int err) {
            TAVREL_LOGE_IN(fn, "[%s] write(%d, %p, %zu) return %zd: err=%d(%s)", fn, fd, buf, count,
                           result, -err, strerror(err));
        });
}

int Open(const char* path, int flags, unsigned long owner) {
    Trace::Section section(Trace::kFileCalls, __func__);
    struct stat st {};
    const int statResult = Stat(path, &st);
    if (statResult < 0) {
        // Kept for the stack: Stat has logged and reacted already, and Open does both again.
        const int err = -statResult;
        TAVREL_LOGE("[%s] Invalid device %s: %s", __func__, path, strerror(err));
        handleErrno(err);
        return statResult;
    }
    if ((st.st_mode & kDeviceTypeMask) != kDeviceTypeBits) {
        TAVREL_LOGE("[%s] Invalid device node: %s", __func__, path);
        return -ENODEV;
    }
    // Inside Open's own section.
    static constexpr Rule kRule{__func__, Trace::kNone};
    const int fd = checked(
        kRule, [=] { return ::open(path, flags); },
        [=](const char* fn, int result, int err) {
            TAVREL_LOGE_IN(fn, "[%s] open(%s) return %d: err=%d(%s)", fn, path, result, -err,
                           strerror(err));
        });
    return tagged(fd, owner);
}

int Close(int fd, unsigned long owner) {
    static constexpr Rule kRule{__func__, Trace::kFileCalls};
    return checked(
        kRule,
        [=] {
            return zelcam_fdsan_close_with_tag(fd, zelcam_fdsan_create_tag(owner, kFdsanType),
                                               kFdsanType);
        },
        [=](const char* fn, int result, int err) {
            TAVREL_LOGE_IN(fn, "[%s] close(%d) return %d: err=%d(%s)", fn, fd, result, -err,
                           strerror(err));
        });
}

int Stat(const char* path, struct stat* st) {
    static constexpr Rule kRule{__func__, Trace::kStatIoctl};
    return checked(
        kRule, [=] { return ::stat(path, st); },
        [=](const char* fn, int, int err) {
            TAVREL_LOGE_IN(fn, "[%s] stat(%s): %s", fn, path, strerror(err));
        });
}

int ReadLink(const char* path, char* buf, unsigned long size) {
    static constexpr Rule kRule{__func__, Trace::kFileCalls};
    return checked(
        kRule, [=] { return static_cast<int>(::readlink(path, buf, size)); },
        [=](const char* fn, int result, int err) {
            TAVREL_LOGE_IN(fn, "[%s] readlink(%s) return %d: err=%d(%s)", fn, path, result, -err,
                           strerror(err));
        });
}

DIR* OpenDir(const char* path) {
    static constexpr Rule kRule{__func__, Trace::kFileCalls};
    return checked(
        kRule, [=] { return ::opendir(path); },
        [=](const char* fn, DIR*, int err) {
            TAVREL_LOGE_IN(fn, "[%s] opendir(%s) return NULL: err=%d(%s)", fn, path, -err,
                           strerror(err));
        });
}

struct dirent* ReadDir(DIR* dir) {
    // Kept for the stack: readdir leaves errno alone at the end of the directory, and that
    // end is logged as an error all the same.
    static constexpr Rule kRule{__func__, Trace::kFileCalls};
    return checked(
        kRule, [=] { return ::readdir(dir); },
        [=](const char* fn, dirent*, int err) {
            TAVREL_LOGE_IN(fn, "[%s] readdir() return NULL: err=%d(%s)", fn, -err, strerror(err));
        });
}

int CloseDir(DIR* dir) {
    static constexpr Rule kRule{__func__, Trace::kFileCalls};
    return checked(
        kRule, [=] { return ::closedir(dir); },
        [=](const char* fn, int result, int err) {
            TAVREL_LOGE_IN(fn, "[%s] closedir() return %d: err=%d(%s)", fn, result, -err,
                           strerror(err));
        });
}

// Event primitives.

int EventFD(unsigned int initval, int flags, unsigned long owner) {
    static constexpr Rule kRule{__func__, Trace::kFileCalls};
    const int fd = checked(
        kRule, [=] { return ::eventfd(initval, flags); },
        [=](const char* fn, int result, int err) {
            TAVREL_LOGE_IN(fn, "[%s] eventfd(%u, %#x) return %d: err=%d(%s)", fn, initval,
                           static_cast<unsigned int>(flags), result, -err, strerror(err));
        });
    return tagged(fd, owner);
}

int EPollCreate(int size, unsigned long owner) {
    static constexpr Rule kRule{__func__, Trace::kFileCalls};
    const int fd = checked(
        kRule, [=] { return ::epoll_create(size); },
        [=](const char* fn, int result, int err) {
            TAVREL_LOGE_IN(fn, "[%s] epoll_create() return %d: err=%d(%s)", fn, result, -err,
                           strerror(err));
        });
    return tagged(fd, owner);
}

int EPollCtlAdd(int epfd, int fd, struct epoll_event* event) {
    static constexpr Rule kRule{__func__, Trace::kEventCalls};
    return zeroOnSuccess(checked(
        kRule, [=] { return ::epoll_ctl(epfd, EPOLL_CTL_ADD, fd, event); },
        [=](const char* fn, int result, int err) {
            TAVREL_LOGE_IN(fn, "[%s] epoll_ctl(%d, EPOLL_CTL_ADD, %d) return %d: err=%d(%s)", fn,
                           epfd, fd, result, -err, strerror(err));
        }));
}

int EPollCtlMod(int epfd, int fd, struct epoll_event* event) {
    static constexpr Rule kRule{__func__, Trace::kEventCalls};
    return zeroOnSuccess(checked(
        kRule, [=] { return ::epoll_ctl(epfd, EPOLL_CTL_MOD, fd, event); },
        [=](const char* fn, int result, int err) {
            TAVREL_LOGE_IN(fn, "[%s] epoll_ctl(%d, EPOLL_CTL_MOD, %d) return %d: err=%d(%s)", fn,
                           epfd, fd, result, -err, strerror(err));
        }));
}

int EPollCtlDel(int epfd, int fd, struct epoll_event* event) {
    static constexpr Rule kRule{__func__, Trace::kEventCalls};
    return zeroOnSuccess(checked(
        kRule, [=] { return ::epoll_ctl(epfd, EPOLL_CTL_DEL, fd, event); },
        [=](const char* fn, int result, int err) {
            TAVREL_LOGE_IN(fn, "[%s] epoll_ctl(%d, EPOLL_CTL_DEL, %d) return %d: err=%d(%s)", fn,
                           epfd, fd, result, -err, strerror(err));
        }));
}

int EPollWait(int epfd, struct epoll_event* events, int maxevents, int timeout) {
    // An interrupted wait is routine for a monitor thread.
    static constexpr Rule kRule{__func__, Trace::kEventCalls, nullptr, Fails::kNegative, EINTR};
    return checked(
        kRule, [=] { return ::epoll_wait(epfd, events, maxevents, timeout); },
        [=](const char* fn, int result, int err) {
            TAVREL_LOGE_IN(fn,
                           "[%s] epoll_wait(%d, maxevents=%d, timeout=%d) return %d: err=%d(%s)",
                           fn, epfd, maxevents, timeout, result, -err, strerror(err));
        });
}

int TimerFDCreate(int clockid, int flags, unsigned long owner) {
    static constexpr Rule kRule{__func__, Trace::kFileCalls};
    const int fd = checked(
        kRule, [=] { return ::timerfd_create(clockid, flags); },
        [=](const char* fn, int result, int err) {
            TAVREL_LOGE_IN(fn, "[%s] timerfd_create() return %d: err=%d(%s)", fn, result, -err,
                           strerror(err));
        });
    return tagged(fd, owner);
}

int TimerFDSetTime(int fd, int flags, const struct itimerspec* newValue,
                   struct itimerspec* oldValue) {
    static constexpr Rule kRule{__func__, Trace::kEventCalls};
    return checked(
        kRule, [=] { return ::timerfd_settime(fd, flags, newValue, oldValue); },
        [=](const char* fn, int result, int err) {
            TAVREL_LOGE_IN(fn, "[%s] timerfd_settime(%d) return %d: err=%d(%s)", fn, fd, result,
                           -err, strerror(err));
        });
}

int TimerFDGetTime(int fd, struct itimerspec* current) {
    static constexpr Rule kRule{__func__, Trace::kEventCalls};
    return checked(
        kRule, [=] { return ::timerfd_gettime(fd, current); },
        [=](const char* fn, int result, int err) {
            TAVREL_LOGE_IN(fn, "[%s] timerfd_gettime(%d) return %d: err=%d(%s)", fn, fd, result,
                           -err, strerror(err));
        });
}

// Imaging driver requests. Every failure of these but Ioctl's is fatal to the service.

int Ioctl(int fd, int request, void* arg, unsigned int flags) {
    if ((flags & kIoctlCheckResult) == 0) return uncheckedIoctl(fd, request, arg);
    static constexpr Rule kRule{__func__, Trace::kStatIoctl};
    return checked(
        kRule, [=] { return ::ioctl(fd, requestNumber(request), arg); },
        [=](const char* fn, int, int err) {
            TAVREL_LOGE_IN(fn, "[%s] ioctl(%d, %#x): %d(%s)", fn, fd,
                           static_cast<unsigned int>(request), -err, strerror(err));
        });
}

int AllocMediaRequest(int mediaFd, unsigned long owner) {
    int requestFd = -1;
    static constexpr Rule kRule{
        __func__,         Trace::kMediaAlloc, "MEDIA_IOC_REQUEST_ALLOC",
        Fails::kNegative, kNoRoutineErrno,    TAVREL_DRIVER_FORMAT("MEDIA_IOC_REQUEST_ALLOC"),
    };
    const int result = checked(
        kRule, [&] { return ::ioctl(mediaFd, MEDIA_IOC_REQUEST_ALLOC, &requestFd); },
        [=](const char* fn, int result, int err) {
            TAVREL_LOGE_IN(fn, "[%s] ioctl(%d, MEDIA_IOC_REQUEST_ALLOC) return %d: err=%d(%s)", fn,
                           mediaFd, result, -err, strerror(err));
        });
    if (result < 0) return result;
    return tagged(requestFd, owner);
}

int ReinitMediaRequest(int requestFd) {
    static constexpr Rule kRule{
        __func__,         Trace::kNone,    nullptr,
        Fails::kNegative, kNoRoutineErrno, TAVREL_DRIVER_FORMAT("MEDIA_REQUEST_IOC_REINIT"),
    };
    return zeroOnSuccess(checked(
        kRule, [=] { return ::ioctl(requestFd, MEDIA_REQUEST_IOC_REINIT, nullptr); },
        [=](const char* fn, int, int err) {
            TAVREL_LOGE_IN(fn, "[%s] ioctl(%d, MEDIA_REQUEST_IOC_REINIT): err=%d(%s)", fn,
                           requestFd, -err, strerror(err));
        }));
}

int QueueMediaRequest(int requestFd) {
    static constexpr Rule kRule{
        __func__,        Trace::kMediaQueue, "MEDIA_REQUEST_IOC_QUEUE",
        Fails::kNonZero, kNoRoutineErrno,    TAVREL_DRIVER_FORMAT("MEDIA_REQUEST_IOC_QUEUE"),
    };
    return zeroOnSuccess(checked(
        kRule,
        [=] {
            return timed([=] { return ::ioctl(requestFd, MEDIA_REQUEST_IOC_QUEUE, nullptr); },
                         [&](const char* elapsed) {
                             TAVREL_LOGW_IN("QueueMediaRequest",
                                            "[%s] ioctl(%d, MEDIA_REQUEST_IOC_QUEUE) takes %s ns",
                                            "QueueMediaRequest", requestFd, elapsed);
                         });
        },
        [=](const char* fn, int, int err) {
            TAVREL_LOGE_IN(fn, "[%s] ioctl(%d, MEDIA_REQUEST_IOC_QUEUE): err=%d(%s)", fn, requestFd,
                           -err, strerror(err));
        }));
}

int QueueVideoNodeBuf(int fd, void* buffer) {
    static constexpr Rule kRule{
        __func__,        Trace::kQueueBuf, "VIDIOC_QBUF",
        Fails::kNonZero, kNoRoutineErrno,  TAVREL_DRIVER_FORMAT("VIDIOC_QBUF"),
    };
    return zeroOnSuccess(checked(
        kRule,
        [=] {
            return timed([=] { return ::ioctl(fd, VIDIOC_QBUF, buffer); },
                         [&](const char* elapsed) {
                             TAVREL_LOGW_IN("QueueVideoNodeBuf",
                                            "[%s] ioctl(%d, VIDIOC_QBUF) takes %s ns",
                                            "QueueVideoNodeBuf", fd, elapsed);
                         });
        },
        [=](const char* fn, int, int err) {
            TAVREL_LOGE_IN(fn, "[%s] ioctl(%d, VIDIOC_QBUF): %d(%s)", fn, fd, -err, strerror(err));
        }));
}

int DQueueVideoNodeBuf(int fd, void* buffer) {
    // EAGAIN: a non-blocking node has no finished buffer yet, which is routine.
    static constexpr Rule kRule{
        __func__,        Trace::kDispatch, "VIDIOC_DQBUF",
        Fails::kNonZero, EAGAIN,           TAVREL_DRIVER_FORMAT("VIDIOC_DQBUF"),
    };
    return zeroOnSuccess(checked(
        kRule, [=] { return ::ioctl(fd, VIDIOC_DQBUF, buffer); },
        [=](const char* fn, int, int err) {
            TAVREL_LOGE_IN(fn, "[%s] ioctl(%d, VIDIOC_DQBUF): %d(%s)", fn, fd, -err, strerror(err));
        }));
}

int DQueueEvent(int fd, void* event) {
    static constexpr Rule kRule{
        __func__,         Trace::kDQueueEvent, "VIDIOC_DQEVENT",
        Fails::kNegative, kNoRoutineErrno,     TAVREL_DRIVER_FORMAT("VIDIOC_DQEVENT"),
    };
    return zeroOnSuccess(checked(
        kRule, [=] { return ::ioctl(fd, VIDIOC_DQEVENT, event); },
        [=](const char* fn, int, int err) {
            TAVREL_LOGE_IN(fn, "[%s] ioctl(%d, VIDIOC_DQEVENT): %d(%s)", fn, fd, -err,
                           strerror(err));
        }));
}

int AddIova(int fd, int request, void* arg) {
    static constexpr Rule kRule{
        __func__,         Trace::kStatIoctl, nullptr,
        Fails::kNegative, kNoRoutineErrno,   TAVREL_DRIVER_FORMAT("ZELDIP_IOC_ADD_IOVA"),
    };
    return zeroOnSuccess(checked(
        kRule, [=] { return ::ioctl(fd, requestNumber(request), arg); },
        [=](const char* fn, int, int err) {
            TAVREL_LOGE_IN(fn, "[%s] ioctl(%d, %#x): %d(%s)", fn, fd,
                           static_cast<unsigned int>(request), -err, strerror(err));
        }));
}

int DelIova(int fd, int request, void* arg) {
    static constexpr Rule kRule{
        __func__,         Trace::kStatIoctl, nullptr,
        Fails::kNegative, kNoRoutineErrno,   TAVREL_DRIVER_FORMAT("ZELDIP_IOC_DEL_IOVA"),
    };
    return zeroOnSuccess(checked(
        kRule, [=] { return ::ioctl(fd, requestNumber(request), arg); },
        [=](const char* fn, int, int err) {
            TAVREL_LOGE_IN(fn, "[%s] ioctl(%d, %#x): %d(%s)", fn, fd,
                           static_cast<unsigned int>(request), -err, strerror(err));
        }));
}

}  // namespace NSCam::NSTavrel::System
