// Setup of the virtual video driver's nodes for the driver test, done with plain ioctls
// so that only the operations under test go through the library's wrappers; and a child
// process runner for the calls that end the process.
#pragma once

#include <linux/videodev2.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "tavrel/platform/UniqueFd.h"

namespace tavrel::vmtest {

using tavrel::host::UniqueFd;

// The driver's nodes, found by what they can do rather than by number.
struct VividNodes {
    std::string capture;  // single-planar video capture node
    std::string output;   // single-planar video output node
    std::string media;    // the media controller of the same instance
};

// Empty strings where a node was not found.
VividNodes findVividNodes();

// Opens read-write, non-blocking and close-on-exec; the result is invalid on failure.
UniqueFd openNode(const std::string& path);

// The format the capture node settled on after a request for `width` x `height` YUYV.
v4l2_pix_format setCaptureFormat(int fd, unsigned width, unsigned height);

// Asks the capture node for `fps` frames a second; returns the interval it settled on.
v4l2_fract setCaptureFrameRate(int fd, unsigned fps);

// Memory-mapped buffers: the driver fills them itself, so the test never maps them.
// Returns the count granted and stores the queue's capability bits.
int requestMmapBuffers(int fd, v4l2_buf_type type, unsigned count, uint32_t* capabilities);

// A buffer record ready for queueing or dequeueing on `type` with memory-mapped memory.
v4l2_buffer mmapBuffer(v4l2_buf_type type, unsigned index);

// Plain ioctl, retried on EINTR; returns 0 or -errno.
int rawIoctl(int fd, unsigned long request, void* arg);

// Waits for `fd` to report any of `events`; false on timeout.
bool waitForPoll(int fd, short events, std::chrono::milliseconds timeout);

// What a child process left behind.
struct ChildOutcome {
    bool exited = false;  // ended through exit (not a signal, not a timeout)
    int exitStatus = -1;  // its exit status when `exited`
    int signal = 0;       // the signal that ended it, or 0
    std::string errText;  // everything it wrote to stderr
};

// Runs `body` in a forked child whose stderr is captured. Should the body return, the
// child writes "child survived\n" and exits 0. A child still running after `timeout` is
// killed and reported as neither exited nor signalled.
ChildOutcome runInChild(const std::function<void()>& body,
                        std::chrono::milliseconds timeout = std::chrono::seconds(30));

// Log output with the per-line headers (time, process and thread ids) taken off, each
// entry "L tag: text" with L the priority letter. Lines of both writers are understood:
// the host log's "date time pid tid L tag: text" and the Android log's
// "tag L date time pid tid text", whose message may continue on following lines.
std::vector<std::string> logEntries(const std::string& text);

}  // namespace tavrel::vmtest
