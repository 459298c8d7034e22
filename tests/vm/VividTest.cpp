// The driver requests against a real V4L2 and media-request implementation: the kernel's
// virtual video driver, inside a virtual machine (scripts/vm/run.sh). Setup uses plain
// ioctls; every request under test goes through the wrappers, driven by a running monitor
// where the stream stack would use one.
#include <linux/media.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <sys/ioctl.h>

#include "common/Support.h"

namespace tavrel::test {
namespace {

constexpr unsigned long kOwner = 0x76766964;
constexpr unsigned kWidth = 320, kHeight = 180, kFrameBytes = kWidth * kHeight * 2;
constexpr int kCapture = V4L2_BUF_TYPE_VIDEO_CAPTURE;

v4l2_buffer buffer(unsigned index, int requestFd = 0) {
    v4l2_buffer b{};
    b.type = kCapture;
    b.memory = V4L2_MEMORY_MMAP;
    b.index = index;
    b.flags = requestFd > 0 ? V4L2_BUF_FLAG_REQUEST_FD : 0;
    b.request_fd = requestFd;
    return b;
}

class Vivid : public testing::Test {
protected:
    void SetUp() override {
        v4l2_capability caps{};
        capture = UniqueFd(::open("/dev/video0", O_RDWR | O_NONBLOCK | O_CLOEXEC));
        media = UniqueFd(::open("/dev/media0", O_RDWR | O_CLOEXEC));
        // The machine has no other video driver: vivid's first node is its capture node.
        ASSERT_TRUE(capture.ok() && media.ok() &&
                    ::ioctl(capture.get(), VIDIOC_QUERYCAP, &caps) == 0 &&
                    std::strcmp(reinterpret_cast<const char*>(caps.driver), "vivid") == 0 &&
                    (caps.device_caps & V4L2_CAP_VIDEO_CAPTURE) != 0)
            << "no vivid capture node at /dev/video0 or no media controller";
        v4l2_format format{};
        format.type = kCapture;
        format.fmt.pix.width = kWidth;
        format.fmt.pix.height = kHeight;
        format.fmt.pix.pixelformat = V4L2_PIX_FMT_YUYV;
        ASSERT_EQ(::ioctl(capture.get(), VIDIOC_S_FMT, &format), 0);
        ASSERT_EQ(format.fmt.pix.sizeimage, kFrameBytes);
    }

    // A capture node that is not streaming reports an error to epoll: stream at once.
    void start(unsigned buffers) {
        v4l2_requestbuffers request{};
        request.count = buffers;
        request.type = kCapture;
        request.memory = V4L2_MEMORY_MMAP;
        ASSERT_EQ(::ioctl(capture.get(), VIDIOC_REQBUFS, &request), 0);
        ASSERT_EQ(request.count, buffers);
        ASSERT_EQ(::ioctl(capture.get(), VIDIOC_STREAMON, &kCapture), 0);
    }

    UniqueFd capture, media;
};

TEST_F(Vivid, FramesAreCapturedOnAMonitorThroughTheWrappersAndAnEmptyDequeueIsSilent) {
    start(4);
    const LogCapture logs({3, 2});  // no error or warning here, not even for the empty dequeue
    v4l2_buffer none = buffer(0);
    EXPECT_EQ(System::DQueueVideoNodeBuf(capture.get(), &none), -EAGAIN);  // nothing queued yet
    for (unsigned i = 0; i < 4; ++i) {
        v4l2_buffer b = buffer(i);
        ASSERT_EQ(System::QueueVideoNodeBuf(capture.get(), &b), 0);
    }
    // Each time the node turns readable: every finished buffer dequeued and queued again.
    std::atomic<int> frames{0}, bad{0};
    FdObserver observer(capture.get(), [&](const OnEvent&) {
        for (v4l2_buffer b = buffer(0); System::DQueueVideoNodeBuf(capture.get(), &b) == 0;
             b = buffer(0)) {
            bad += b.bytesused != kFrameBytes || (b.flags & V4L2_BUF_FLAG_ERROR) != 0;
            v4l2_buffer again = buffer(b.index);
            bad += System::QueueVideoNodeBuf(capture.get(), &again) != 0;
            ++frames;
        }
    });
    const RunningMonitor running("vivid");
    running.monitor->attach(&observer, EPOLLIN);
    EXPECT_TRUE(waitUntil([&] { return frames >= 20; }));
    running.monitor->detach(&observer);
    EXPECT_EQ(bad, 0);
    EXPECT_EQ(logs.texts(), Lines{});
}

TEST_F(Vivid, MediaRequestsAreQueuedCompletedReinitialisedReusedAndClosed) {
    int requests[2];
    for (int& request : requests) {
        request = System::AllocMediaRequest(media.get(), kOwner);
        EXPECT_EQ(host::fdsanGetTag(request), zelcam_fdsan_create_tag(kOwner, 1));
    }
    start(2);  // the queue starts with two buffers, a request carries one: two go round
    const RunningMonitor running("vivid");
    for (int round = 0; round < 2; ++round) {
        std::unique_ptr<FdObserver> completions[2];
        for (unsigned i = 0; i < 2; ++i) {
            v4l2_buffer b = buffer(i, requests[i]);
            ASSERT_EQ(System::QueueVideoNodeBuf(capture.get(), &b), 0);
            ASSERT_EQ(System::QueueMediaRequest(requests[i]), 0);
            // A completed request stays readable: its observer detaches itself.
            completions[i] = std::make_unique<FdObserver>(
                requests[i],
                [&, i](const OnEvent& event) { event.monitor->detach(completions[i].get()); });
            running.monitor->attach(completions[i].get(), EPOLLPRI);
        }
        for (unsigned i = 0; i < 2; ++i) {
            ASSERT_TRUE(waitUntil([&] { return completions[i]->calls == 1; }));
            pollfd ready{capture.get(), POLLIN, 0};
            ASSERT_EQ(::poll(&ready, 1, 30000), 1);
            v4l2_buffer done = buffer(0);
            ASSERT_EQ(System::DQueueVideoNodeBuf(capture.get(), &done), 0);
            EXPECT_EQ(done.request_fd, requests[done.index]);
            EXPECT_EQ(done.bytesused, kFrameBytes);
        }
        for (const int request : requests) EXPECT_EQ(System::ReinitMediaRequest(request), 0);
    }
    for (const int request : requests) EXPECT_EQ(System::Close(request, kOwner), 0);
}

TEST_F(Vivid, QueueingAnEmptyRequestIsReportedAndEndsTheServiceWith70) {
    const int request = System::AllocMediaRequest(media.get(), kOwner);
    EXPECT_EXIT(System::QueueMediaRequest(request), testing::ExitedWithCode(70),
                entriesAre(Lines{format("E tavrel-syscall: [QueueMediaRequest] ioctl(%d, "
                                        "MEDIA_REQUEST_IOC_QUEUE): err=-2(%s)",
                                        request, strerror(ENOENT))} +
                           crashReport("MEDIA_REQUEST_IOC_QUEUE", ENOENT)));
    EXPECT_EQ(System::Close(request, kOwner), 0);
}

}  // namespace
}  // namespace tavrel::test
