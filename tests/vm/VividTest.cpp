// The driver wrappers against a real V4L2 and media-request implementation: the kernel's
// virtual video driver, inside a virtual machine (scripts/vm/run.sh). Setup uses plain
// ioctls; every operation under test goes through the wrappers, driven by a running
// event monitor where the stream stack would use one.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/media.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "VividDevice.h"
#include "common/LogCapture.h"
#include "tavrel/IEpollMonitor.h"
#include "tavrel/IEventObserver.h"
#include "tavrel/IThreadLoop.h"
#include "tavrel/SystemCall.h"
#include "tavrel/ThreadDriver.h"
#include "tavrel/platform/CrashReporter.h"
#include "tavrel/platform/Fdsan.h"

namespace tavrel::vmtest {
namespace {

namespace System = NSCam::NSTavrel::System;
using NSCam::NSTavrel::IEpollMonitor;
using NSCam::NSTavrel::IEventObserver;
using NSCam::NSTavrel::IThreadLoop;
using tavrel::host::ThreadDriver;
using namespace std::chrono_literals;

constexpr unsigned long kRequestOwner = 0x76766964;  // owner value of the request fds
constexpr auto kEventTimeout = 30s;                  // generous: the machine is emulated and shared
constexpr unsigned kCaptureBuffers = 4;
constexpr unsigned kFramesWanted = 20;
constexpr unsigned kFps = 30;
constexpr unsigned kWidth = 320;
constexpr unsigned kHeight = 180;
constexpr int32_t kBrightnessA = 200;  // two values within the control's 0..255
constexpr int32_t kBrightnessB = 100;

std::string errText(int error) {
    return std::strerror(error);
}

// A running monitor and the thread that drives it, stopped and joined on destruction.
struct RunningMonitor {
    std::shared_ptr<IEpollMonitor> monitor = IEpollMonitor::make("vivid");
    ThreadDriver driver{std::dynamic_pointer_cast<IThreadLoop>(monitor)};
};

// Something the monitor thread records and the test thread waits for.
template <typename Record>
class Mailbox {
public:
    template <typename Change>
    void update(Change change) {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            change(mRecord);
        }
        mChanged.notify_all();
    }

    // True when `done` held before the timeout; `record` gets a copy either way.
    template <typename Done>
    bool waitFor(Done done, Record* record) {
        std::unique_lock<std::mutex> lock(mMutex);
        const bool met = mChanged.wait_for(lock, kEventTimeout, [&] { return done(mRecord); });
        *record = mRecord;
        return met;
    }

private:
    std::mutex mMutex;
    std::condition_variable mChanged;
    Record mRecord;
};

class VividTest : public testing::Test {
protected:
    void SetUp() override {
        mNodes = findVividNodes();
        ASSERT_FALSE(mNodes.capture.empty()) << "no vivid capture node";
        ASSERT_FALSE(mNodes.media.empty()) << "no media controller";
        mCapture = openNode(mNodes.capture);
        ASSERT_TRUE(mCapture.ok()) << mNodes.capture << ": " << errText(errno);
        const v4l2_pix_format format = setCaptureFormat(mCapture.get(), kWidth, kHeight);
        ASSERT_EQ(format.width, kWidth);
        ASSERT_EQ(format.height, kHeight);
        ASSERT_EQ(format.pixelformat, static_cast<uint32_t>(V4L2_PIX_FMT_YUYV));
        mSizeImage = format.sizeimage;
        ASSERT_EQ(mSizeImage, kWidth * kHeight * 2);
        const v4l2_fract interval = setCaptureFrameRate(mCapture.get(), kFps);
        ASSERT_EQ(interval.numerator, 1u);
        ASSERT_EQ(interval.denominator, kFps);
    }

    void TearDown() override {
        if (!mCapture.ok()) return;
        int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        rawIoctl(mCapture.get(), VIDIOC_STREAMOFF, &type);
    }

