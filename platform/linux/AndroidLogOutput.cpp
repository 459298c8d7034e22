// The host's Android log in logcat's threadtime format. Debian's liblog writes its own host
// layout to stderr (tag first, no milliseconds), which neither people used to device logs nor
// their tools read; every Android-log line of the process (the debug print, the
// android::LogPrinter route, crash reports, fdsan's reports, assertions) passes the one logger
// liblog lets a process install, so this layer installs its own at load.
#include <android/log.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "AndroidLogOutput.h"
#include "HostLogOutput.h"

namespace tavrel::host {
namespace {

// logcat's priority letters, indexed by android_LogPriority; '?' for unknown and default.
constexpr char kPriorityLetters[] = "??VDIWEFS";
// Room for what comes before the tag: date, time, ids and priority letter.
constexpr int kHeadSize = 64;
// logcat pads shorter tags to this width and prints longer ones whole.
constexpr size_t kTagWidth = 8;
constexpr long kNanosPerMilli = 1000 * 1000;

char priorityLetter(int priority) {
    if (priority < 0 || priority >= static_cast<int>(sizeof(kPriorityLetters)) - 1) return '?';
    return kPriorityLetters[priority];
}

// "MM-DD HH:MM:SS.mmm  PID  TID P TAG     : ", as `logcat -v threadtime` starts each line.
std::string threadtimePrefix(int priority, const char* tag) {
    char date[sizeof("MM-DD HH:MM:SS")];
    const long nanos = localTimeNow("%m-%d %H:%M:%S", date, sizeof(date));
    char head[kHeadSize];
    std::snprintf(head, sizeof(head), "%s.%03ld %5d %5d %c ", date, nanos / kNanosPerMilli,
                  static_cast<int>(getpid()), static_cast<int>(gettid()), priorityLetter(priority));
    const size_t tagLength = std::strlen(tag);
    return std::string(head) + tag + std::string(kTagWidth - std::min(tagLength, kTagWidth), ' ') +
           ": ";
}

// Each line of the message gets the prefix, as logcat prints a message of several lines;
// the whole message goes out in one write, so that messages of several threads never mix.
void threadtimeLogger(const __android_logger_data* data, const char* message) {
    const char* tag = data->tag != nullptr ? data->tag : "";
    if (!androidLogTagsShow(data->priority, tag)) return;
    const int savedErrno = errno;
    const std::string prefix = threadtimePrefix(data->priority, tag);
    std::string text;
    // An empty message is one empty line; a final newline ends the last line, as in logcat.
    const char* line = message != nullptr ? message : "";
    do {
        const char* end = std::strchr(line, '\n');
        const size_t length = end != nullptr ? end - line : std::strlen(line);
        text.append(prefix).append(line, length).push_back('\n');
        line += length + (end != nullptr ? 1 : 0);
    } while (*line != '\0');
    // A line that cannot be written has nowhere else to go; it is dropped.
    (void)::write(STDERR_FILENO, text.data(), text.size());
    errno = savedErrno;
}

// Before other libraries' initialisers log.
__attribute__((constructor(101))) void installThreadtimeLogger() {
    __android_log_set_logger(threadtimeLogger);
}

}  // namespace
}  // namespace tavrel::host
