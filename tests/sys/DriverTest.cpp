// The driver requests: which failures end the service and with what report, the routine
// answers that pass silently, the owner tag of an allocated request, the duration check
// fixed at load, and the listing of descriptors when they have run out.
#include <linux/videodev2.h>
#include <sys/syscall.h>

#include <cstdarg>

#include "common/Support.h"
#include "utils/sys/SystemCallInternal.h"

namespace tavrel::test {
namespace {

constexpr unsigned long kOwner = 0xd1;
constexpr int kIova = int(0xC0104D01u);  // made up: any request passes through

// What the substitute ioctl below answers for one descriptor, in place of a driver.
struct Answer {
    int fd = -1, result = 0, error = 0;    // errno is set when `error` is not 0
    std::chrono::nanoseconds duration{0};  // the least time the request takes
    int allocated = -1;                    // stored through the argument when not -1
} sAnswer;

// A request's crash report: a message of two lines, each with its own header in the log.
Lines report(const char* request, int err) {
    return {format("F tavrel-crash: varnok: %s err=%d(%s) Please check VarnokKernel.", request,
                   -err, strerror(err)),
            "F tavrel-crash: CRDISPATCH_KEY:VarnokKernel"};
}

// Runs `call` with only trace category `bit` on (all of them for -1), markers on stderr.
void traced(int bit, const std::function<void()>& call) {
    host::setTraceSink(
        [](void*, const char* m) { std::fprintf(stderr, "trace %s\n", withoutPid(m).c_str()); },
        nullptr);
    host::setTavrelTraceBits(bit < 0 ? ~uint64_t{0} : uint64_t{1} << bit);
    host::setAtraceEnabledTags(0x400);
    call();
}

TEST(DriverDeathTest, EveryFailedRequestIsLoggedReportedAndEndsTheService) {
    const UniqueFd fd(::eventfd(0, EFD_CLOEXEC));
    const int n = fd.get();
    v4l2_buffer buffer{};
    v4l2_event event{};
    int arg = 0;
    // Trace bit and section (-1: all bits, no section), reported request, error line, errno.
    // clang-format off
    const struct { int bit; const char *section, *request, *line; int err; std::function<void()> call; } rows[] = {
        {5, "MEDIA_IOC_REQUEST_ALLOC", "MEDIA_IOC_REQUEST_ALLOC", "[AllocMediaRequest] ioctl(%d, "
            "MEDIA_IOC_REQUEST_ALLOC) return -1: err=-25(%s)", ENOTTY, [&] { System::AllocMediaRequest(n, kOwner); }},
        {-1, nullptr, "MEDIA_REQUEST_IOC_REINIT", "[ReinitMediaRequest] ioctl(%d, MEDIA_REQUEST_IOC_REINIT): "
            "err=-25(%s)", ENOTTY, [&] { System::ReinitMediaRequest(n); }},
        {8, "MEDIA_REQUEST_IOC_QUEUE", "MEDIA_REQUEST_IOC_QUEUE", "[QueueMediaRequest] ioctl(%d, "
            "MEDIA_REQUEST_IOC_QUEUE): err=-25(%s)", ENOTTY, [&] { System::QueueMediaRequest(n); }},
        {9, "VIDIOC_QBUF", "VIDIOC_QBUF", "[QueueVideoNodeBuf] ioctl(%d, VIDIOC_QBUF): -25(%s)", ENOTTY,
            [&] { System::QueueVideoNodeBuf(n, &buffer); }},
        {9, "VIDIOC_QBUF", "VIDIOC_QBUF", "[QueueVideoNodeBuf] ioctl(%d, VIDIOC_QBUF): -5(%s)", EIO, [&] {
            sAnswer = {n, 1, EIO};  // a positive result fails it too
            System::QueueVideoNodeBuf(n, &buffer); }},
        {13, "VIDIOC_DQBUF", "VIDIOC_DQBUF", "[DQueueVideoNodeBuf] ioctl(%d, VIDIOC_DQBUF): -25(%s)", ENOTTY,
            [&] { System::DQueueVideoNodeBuf(n, &buffer); }},
        {32, "VIDIOC_DQEVENT", "VIDIOC_DQEVENT", "[DQueueEvent] ioctl(%d, VIDIOC_DQEVENT): -25(%s)", ENOTTY,
            [&] { System::DQueueEvent(n, &event); }},
        {2, "AddIova", "ZELDIP_IOC_ADD_IOVA", "[AddIova] ioctl(%d, 0xc0104d01): -25(%s)", ENOTTY,
            [&] { System::AddIova(n, kIova, &arg); }},
        {2, "DelIova", "ZELDIP_IOC_DEL_IOVA", "[DelIova] ioctl(%d, 0xc0104d01): -25(%s)", ENOTTY,
            [&] { System::DelIova(n, kIova, &arg); }}};
    // clang-format on
    for (const auto& row : rows) {
        const Lines trace =
            row.section != nullptr ? Lines{std::string("trace B|") + row.section} : Lines{};
        EXPECT_EXIT(
            traced(row.bit, row.call), testing::ExitedWithCode(70),
            entriesAre(trace +
                       Lines{"E tavrel-syscall: " + format(row.line, n, strerror(row.err))} +
                       report(row.request, row.err)));
    }
}

TEST(DriverCall, RoutineAnswersPassSilentlyAndAnAllocatedRequestIsTagged) {
    const UniqueFd fd(::eventfd(0, EFD_CLOEXEC)), request(::eventfd(0, EFD_CLOEXEC));
    const int n = fd.get();
    v4l2_buffer buffer{};
    v4l2_event event{};
    int arg = 0;
    const LogCapture capture;
    sAnswer = {n, -1, EAGAIN};  // a non-blocking node with no finished buffer
    EXPECT_EQ(System::DQueueVideoNodeBuf(n, &buffer), -EAGAIN);
    sAnswer = {n, 5};  // only a negative result fails these
    EXPECT_EQ(System::ReinitMediaRequest(n) + System::DQueueEvent(n, &event) +
                  System::AddIova(n, kIova, &arg) + System::DelIova(n, kIova, &arg) +
                  System::Ioctl(n, 1, &arg, System::kIoctlCheckResult),
              5);
    sAnswer = {n, 0};
    EXPECT_EQ(System::QueueMediaRequest(n) + System::QueueVideoNodeBuf(n, &buffer) +
                  System::DQueueVideoNodeBuf(n, &buffer),
              0);
    sAnswer = {n, 0, 0, {}, request.get()};
    EXPECT_EQ(System::AllocMediaRequest(n, kOwner), request.get());
    EXPECT_EQ(host::fdsanGetTag(request.get()), zelcam_fdsan_create_tag(kOwner, 1));
    EXPECT_EQ(System::Close(const_cast<UniqueFd&>(request).release(), kOwner), 0);
    sAnswer = {};
    EXPECT_EQ(capture.texts(), Lines{});
}

TEST(DriverCall, RunningOutOfDescriptorsListsEachOpenOneAtInfoLevel) {
    const TempDir temp;
    const std::string path = temp.write(std::string(80, 'f'), "");
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC)), fd(::eventfd(0, EFD_CLOEXEC));
    const int n = fd.get();
    const size_t open =
        size_t(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
    for (const auto& [err, details, listed] :
         {std::make_tuple(EMFILE, 3u, true), std::make_tuple(EMFILE, 2u, false),
          std::make_tuple(ENFILE, 3u, false)}) {
        sAnswer = {n, -1, err};
        const LogCapture capture({3, details});
        EXPECT_EQ(System::Ioctl(n, 1, nullptr, System::kIoctlCheckResult), -err);
        const Lines lines = capture.texts();
        ASSERT_EQ(lines.size(), listed ? 1 + open : 1) << err << " " << details;
        EXPECT_EQ(lines[0], format("[Ioctl] ioctl(%d, 0x1): %d(%s)", n, -err, strerror(err)));
        if (!listed) continue;
        // Link targets are cut to the length procfs gives every link: 64.
        EXPECT_THAT(
            lines,
            testing::IsSupersetOf(
                {format("[dumpProcessFileState] %d -> %s", file.get(), path.substr(0, 64).c_str()),
                 format("[dumpProcessFileState] %d -> anon_inode:[eventfd]", n)}));
    }
    sAnswer = {};
}

// Run by the next test in a child: two slow requests on descriptor 100, the second failing.
TEST(DurationCheck, DISABLED_SlowRequests) {
    v4l2_buffer buffer{};
    ::dup2(::eventfd(0, EFD_CLOEXEC), 100);
    sAnswer = {100, 0, 0, std::chrono::milliseconds(3)};
    System::QueueMediaRequest(100);
    sAnswer = {100, -1, EIO, std::chrono::milliseconds(3)};
    System::QueueVideoNodeBuf(100, &buffer);
}

TEST(DurationCheck, MeasuredOnlyWithVerboseDetailsAtLoadAndNoCameraLogLevelBelowThree) {
    // Slow means over 2 ms, a boundary no request on a busy machine can be timed to.
    using NSCam::NSTavrel::System::internal::exceedsQueueLimit;
    EXPECT_EQ(format("%d%d", exceedsQueueLimit(2'000'000), exceedsQueueLimit(2'000'001)), "01");
    // Each line on both routes: the debug-print one first, with its header.
    const auto both = [](const char* level, const char* fn, const std::string& text,
                         const char* end) {
        const std::string tag = std::string(level) + " tavrel-syscall: ";
        return Lines{tag + "[tavrel-syscall] SystemCall:N " + fn + "() [" + fn + "] " + text + end,
                     tag + "[" + fn + "] " + text};
    };
    const Lines slow = both("W", "QueueMediaRequest",
                            "ioctl(100, MEDIA_REQUEST_IOC_QUEUE) takes T ns", "") +
                       both("W", "QueueVideoNodeBuf", "ioctl(100, VIDIOC_QBUF) takes T ns", ""),
                failed = both("E", "QueueVideoNodeBuf",
                              "ioctl(100, VIDIOC_QBUF): -5(" + std::string(strerror(EIO)) + ")",
                              " (QueueVideoNodeBuf){#N:src/utils/sys/SystemCall}") +
                         report("VIDIOC_QBUF", EIO);
    // Details level, then camera log level (empty: unset), then whether requests are timed.
    // clang-format off
    for (const auto& [details, level, measured] : {std::make_tuple("4", "", true), {"3", "", false},
            {"4", "3", true}, {"4", "2", false}, {"4", "0", false}}) {
        // clang-format on
        const std::string properties =
            "tavrel.host.ulog.mode=3\ntavrel.host.ulog.details_level=" + std::string(details) +
            (*level != 0 ? "\npersist.vendor.zel.camera.log_level=" : "") + level;
        const Outcome child = runWithProperties("DurationCheck.DISABLED_SlowRequests", properties);
        Lines got;
        for (const std::string& entry : logEntries(child.out)) {
            if (entry.find(" tavrel-") != 1) continue;
            got.push_back(
                std::regex_replace(entry, std::regex(R"(takes \d{7,} ns)"), "takes T ns"));
        }
        EXPECT_EQ(got, measured ? slow + failed : failed) << properties;
        EXPECT_EQ(child.status, 70);
    }
}

}  // namespace
}  // namespace tavrel::test

// Answers for sAnswer's descriptor and passes every other one on. The library's requests
// bind to it before the C library's.
extern "C" int ioctl(int fd, unsigned long request, ...) {
    va_list args;
    va_start(args, request);
    void* arg = va_arg(args, void*);
    va_end(args);
    const tavrel::test::Answer& answer = tavrel::test::sAnswer;
    if (fd < 0 || fd != answer.fd) return int(syscall(SYS_ioctl, fd, request, arg));
    // Busy, so that the request lasts that long on the steady clock the library reads.
    for (const auto end = std::chrono::steady_clock::now() + answer.duration;
         std::chrono::steady_clock::now() < end;) {
    }
    if (answer.allocated != -1) *static_cast<int*>(arg) = answer.allocated;
    if (answer.error != 0) errno = answer.error;
    return answer.result;
}