    void requestCaptureBuffers(unsigned count) {
        uint32_t capabilities = 0;
        ASSERT_EQ(
            requestMmapBuffers(mCapture.get(), V4L2_BUF_TYPE_VIDEO_CAPTURE, count, &capabilities),
            static_cast<int>(count));
        ASSERT_NE(capabilities & V4L2_BUF_CAP_SUPPORTS_MMAP, 0u);
        ASSERT_NE(capabilities & V4L2_BUF_CAP_SUPPORTS_REQUESTS, 0u);
    }

    void streamOn() {
        int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        ASSERT_EQ(rawIoctl(mCapture.get(), VIDIOC_STREAMON, &type), 0);
    }

    VividNodes mNodes;
    UniqueFd mCapture;
    uint32_t mSizeImage = 0;
};

// ---- Capture on a monitor-driven loop --------------------------------------------------

struct Frame {
    unsigned index;
    uint32_t sequence;
    uint32_t bytesused;
    uint32_t flags;
};

struct CaptureRecord {
    std::vector<Frame> frames;
    std::vector<uint32_t> eventMasks;      // what each onEvent was given
    std::vector<unsigned> framesPerEvent;  // buffers dequeued before EAGAIN, per event
    std::vector<int> unexpectedResults;    // wrapper results other than 0 and -EAGAIN
};

// Dequeues every finished buffer when the node turns readable and queues it again until
// enough frames have been seen.
class CaptureObserver : public IEventObserver {
public:
    CaptureObserver(int fd, unsigned wanted) : mFd(fd), mWanted(wanted) {}

    int getEventFD() const override { return mFd; }

    void onEvent(OnEvent const& event) override {
        unsigned dequeued = 0;
        std::vector<Frame> frames;
        std::vector<int> unexpected;
        for (;;) {
            v4l2_buffer buffer = mmapBuffer(V4L2_BUF_TYPE_VIDEO_CAPTURE, 0);
            const int result = System::DQueueVideoNodeBuf(mFd, &buffer);
            if (result == -EAGAIN) break;
            if (result != 0) {
                unexpected.push_back(result);
                break;
            }
            ++dequeued;
            frames.push_back({buffer.index, buffer.sequence, buffer.bytesused, buffer.flags});
            if (mSeen + frames.size() < mWanted) {
                v4l2_buffer again = mmapBuffer(V4L2_BUF_TYPE_VIDEO_CAPTURE, buffer.index);
                const int queued = System::QueueVideoNodeBuf(mFd, &again);
                if (queued != 0) unexpected.push_back(queued);
            }
        }
        mSeen += frames.size();
        mRecord.update([&](CaptureRecord& record) {
            record.frames.insert(record.frames.end(), frames.begin(), frames.end());
            record.eventMasks.push_back(event.events);
            record.framesPerEvent.push_back(dequeued);
            record.unexpectedResults.insert(record.unexpectedResults.end(), unexpected.begin(),
                                            unexpected.end());
        });
    }

