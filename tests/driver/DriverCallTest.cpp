// The driver request wrappers: which failures end the service and with what report, the
// silent empty dequeue, tagging of request descriptors, trace sections and the duration
// check of the queueing requests.
#include <gtest/gtest.h>
#include <linux/videodev2.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "FakeIoctl.h"
#include "common/LogCapture.h"
#include "tavrel/SystemCall.h"
#include "tavrel/platform/CrashReporter.h"
#include "tavrel/platform/Fdsan.h"
#include "tavrel/platform/Properties.h"
#include "tavrel/platform/Trace.h"
#include "tavrel/platform/UniqueFd.h"
#include "utils/sys/SystemCallInternal.h"

namespace {

namespace System = NSCam::NSTavrel::System;
using tavrel::host::UniqueFd;
using tavrel::test::FakeRequest;
using tavrel::test::LogCapture;
using tavrel::test::LogSwitches;
using tavrel::test::setFakeRequest;
using Lines = std::vector<std::string>;

constexpr unsigned long kOwner = 0xD1;
constexpr int kFdsanType = 1;
constexpr int kTcgets = 0x5401;
// A made-up address-mapping request; the wrappers pass any number through.
constexpr int kIovaRequest = static_cast<int>(0xC0104D01u);
constexpr auto kSlow = std::chrono::milliseconds(3);
constexpr uint64_t kCameraTag = 0x400;

LogSwitches unifiedOnly() {
    return LogSwitches{2, 5, 0, false};
}

std::string n(int value) {
    return std::to_string(value);
}

TEST(DriverCall, QueueLimitIsStrictlyAboveTwoMilliseconds) {
    using NSCam::NSTavrel::System::internal::exceedsQueueLimit;
    EXPECT_FALSE(exceedsQueueLimit(0));
    EXPECT_FALSE(exceedsQueueLimit(2'000'000));
    EXPECT_TRUE(exceedsQueueLimit(2'000'001));
}

TEST(DriverCall, IoctlChecksOnlyWhenAsked) {
    UniqueFd closed(::eventfd(0, EFD_CLOEXEC));
    const int fd = closed.get();
    closed.reset();
    int value = 0;
    LogCapture logs(unifiedOnly());
    errno = 0;
    EXPECT_EQ(System::Ioctl(fd, kTcgets, &value, 0), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(System::Ioctl(fd, kTcgets, &value, 2), -1);
    EXPECT_TRUE(logs.unified().empty());
    EXPECT_EQ(System::Ioctl(fd, kTcgets, &value, System::kIoctlCheckResult), -EBADF);
    EXPECT_EQ(logs.unifiedTexts(),
              Lines{"[Ioctl] ioctl(" + n(fd) + ", 0x5401): -9(Bad file descriptor)"});
}

// `text` as a regular expression that matches only itself.
std::string escaped(const std::string& text) {
    std::string pattern;
    for (const char c : text) {
        if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) pattern += '\\';
        pattern += c;
    }
    return pattern;
}

struct FatalCase {
    std::string wrapper;              // the wrapper's name in its error line
    const char* request;              // the name in the driver report
    std::string line;                 // the error line, after "[<wrapper>] ioctl(<fd>, "
    std::function<int(int fd)> call;  // the wrapper on a descriptor that is no device
};

std::vector<FatalCase> fatalCases() {
    static v4l2_buffer buffer{};
    static v4l2_event event{};
    static int iova = 0;
    const std::string notTty = "-25(Inappropriate ioctl for device)";
    return {
        {"AllocMediaRequest", "MEDIA_IOC_REQUEST_ALLOC",
         "MEDIA_IOC_REQUEST_ALLOC) return -1: err=" + notTty,
         [](int fd) { return System::AllocMediaRequest(fd, kOwner); }},
        {"ReinitMediaRequest", "MEDIA_REQUEST_IOC_REINIT",
         "MEDIA_REQUEST_IOC_REINIT): err=" + notTty,
         [](int fd) { return System::ReinitMediaRequest(fd); }},
        {"QueueMediaRequest", "MEDIA_REQUEST_IOC_QUEUE", "MEDIA_REQUEST_IOC_QUEUE): err=" + notTty,
         [](int fd) { return System::QueueMediaRequest(fd); }},
        {"QueueVideoNodeBuf", "VIDIOC_QBUF", "VIDIOC_QBUF): " + notTty,
         [](int fd) { return System::QueueVideoNodeBuf(fd, &buffer); }},
        {"DQueueVideoNodeBuf", "VIDIOC_DQBUF", "VIDIOC_DQBUF): " + notTty,
         [](int fd) { return System::DQueueVideoNodeBuf(fd, &buffer); }},
        {"DQueueEvent", "VIDIOC_DQEVENT", "VIDIOC_DQEVENT): " + notTty,
         [](int fd) { return System::DQueueEvent(fd, &event); }},
        {"AddIova", "ZELDIP_IOC_ADD_IOVA", "0xc0104d01): " + notTty,
         [](int fd) { return System::AddIova(fd, kIovaRequest, &iova); }},
        {"DelIova", "ZELDIP_IOC_DEL_IOVA", "0xc0104d01): " + notTty,
         [](int fd) { return System::DelIova(fd, kIovaRequest, &iova); }},
    };
}

TEST(DriverCallDeathTest, EveryFailedRequestEndsTheService) {
    UniqueFd notDevice(::eventfd(0, EFD_CLOEXEC));
    for (const FatalCase& c : fatalCases()) {
        SCOPED_TRACE(c.request);
        // The error line on the unified route (host output), then the crash report.
        const std::string expected =
            escaped("tavrel-syscall: [" + c.wrapper + "] ioctl(" + n(notDevice.get()) + ", " +
                    c.line + "\n") +
            ".*" +
            escaped("varnok: " + std::string(c.request) +
                    " err=-25(Inappropriate ioctl for device) Please check VarnokKernel.\n"
                    "CRDISPATCH_KEY:VarnokKernel\n");
        EXPECT_EXIT(c.call(notDevice.get()),
                    testing::ExitedWithCode(NSCam::Utils::kTerminateServiceExitStatus), expected);
    }
}

TEST(DriverCall, EmptyDequeueIsSilentAndSurvives) {
    UniqueFd node(::eventfd(0, EFD_CLOEXEC));
    setFakeRequest(FakeRequest{node.get(), -1, EAGAIN});
    v4l2_buffer buffer{};
    LogCapture logs;
    EXPECT_EQ(System::DQueueVideoNodeBuf(node.get(), &buffer), -EAGAIN);
    setFakeRequest(FakeRequest{});
    EXPECT_TRUE(logs.unified().empty());
    EXPECT_TRUE(logs.debugPrint().empty());
}

TEST(DriverCall, AllocatedRequestCarriesItsOwnersTag) {
    UniqueFd media(::eventfd(0, EFD_CLOEXEC));
    const int request = ::eventfd(0, EFD_CLOEXEC);
    ASSERT_GE(request, 0);
    setFakeRequest(FakeRequest{media.get(), 0, 0, {}, request});
    EXPECT_EQ(System::AllocMediaRequest(media.get(), kOwner), request);
    setFakeRequest(FakeRequest{});
    EXPECT_EQ(tavrel::host::fdsanGetTag(request), zelcam_fdsan_create_tag(kOwner, kFdsanType));
    EXPECT_EQ(System::Close(request, kOwner), 0);
}

// Only the requests with a trace category open a section, named after the request.
TEST(DriverCall, TraceSectionsAreNamedAfterTheRequest) {
    UniqueFd node(::eventfd(0, EFD_CLOEXEC));
    setFakeRequest(FakeRequest{node.get(), 0, 0});
    v4l2_event event{};
    const std::string pid = n(getpid());
    Lines markers;
    tavrel::host::setTraceSink(
        [](void* self, const char* marker) { static_cast<Lines*>(self)->push_back(marker); },
        &markers);
    tavrel::host::setTavrelTraceBits(~uint64_t{0});
    tavrel::host::setAtraceEnabledTags(kCameraTag);
    EXPECT_EQ(System::ReinitMediaRequest(node.get()), 0);
    EXPECT_TRUE(markers.empty());
    EXPECT_EQ(System::QueueMediaRequest(node.get()), 0);
    EXPECT_EQ(System::DQueueEvent(node.get(), &event), 0);
    tavrel::host::setTraceSink(nullptr, nullptr);
    tavrel::host::setTavrelTraceBits(0);
    tavrel::host::setAtraceEnabledTags(0);
    setFakeRequest(FakeRequest{});
    EXPECT_EQ(markers, (Lines{"B|" + pid + "|MEDIA_REQUEST_IOC_QUEUE", "E|" + pid,
                              "B|" + pid + "|VIDIOC_DQEVENT", "E|" + pid}));
}

// Sets an environment variable for the death tests' children, which load the library
// anew, and removes it at the end.
class ChildEnvironment {
public:
    ChildEnvironment(const std::string& properties) {
        std::ofstream(mPath) << properties;
        ::setenv(tavrel::host::kPropertiesFileEnv, mPath.c_str(), 1);
    }
    ~ChildEnvironment() {
        ::unsetenv(tavrel::host::kPropertiesFileEnv);
        std::remove(mPath.c_str());
    }

private:
    const std::string mPath =
        "/tmp/tavrel-driver-props-" + std::to_string(getpid());  // the properties file
};

// Runs a slow and a fast request of each queueing kind, prints the captured lines on
// stderr and exits with 0.
void queueSlowAndFast() {
    UniqueFd node(::eventfd(0, EFD_CLOEXEC));
    v4l2_buffer buffer{};
    LogCapture logs(LogSwitches{2, 2, 0, false});
    setFakeRequest(FakeRequest{node.get(), 0, 0, kSlow});
    System::QueueVideoNodeBuf(node.get(), &buffer);
    System::QueueMediaRequest(node.get());
    setFakeRequest(FakeRequest{node.get(), 0, 0});
    System::QueueVideoNodeBuf(node.get(), &buffer);
    System::QueueMediaRequest(node.get());
    for (const auto& line : logs.unified()) {
        std::fprintf(stderr, "%d %s\n", line.level, line.text.c_str());
    }
    std::fprintf(stderr, "done\n");
    std::fflush(stderr);
    _exit(0);
}

struct DurationCase {
    int detailsLevel;    // the unified logger's, at load
    int cameraLogLevel;  // the camera log level at load, -1 for unset
    bool measured;       // whether the slow requests are reported
};

TEST(DriverCallDeathTest, DurationCheckIsFixedAtLoad) {
    const std::string warnings =
        "^2 \\[QueueVideoNodeBuf\\] ioctl\\([0-9]+, VIDIOC_QBUF\\) takes [0-9]+ ns\n"
        "2 \\[QueueMediaRequest\\] ioctl\\([0-9]+, MEDIA_REQUEST_IOC_QUEUE\\) takes [0-9]+ "
        "ns\ndone\n$";
    for (const DurationCase& c :
         {DurationCase{4, -1, true}, DurationCase{4, 3, true}, DurationCase{4, 2, false},
          DurationCase{4, 1, false}, DurationCase{4, 0, false}, DurationCase{3, -1, false}}) {
        std::string properties = "tavrel.host.ulog.details_level=" + n(c.detailsLevel) + "\n";
        if (c.cameraLogLevel >= 0) {
            properties += "persist.vendor.zel.camera.log_level=" + n(c.cameraLogLevel) + "\n";
        }
        SCOPED_TRACE(properties);
        ChildEnvironment environment(properties);
        EXPECT_EXIT(queueSlowAndFast(), testing::ExitedWithCode(0),
                    c.measured ? warnings : "^done\n$");
    }
}

// A slow request that fails: its warning first, then its error line with the errno the
// request left, then the end of the service.
void queueSlowFailing() {
    UniqueFd node(::eventfd(0, EFD_CLOEXEC));
    setFakeRequest(FakeRequest{node.get(), -1, EIO, kSlow});
    System::QueueMediaRequest(node.get());
}

TEST(DriverCallDeathTest, SlowFailureWarnsBeforeItsErrorLine) {
    ChildEnvironment environment("tavrel.host.ulog.details_level=4\n");
    EXPECT_EXIT(queueSlowFailing(),
                testing::ExitedWithCode(NSCam::Utils::kTerminateServiceExitStatus),
                "W tavrel-syscall: \\[QueueMediaRequest\\] ioctl\\([0-9]+, "
                "MEDIA_REQUEST_IOC_QUEUE\\) takes [0-9]+ ns\n"
                ".*E tavrel-syscall: \\[QueueMediaRequest\\] ioctl\\([0-9]+, "
                "MEDIA_REQUEST_IOC_QUEUE\\): err=-5\\(Input/output error\\)\n"
                ".*varnok: MEDIA_REQUEST_IOC_QUEUE err=-5\\(Input/output error\\)");
}

}  // namespace
