#include "HostLogOutput.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "HostKeys.h"
#include "tavrel/platform/Properties.h"

namespace tavrel::host {
namespace {

constexpr int kPathSize = 4096;
constexpr int kHeaderSize = 128;
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
    char header[kHeaderSize];
    const int headerLength =
        std::snprintf(header, sizeof(header), "%s.%06ld %d %d %c %s: ", date,
                      nanos / kNanosPerMicro, static_cast<int>(getpid()),
                      static_cast<int>(gettid()), levelLetter, tag != nullptr ? tag : "");
    const char* body = text != nullptr ? text : "";
    char newline = '\n';
    iovec parts[] = {
        {header, static_cast<size_t>(std::min(headerLength, kHeaderSize - 1))},
        {const_cast<char*>(body), std::strlen(body)},
        {&newline, 1},
    };
    // A line that cannot be written has nowhere else to go; it is dropped.
    (void)::writev(sOutputFd.load(std::memory_order_relaxed), parts, 3);
    errno = savedErrno;
}

}  // namespace tavrel::host