    bool waitForFrames(CaptureRecord* record) {
        return mRecord.waitFor(
            [this](const CaptureRecord& r) {
                return r.frames.size() >= mWanted || !r.unexpectedResults.empty();
            },
            record);
    }

private:
    const int mFd;
    const unsigned mWanted;
    size_t mSeen = 0;  // monitor thread only
    Mailbox<CaptureRecord> mRecord;
};

TEST_F(VividTest, MonitorDrivenCaptureQueuesAndDequeuesThroughTheWrappers) {
    requestCaptureBuffers(kCaptureBuffers);
    for (unsigned i = 0; i < kCaptureBuffers; ++i) {
        v4l2_buffer buffer = mmapBuffer(V4L2_BUF_TYPE_VIDEO_CAPTURE, i);
        ASSERT_EQ(System::QueueVideoNodeBuf(mCapture.get(), &buffer), 0) << "buffer " << i;
        EXPECT_EQ(buffer.flags & V4L2_BUF_FLAG_QUEUED, static_cast<uint32_t>(V4L2_BUF_FLAG_QUEUED));
    }

    CaptureObserver observer(mCapture.get(), kFramesWanted);
    CaptureRecord record;
    {
        // Streaming first: a capture node that is not streaming reports an error to
        // epoll, which the observer would take for a finished buffer.
        streamOn();
        RunningMonitor running;
        running.monitor->attach(&observer, EPOLLIN);
        const bool enough = observer.waitForFrames(&record);
        running.monitor->detach(&observer);
        running.driver.stop();
        ASSERT_TRUE(enough) << "frames seen: " << record.frames.size();
    }

    EXPECT_EQ(record.unexpectedResults, std::vector<int>{});
    ASSERT_GE(record.frames.size(), kFramesWanted);
    // Each buffer comes back full, stamped from the monotonic clock, and in capture order.
    for (size_t i = 0; i < record.frames.size(); ++i) {
        const Frame& frame = record.frames[i];
        EXPECT_LT(frame.index, kCaptureBuffers) << "frame " << i;
        EXPECT_EQ(frame.bytesused, mSizeImage) << "frame " << i;
        EXPECT_EQ(frame.flags & (V4L2_BUF_FLAG_TIMESTAMP_MASK | V4L2_BUF_FLAG_ERROR |
                                 V4L2_BUF_FLAG_QUEUED | V4L2_BUF_FLAG_DONE),
                  static_cast<uint32_t>(V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC))
            << "frame " << i;
        // Never backwards. Not strictly forwards: the driver counts frames from elapsed
        // time, and under emulation its thread may run twice within one frame period.
        if (i > 0) {
            EXPECT_GE(frame.sequence, record.frames[i - 1].sequence) << "frame " << i;
        }
    }
    // Readable means a finished buffer: no wake-up came without one.
    ASSERT_FALSE(record.eventMasks.empty());
    for (size_t i = 0; i < record.eventMasks.size(); ++i) {
        EXPECT_EQ(record.eventMasks[i], static_cast<uint32_t>(EPOLLIN)) << "event " << i;
        EXPECT_GE(record.framesPerEvent[i], 1u) << "event " << i;
    }
}

// ---- The silent EAGAIN ------------------------------------------------------------------

TEST_F(VividTest, DequeueWithNothingReadyReturnsEagainAndLogsNothing) {
    requestCaptureBuffers(2);
    // Streaming with no buffer queued: nothing can finish, so the answer is certain.
    streamOn();

    tavrel::test::LogCapture capture;
    v4l2_buffer buffer = mmapBuffer(V4L2_BUF_TYPE_VIDEO_CAPTURE, 0);
    EXPECT_EQ(System::DQueueVideoNodeBuf(mCapture.get(), &buffer), -EAGAIN);
    EXPECT_EQ(capture.unifiedTexts(), std::vector<std::string>{});
    EXPECT_EQ(capture.debugPrint().size(), 0u);

    // The same dequeue through the general wrapper with checking on does log, so the
    // capture above would have seen a line had there been one.
    v4l2_buffer again = mmapBuffer(V4L2_BUF_TYPE_VIDEO_CAPTURE, 0);
    EXPECT_EQ(System::Ioctl(mCapture.get(), static_cast<int>(VIDIOC_DQBUF), &again,
                            System::kIoctlCheckResult),
              -EAGAIN);
    char expected[128];
    std::snprintf(expected, sizeof(expected), "[Ioctl] ioctl(%d, %#x): %d(%s)", mCapture.get(),
                  static_cast<unsigned>(VIDIOC_DQBUF), -EAGAIN, std::strerror(EAGAIN));
    EXPECT_EQ(capture.unifiedTexts(), std::vector<std::string>{expected});

    // The process goes on and the node still works.
    v4l2_buffer queued = mmapBuffer(V4L2_BUF_TYPE_VIDEO_CAPTURE, 0);
    EXPECT_EQ(System::QueueVideoNodeBuf(mCapture.get(), &queued), 0);
}

// ---- Events -----------------------------------------------------------------------------

struct EventRecord {
    std::vector<uint32_t> eventMasks;
    std::vector<v4l2_event> events;
    std::vector<int> results;
};

// Takes one event from the node's queue each time the node reports one pending.
class EventObserver : public IEventObserver {
public:
    explicit EventObserver(int fd) : mFd(fd) {}
    int getEventFD() const override { return mFd; }

