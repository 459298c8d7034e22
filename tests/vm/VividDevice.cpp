#include "VividDevice.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <regex>

namespace tavrel::vmtest {

namespace {

constexpr int kMaxVideoNodes = 16;

bool isVivid(const v4l2_capability& caps) {
    return std::strcmp(reinterpret_cast<const char*>(caps.driver), "vivid") == 0;
}

}  // namespace

int rawIoctl(int fd, unsigned long request, void* arg) {
    int result;
    do {
        result = ::ioctl(fd, request, arg);
    } while (result < 0 && errno == EINTR);
    return result < 0 ? -errno : result;
}

UniqueFd openNode(const std::string& path) {
    return UniqueFd(::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
}

VividNodes findVividNodes() {
    VividNodes nodes;
    for (int i = 0; i < kMaxVideoNodes; ++i) {
        const std::string path = "/dev/video" + std::to_string(i);
        UniqueFd fd = openNode(path);
        if (!fd.ok()) continue;
        v4l2_capability caps{};
        if (rawIoctl(fd.get(), VIDIOC_QUERYCAP, &caps) != 0 || !isVivid(caps)) continue;
        const uint32_t device = caps.device_caps;
        if ((device & V4L2_CAP_STREAMING) == 0) continue;
        if ((device & V4L2_CAP_VIDEO_CAPTURE) != 0 && nodes.capture.empty()) {
            nodes.capture = path;
        } else if ((device & V4L2_CAP_VIDEO_OUTPUT) != 0 && nodes.output.empty()) {
            nodes.output = path;
        }
    }
    // One instance is loaded, so its controller is the only one.
    if (::access("/dev/media0", F_OK) == 0) nodes.media = "/dev/media0";
    return nodes;
}

v4l2_pix_format setCaptureFormat(int fd, unsigned width, unsigned height) {
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    format.fmt.pix.width = width;
    format.fmt.pix.height = height;
    format.fmt.pix.pixelformat = V4L2_PIX_FMT_YUYV;
    format.fmt.pix.field = V4L2_FIELD_NONE;
    if (rawIoctl(fd, VIDIOC_S_FMT, &format) != 0) return {};
    return format.fmt.pix;
}

v4l2_fract setCaptureFrameRate(int fd, unsigned fps) {
    v4l2_streamparm parm{};
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    parm.parm.capture.timeperframe = {1, fps};
    if (rawIoctl(fd, VIDIOC_S_PARM, &parm) != 0) return {};
    return parm.parm.capture.timeperframe;
}

int requestMmapBuffers(int fd, v4l2_buf_type type, unsigned count, uint32_t* capabilities) {
    v4l2_requestbuffers request{};
    request.count = count;
    request.type = type;
    request.memory = V4L2_MEMORY_MMAP;
    const int result = rawIoctl(fd, VIDIOC_REQBUFS, &request);
    if (result != 0) return result;
    if (capabilities != nullptr) *capabilities = request.capabilities;
    return static_cast<int>(request.count);
}

v4l2_buffer mmapBuffer(v4l2_buf_type type, unsigned index) {
    v4l2_buffer buffer{};
    buffer.type = type;
    buffer.memory = V4L2_MEMORY_MMAP;
    buffer.index = index;
    return buffer;
}

bool waitForPoll(int fd, short events, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() < 0) return false;
        pollfd entry{fd, events, 0};
        const int result = ::poll(&entry, 1, static_cast<int>(left.count()));
        if (result > 0) return (entry.revents & events) != 0;
        if (result == 0) return false;
        if (errno != EINTR) return false;
    }
}

ChildOutcome runInChild(const std::function<void()>& body, std::chrono::milliseconds timeout) {
    ChildOutcome outcome;
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return outcome;
    UniqueFd readEnd(ends[0]);
    UniqueFd writeEnd(ends[1]);
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid < 0) return outcome;
    if (pid == 0) {
        ::dup2(writeEnd.get(), STDERR_FILENO);
        body();
        std::fprintf(stderr, "child survived\n");
        std::fflush(nullptr);
        ::_exit(0);
    }
    writeEnd.reset();

    const auto deadline = std::chrono::steady_clock::now() + timeout;
    bool timedOut = false;
    char chunk[4096];
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            timedOut = true;
            break;
        }
        pollfd entry{readEnd.get(), POLLIN, 0};
        const int ready = ::poll(&entry, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) {
            timedOut = ready == 0;
            break;
        }
        const ssize_t got = ::read(readEnd.get(), chunk, sizeof(chunk));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;  // every writer has gone: the child has ended
        outcome.errText.append(chunk, static_cast<size_t>(got));
    }
    if (timedOut) ::kill(pid, SIGKILL);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (!timedOut) {
        outcome.exited = WIFEXITED(status);
        outcome.exitStatus = outcome.exited ? WEXITSTATUS(status) : -1;
        outcome.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    }
    return outcome;
}

std::vector<std::string> logEntries(const std::string& text) {
    // "2024-01-02 03:04:05.123456 12 13 E tag: text"
    static const std::regex hostLine(
        R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} \d+ \d+ ([A-Z]) ([^:]*): (.*)$)");
    // "tag F 01-02 03:04:05    12    13 text" (ids padded to a width)
    static const std::regex androidLine(
        R"(^(\S+) ([A-Z]) \d\d-\d\d \d\d:\d\d:\d\d +\d+ +\d+ (.*)$)");
    std::vector<std::string> entries;
    // Only the Android log keeps a message's newlines; the host log writes one line each.
    bool mayContinue = false;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        const std::string line = text.substr(start, end - start);
        start = end + 1;
        std::smatch match;
        if (std::regex_match(line, match, hostLine)) {
            entries.push_back(match.str(1) + " " + match.str(2) + ": " + match.str(3));
            mayContinue = false;
        } else if (std::regex_match(line, match, androidLine)) {
            entries.push_back(match.str(2) + " " + match.str(1) + ": " + match.str(3));
            mayContinue = true;
        } else if (mayContinue) {
            // The rest of a message that had a newline in it.
            entries.back() += "\n" + line;
        } else {
            entries.push_back(line);
        }
    }
    return entries;
}

}  // namespace tavrel::vmtest
