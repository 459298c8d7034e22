// Crash reports on Linux hosts: a fatal-priority line on the Android log and, when a
// folder is configured, a report file; and the end of the service as a plain exit.
#include "tavrel/platform/CrashReporter.h"

#include <android/log.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "HostKeys.h"
#include "tavrel/platform/Properties.h"
#include "tavrel/platform/ULogger.h"

namespace {

constexpr const char* kCrashTag = "tavrel-crash";
constexpr int kTextSize = 4096;
constexpr int kDirSize = 4096;
// Room for the folder, a slash and the report's own name.
constexpr int kPathSize = kDirSize + 64;
constexpr int kReportSize = kTextSize + 512;
constexpr mode_t kReportMode = 0644;
// The logger's flush reason for "the process ends right after this call".
constexpr int kFlushBeforeEnd = 1;

// Numbers the reports of this process, so several reports never share a file.
std::atomic<unsigned> sReportCount{0};

void writeReportFile(const char* dir, const char* module, const char* text) {
    const int pid = static_cast<int>(getpid());
    const unsigned number = sReportCount.fetch_add(1) + 1;
    char path[kPathSize];
    std::snprintf(path, sizeof(path), "%s/tavrel-crash-%d-%u.txt", dir, pid, number);
    const time_t now = time(nullptr);
    tm utc{};
    gmtime_r(&now, &utc);
    char stamp[sizeof("YYYY-MM-DDTHH:MM:SSZ")];
    std::strftime(stamp, sizeof(stamp), "%Y-%m-%dT%H:%M:%SZ", &utc);
    char report[kReportSize];
    const int length =
        std::snprintf(report, sizeof(report), "module: %s\npid: %d\ntid: %d\ntime: %s\ntext:\n%s\n",
                      module, pid, static_cast<int>(gettid()), stamp, text);
    const int fd = ::open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kReportMode);
    if (fd < 0) {
        __android_log_print(ANDROID_LOG_ERROR, kCrashTag, "cannot create %s: %s", path,
                            std::strerror(errno));
        return;
    }
    const size_t size = static_cast<size_t>(std::min(length, kReportSize - 1));
    if (::write(fd, report, size) != static_cast<ssize_t>(size)) {
        __android_log_print(ANDROID_LOG_ERROR, kCrashTag, "cannot write %s: %s", path,
                            std::strerror(errno));
    }
    ::close(fd);
}

}  // namespace

namespace NSCam::NSTavrel {

void tavrel_ruvex_trigger_exception(const char* module, const char* format, ...) {
    const int savedErrno = errno;
    const char* name = module != nullptr ? module : "";
    char text[kTextSize] = {};
    va_list args;
    va_start(args, format);
    if (std::vsnprintf(text, sizeof(text), format, args) < 0) text[0] = '\0';
    va_end(args);
    __android_log_print(ANDROID_LOG_FATAL, kCrashTag, "%s: %s", name, text);
    char dir[kDirSize];
    if (tavrel::host::property_get(tavrel::host::kCrashDirKey, dir, sizeof(dir)) &&
        dir[0] != '\0') {
        writeReportFile(dir, name, text);
    }
    errno = savedErrno;
}

}  // namespace NSCam::NSTavrel

namespace NSCam::Utils {

void terminateService() {
    ULog::ULogger::sULogger.load()->flush(kFlushBeforeEnd);
    std::fflush(nullptr);
    _exit(kTerminateServiceExitStatus);
}

}  // namespace NSCam::Utils