    void onEvent(OnEvent const& event) override {
        v4l2_event taken{};
        const int result = System::DQueueEvent(mFd, &taken);
        mRecord.update([&](EventRecord& record) {
            record.eventMasks.push_back(event.events);
            record.results.push_back(result);
            if (result == 0) record.events.push_back(taken);
        });
    }

    bool waitForEvents(size_t count, EventRecord* record) {
        return mRecord.waitFor([count](const EventRecord& r) { return r.results.size() >= count; },
                               record);
    }

private:
    const int mFd;
    Mailbox<EventRecord> mRecord;
};

TEST_F(VividTest, ControlChangeIsDequeuedAsAnEventOnPriorityReadiness) {
    v4l2_event_subscription subscription{};
    subscription.type = V4L2_EVENT_CTRL;
    subscription.id = V4L2_CID_BRIGHTNESS;
    ASSERT_EQ(rawIoctl(mCapture.get(), VIDIOC_SUBSCRIBE_EVENT, &subscription), 0);

    EventObserver observer(mCapture.get());
    EventRecord record;
    int32_t wanted = 0;
    {
        RunningMonitor running;
        running.monitor->attach(&observer, EPOLLPRI);
        // Changed through another handle: a handle is not told of its own changes.
        UniqueFd other = openNode(mNodes.capture);
        ASSERT_TRUE(other.ok());
        // Setting the value the control already has sends nothing: pick the other one,
        // since the driver keeps its controls from one run to the next.
        v4l2_control control{V4L2_CID_BRIGHTNESS, 0};
        ASSERT_EQ(rawIoctl(other.get(), VIDIOC_G_CTRL, &control), 0);
        wanted = control.value == kBrightnessA ? kBrightnessB : kBrightnessA;
        control.value = wanted;
        ASSERT_EQ(rawIoctl(other.get(), VIDIOC_S_CTRL, &control), 0);
        const bool seen = observer.waitForEvents(1, &record);
        running.monitor->detach(&observer);
        running.driver.stop();
        ASSERT_TRUE(seen);
    }

    ASSERT_EQ(record.results, std::vector<int>{0});
    EXPECT_EQ(record.eventMasks, std::vector<uint32_t>{EPOLLPRI});
    const v4l2_event& event = record.events.at(0);
    EXPECT_EQ(event.type, static_cast<uint32_t>(V4L2_EVENT_CTRL));
    EXPECT_EQ(event.id, static_cast<uint32_t>(V4L2_CID_BRIGHTNESS));
    EXPECT_EQ(event.pending, 0u);
    EXPECT_EQ(event.u.ctrl.changes, static_cast<uint32_t>(V4L2_EVENT_CTRL_CH_VALUE));
    EXPECT_EQ(event.u.ctrl.type, static_cast<uint32_t>(V4L2_CTRL_TYPE_INTEGER));
    EXPECT_EQ(event.u.ctrl.value, wanted);
    EXPECT_EQ(event.u.ctrl.minimum, 0);
    EXPECT_EQ(event.u.ctrl.maximum, 255);
}

// ---- Media requests ---------------------------------------------------------------------

struct RequestRecord {
    std::vector<uint32_t> eventMasks;
};

// Watches one queued request. A completed request stays readable, and an idle one reports
// an error, so the observer detaches itself at completion, from inside onEvent.
class RequestObserver : public IEventObserver {
public:
    explicit RequestObserver(int fd) : mFd(fd) {}
    int getEventFD() const override { return mFd; }

    void onEvent(OnEvent const& event) override {
        event.monitor->detach(this);
        mRecord.update([&](RequestRecord& record) { record.eventMasks.push_back(event.events); });
    }

