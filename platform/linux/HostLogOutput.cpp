#include "HostLogOutput.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>

#include "HostKeys.h"
#include "tavrel/platform/Properties.h"

namespace tavrel::host {
namespace {

constexpr int kPathSize = 4096;
// Room for what comes before the tag: date, time, ids and level letter.
constexpr int kHeadSize = 64;
constexpr mode_t kLogFileMode = 0644;
constexpr long kNanosPerMicro = 1000;

// Descriptor the lines go to; a file opened once at load and kept for the process's life.
std::atomic<int> sOutputFd{STDERR_FILENO};

}  // namespace

void openHostLogOutput() {
    char path[kPathSize];
    if (!property_get(kULogFileKey, path, sizeof(path)) || path[0] == '\0') return;
    const int fd = ::open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, kLogFileMode);
    if (fd < 0) {
        std::fprintf(stderr, "tavrel-ulog: cannot open %s: %s; logging to stderr\n", path,
                     std::strerror(errno));
        return;
    }
    sOutputFd.store(fd);
}

long localTimeNow(const char* format, char* out, size_t size) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    std::strftime(out, size, format, &local);
    return now.tv_nsec;
}

void writeHostLogLine(char levelLetter, const char* tag, const char* text) {
    const int savedErrno = errno;
    char date[sizeof("YYYY-MM-DD HH:MM:SS")];
    const long nanos = localTimeNow("%Y-%m-%d %H:%M:%S", date, sizeof(date));
    char head[kHeadSize];
    const int headLength =
        std::snprintf(head, sizeof(head), "%s.%06ld %d %d %c ", date, nanos / kNanosPerMicro,
                      static_cast<int>(getpid()), static_cast<int>(gettid()), levelLetter);
    const char* name = tag != nullptr ? tag : "";
    const char* body = text != nullptr ? text : "";
    char separator[] = ": ", newline[] = "\n";
    // The tag and the text whole, however long: each is a part of its own.
    iovec parts[] = {
        {head, static_cast<size_t>(headLength)},
        {const_cast<char*>(name), std::strlen(name)},
        {separator, 2},
        {const_cast<char*>(body), std::strlen(body)},
        {newline, 1},
    };
    // A line that cannot be written has nowhere else to go; it is dropped.
    (void)::writev(sOutputFd.load(std::memory_order_relaxed), parts, std::size(parts));
    errno = savedErrno;
}

}  // namespace tavrel::host