    bool waitForCompletion(RequestRecord* record) {
        return mRecord.waitFor([](const RequestRecord& r) { return !r.eventMasks.empty(); },
                               record);
    }

private:
    const int mFd;
    Mailbox<RequestRecord> mRecord;
};

TEST_F(VividTest, MediaRequestCycleCompletesIsReinitialisedAndReused) {
    // The capture queue starts only with two buffers in it, and a request carries one
    // buffer of a queue: two requests go round together.
    constexpr unsigned kRequests = 2;
    constexpr int kRounds = 2;
    requestCaptureBuffers(kRequests);
    UniqueFd media = openNode(mNodes.media);
    ASSERT_TRUE(media.ok());

    int requests[kRequests];
    for (unsigned i = 0; i < kRequests; ++i) {
        requests[i] = System::AllocMediaRequest(media.get(), kRequestOwner);
        ASSERT_GE(requests[i], 0);
        // Tagged for its owner, so that only Close with the same owner may close it.
        EXPECT_EQ(tavrel::host::fdsanGetTag(requests[i]),
                  zelcam_fdsan_create_tag(kRequestOwner, 1));
    }
    streamOn();

    RunningMonitor running;
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        std::vector<std::unique_ptr<RequestObserver>> observers;
        for (unsigned i = 0; i < kRequests; ++i) {
            v4l2_buffer buffer = mmapBuffer(V4L2_BUF_TYPE_VIDEO_CAPTURE, i);
            buffer.flags = V4L2_BUF_FLAG_REQUEST_FD;
            buffer.request_fd = requests[i];
            ASSERT_EQ(System::QueueVideoNodeBuf(mCapture.get(), &buffer), 0);
            // Bound to the request, not yet to the queue.
            EXPECT_EQ(buffer.flags & (V4L2_BUF_FLAG_IN_REQUEST | V4L2_BUF_FLAG_QUEUED),
                      static_cast<uint32_t>(V4L2_BUF_FLAG_IN_REQUEST));
            ASSERT_EQ(System::QueueMediaRequest(requests[i]), 0);
            observers.push_back(std::make_unique<RequestObserver>(requests[i]));
            running.monitor->attach(observers.back().get(), EPOLLPRI);
        }
        for (unsigned i = 0; i < kRequests; ++i) {
            RequestRecord record;
            ASSERT_TRUE(observers[i]->waitForCompletion(&record)) << "request " << i;
            EXPECT_EQ(record.eventMasks, std::vector<uint32_t>{EPOLLPRI}) << "request " << i;
        }
        // Both buffers are finished with their requests.
        std::vector<unsigned> indexes;
        for (unsigned i = 0; i < kRequests; ++i) {
            ASSERT_TRUE(waitForPoll(mCapture.get(), POLLIN, kEventTimeout));
            v4l2_buffer done = mmapBuffer(V4L2_BUF_TYPE_VIDEO_CAPTURE, 0);
            ASSERT_EQ(System::DQueueVideoNodeBuf(mCapture.get(), &done), 0);
            indexes.push_back(done.index);
            EXPECT_EQ(done.flags & (V4L2_BUF_FLAG_REQUEST_FD | V4L2_BUF_FLAG_ERROR),
                      static_cast<uint32_t>(V4L2_BUF_FLAG_REQUEST_FD));
            EXPECT_EQ(done.request_fd, requests[done.index]);
            EXPECT_EQ(done.bytesused, mSizeImage);
        }
        EXPECT_EQ(indexes, (std::vector<unsigned>{0, 1}));
        for (unsigned i = 0; i < kRequests; ++i) {
            EXPECT_EQ(System::ReinitMediaRequest(requests[i]), 0);
        }
    }
    running.driver.stop();

    for (unsigned i = 0; i < kRequests; ++i) {
        EXPECT_EQ(System::Close(requests[i], kRequestOwner), 0);
        errno = 0;
        EXPECT_EQ(::fcntl(requests[i], F_GETFD), -1);
        EXPECT_EQ(errno, EBADF);
    }
}

// ---- Fatal driver errors ----------------------------------------------------------------

// The process-ending path of a failed driver request, seen from the parent: the error line,
// then the crash report with the dispatch key, then the service's exit status.
void expectDriverFatal(const ChildOutcome& outcome, const std::string& errorLine,
                       const std::string& report) {
    EXPECT_TRUE(outcome.exited) << "signal " << outcome.signal << "\n" << outcome.errText;
    EXPECT_EQ(outcome.exitStatus, NSCam::Utils::kTerminateServiceExitStatus);
    EXPECT_EQ(logEntries(outcome.errText),
              (std::vector<std::string>{"E tavrel-syscall: " + errorLine,
                                        "F tavrel-crash: varnok: " + report}))
        << outcome.errText;
}

std::string reportText(const char* request, int error) {
    return std::string(request) + " err=" + std::to_string(-error) + "(" + errText(error) +
           ") Please check VarnokKernel.\nCRDISPATCH_KEY:VarnokKernel";
}

TEST_F(VividTest, QueueingAnEmptyRequestEndsTheServiceWithEnoent) {
    UniqueFd media = openNode(mNodes.media);
    ASSERT_TRUE(media.ok());
    const int request = System::AllocMediaRequest(media.get(), kRequestOwner);
    ASSERT_GE(request, 0);

    const ChildOutcome outcome = runInChild([&] { System::QueueMediaRequest(request); });
    expectDriverFatal(outcome,
                      "[QueueMediaRequest] ioctl(" + std::to_string(request) +
                          ", MEDIA_REQUEST_IOC_QUEUE): err=-2(" + errText(ENOENT) + ")",
                      reportText("MEDIA_REQUEST_IOC_QUEUE", ENOENT));

    // Only the child went: the request is still ours to close.
    EXPECT_EQ(System::Close(request, kRequestOwner), 0);
}

TEST_F(VividTest, RequeueingAQueuedRequestEndsTheServiceWithEbusy) {
    requestCaptureBuffers(2);
    UniqueFd media = openNode(mNodes.media);
    ASSERT_TRUE(media.ok());
    const int request = System::AllocMediaRequest(media.get(), kRequestOwner);
    ASSERT_GE(request, 0);
    v4l2_buffer buffer = mmapBuffer(V4L2_BUF_TYPE_VIDEO_CAPTURE, 0);
    buffer.flags = V4L2_BUF_FLAG_REQUEST_FD;
    buffer.request_fd = request;
    ASSERT_EQ(System::QueueVideoNodeBuf(mCapture.get(), &buffer), 0);
    // Not streaming, and one buffer short of starting: the request stays queued.
    ASSERT_EQ(System::QueueMediaRequest(request), 0);

    const ChildOutcome outcome = runInChild([&] { System::QueueMediaRequest(request); });
    expectDriverFatal(outcome,
                      "[QueueMediaRequest] ioctl(" + std::to_string(request) +
                          ", MEDIA_REQUEST_IOC_QUEUE): err=-16(" + errText(EBUSY) + ")",
                      reportText("MEDIA_REQUEST_IOC_QUEUE", EBUSY));

    EXPECT_EQ(System::Close(request, kRequestOwner), 0);
}

TEST_F(VividTest, RequestIoctlOnTheVideoNodeEndsTheServiceWithEnotty) {
    const int fd = mCapture.get();
    const ChildOutcome reinit = runInChild([fd] { System::ReinitMediaRequest(fd); });
    expectDriverFatal(reinit,
                      "[ReinitMediaRequest] ioctl(" + std::to_string(fd) +
                          ", MEDIA_REQUEST_IOC_REINIT): err=-25(" + errText(ENOTTY) + ")",
                      reportText("MEDIA_REQUEST_IOC_REINIT", ENOTTY));

    const ChildOutcome alloc = runInChild([fd] { System::AllocMediaRequest(fd, kRequestOwner); });
    expectDriverFatal(alloc,
                      "[AllocMediaRequest] ioctl(" + std::to_string(fd) +
                          ", MEDIA_IOC_REQUEST_ALLOC) return -1: err=-25(" + errText(ENOTTY) + ")",
                      reportText("MEDIA_IOC_REQUEST_ALLOC", ENOTTY));
}

TEST_F(VividTest, DequeueingEventsWithNoneQueuedEndsTheServiceWithEnoent) {
    const int fd = mCapture.get();
    const ChildOutcome outcome = runInChild([fd] {
        v4l2_event event{};
        System::DQueueEvent(fd, &event);
    });
    expectDriverFatal(outcome,
                      "[DQueueEvent] ioctl(" + std::to_string(fd) + ", VIDIOC_DQEVENT): -2(" +
                          errText(ENOENT) + ")",
                      reportText("VIDIOC_DQEVENT", ENOENT));
}

}  // namespace
}  // namespace tavrel::vmtest
