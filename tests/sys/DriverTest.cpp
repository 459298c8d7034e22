// The driver requests: which failures end the service and with what report, the routine
// answers that pass silently, the owner tag of an allocated request, the duration check
// fixed at load, and the listing of descriptors when they have run out. What only a driver
// would answer is put into the C library's ioctl as a fault.
#include <linux/videodev2.h>
#include "common/Support.h"
#include "utils/sys/SystemCallInternal.h"

namespace tavrel::test {
namespace {

constexpr unsigned long kOwner = 0xd1;
constexpr int kIova = int(0xC0104D01u);  // made up: any request passes through

// What the requests are handed: no driver ever reads them.
v4l2_buffer buffer{};
v4l2_event event{};
int arg = 0;

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
        {13, "VIDIOC_DQBUF", "VIDIOC_DQBUF", "[DQueueVideoNodeBuf] ioctl(%d, VIDIOC_DQBUF): -25(%s)", ENOTTY,
            [&] { System::DQueueVideoNodeBuf(n, &buffer); }},
        {32, "VIDIOC_DQEVENT", "VIDIOC_DQEVENT", "[DQueueEvent] ioctl(%d, VIDIOC_DQEVENT): -25(%s)", ENOTTY,
            [&] { System::DQueueEvent(n, &event); }},
        {2, "AddIova", "ZELDIP_IOC_ADD_IOVA", "[AddIova] ioctl(%d, 0xc0104d01): -25(%s)", ENOTTY,
            [&] { System::AddIova(n, kIova, &arg); }},
        {2, "DelIova", "ZELDIP_IOC_DEL_IOVA", "[DelIova] ioctl(%d, 0xc0104d01): -25(%s)", ENOTTY,
            [&] { System::DelIova(n, kIova, &arg); }},
        // Last, as only it needs a fault: a positive result fails it too, errno as it was.
        {9, "VIDIOC_QBUF", "VIDIOC_QBUF", "[QueueVideoNodeBuf] ioctl(%d, VIDIOC_QBUF): -5(%s)", EIO, [&] {
            inject(SYS_ioctl, 0, n, 0, 1);
            errno = EIO;
            System::QueueVideoNodeBuf(n, &buffer); }}};
    // clang-format on
    for (const auto& row : rows) {
        if (row.err == EIO) SKIP_WITHOUT_FAULTS();
        const Lines trace =
            row.section != nullptr ? Lines{std::string("trace B|") + row.section} : Lines{};
        EXPECT_EXIT(
            traced(row.bit, row.call), testing::ExitedWithCode(70),
            entriesAre(trace +
                       Lines{"E tavrel-syscall: " + format(row.line, n, strerror(row.err))} +
                       crashReport(row.request, row.err)));
    }
}

TEST(DriverCall, RoutineAnswersPassSilentlyAndAnAllocatedRequestIsTagged) {
    SKIP_WITHOUT_FAULTS();
    const UniqueFd request(::eventfd(0, EFD_CLOEXEC));
    // By descriptor: no finished buffer on a non-blocking node; 5, which only a negative
    // result fails; 0; a new request. The results, then whether the request was tagged.
    EXPECT_EXIT(
        {
            inject(SYS_ioctl, 0, 100, EAGAIN);
            inject(SYS_ioctl, 0, 101, 0, 5);
            inject(SYS_ioctl, 0, 102, 0, 0);
            inject(SYS_ioctl, 0, 103, 0, 0, {}, 2, bytesOf(request.get()));
            ULogger::sDetailsLevel = 5;  // every level reaches stderr
            ULogger::sNormalDetailsMask = ~0u;
            std::fprintf(stderr, "%d %d %d %d\n", System::DQueueVideoNodeBuf(100, &buffer),
                         System::ReinitMediaRequest(101) + System::DQueueEvent(101, &event) +
                             System::AddIova(101, kIova, &arg) + System::DelIova(101, kIova, &arg) +
                             System::Ioctl(101, 1, &arg, System::kIoctlCheckResult),
                         System::QueueMediaRequest(102) + System::QueueVideoNodeBuf(102, &buffer) +
                             System::DQueueVideoNodeBuf(102, &buffer),
                         System::AllocMediaRequest(103, kOwner) - request.get());
            _exit(host::fdsanGetTag(request.get()) == zelcam_fdsan_create_tag(kOwner, 1) ? 0 : 1);
        },
        testing::ExitedWithCode(0), entriesAre({"-11 5 0 0"}));
}

TEST(DriverCall, RunningOutOfDescriptorsListsTheOpenOnesAtInfoLevel) {
    SKIP_WITHOUT_FAULTS();
    const TempDir temp;
    const std::string path = temp.write(std::string(80, 'f'), "");
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC)), fd(::eventfd(0, EFD_CLOEXEC));
    const int n = fd.get();
    const std::string listing = "I tavrel-syscall: [dumpProcessFileState] ";
    // Link targets are cut to the length procfs gives every link: 64.
    const testing::Matcher<Lines> none = testing::SizeIs(1),
                                  listed = testing::IsSupersetOf(
                                      {format("%s%d -> %s", listing.c_str(), file.get(),
                                              path.substr(0, 64).c_str()),
                                       format("%s%d -> anon_inode:[eventfd]", listing.c_str(), n)});
    for (const int err : {EMFILE, ENFILE}) {  // only the process's own limit lists them
        const std::string first =
            format("E tavrel-syscall: [Ioctl] ioctl(%d, 0x1): %d(%s)", n, -err, strerror(err));
        EXPECT_EXIT((inject(SYS_ioctl, 0, n, err), ULogger::sDetailsLevel = 3,
                     _exit(-System::Ioctl(n, 1, nullptr, System::kIoctlCheckResult))),
                    testing::ExitedWithCode(err),
                    testing::ResultOf(logEntries, testing::AllOf(testing::Contains(first),
                                                                 err == EMFILE ? listed : none)));
    }
}

// Run by the next test in a child: two requests that take 3 ms, on descriptors 100 and 102,
// the second failing.
TEST(DurationCheck, DISABLED_SlowRequests) {
    inject(SYS_ioctl, 0, 100, 0, 0, 3ms);
    inject(SYS_ioctl, 0, 102, 0, -EIO, 3ms);
    System::QueueMediaRequest(100);
    System::QueueVideoNodeBuf(102, &buffer);
}

TEST(DurationCheck, MeasuredOnlyWithVerboseDetailsAtLoadAndNoCameraLogLevelBelowThree) {
    // Slow means over 2 ms, a boundary no request on a busy machine can be timed to.
    using NSCam::NSTavrel::System::internal::exceedsQueueLimit;
    EXPECT_EQ(format("%d%d", exceedsQueueLimit(2'000'000), exceedsQueueLimit(2'000'001)), "01");
    SKIP_WITHOUT_FAULTS();
    // Each line on both routes, the debug-print one first with its header: the two slow
    // requests' warnings, then the failure's error and report.
    const Lines all = logEntries(
        R"(W tavrel-syscall: [tavrel-syscall] SystemCall:N QueueMediaRequest() [QueueMediaRequest] ioctl(100, MEDIA_REQUEST_IOC_QUEUE) takes T ns
W tavrel-syscall: [QueueMediaRequest] ioctl(100, MEDIA_REQUEST_IOC_QUEUE) takes T ns
W tavrel-syscall: [tavrel-syscall] SystemCall:N QueueVideoNodeBuf() [QueueVideoNodeBuf] ioctl(102, VIDIOC_QBUF) takes T ns
W tavrel-syscall: [QueueVideoNodeBuf] ioctl(102, VIDIOC_QBUF) takes T ns
E tavrel-syscall: [tavrel-syscall] SystemCall:N QueueVideoNodeBuf() [QueueVideoNodeBuf] ioctl(102, VIDIOC_QBUF): -5(Input/output error) (QueueVideoNodeBuf){#N:src/utils/sys/SystemCall}
E tavrel-syscall: [QueueVideoNodeBuf] ioctl(102, VIDIOC_QBUF): -5(Input/output error)
F tavrel-crash: varnok: VIDIOC_QBUF err=-5(Input/output error) Please check VarnokKernel.
F tavrel-crash: CRDISPATCH_KEY:VarnokKernel)");
    // Details level, then camera log level (empty: unset), then whether requests are timed.
    // clang-format off
    for (const auto& [details, level, measured] : {std::make_tuple("4", "", true), {"3", "", false},
            {"4", "3", true}, {"4", "2", false}, {"4", "0", false}}) {
        // clang-format on
        const std::string properties =
            "tavrel.host.ulog.mode=3\ntavrel.host.ulog.details_level=" + std::string(details) +
            (*level != 0 ? "\npersist.vendor.zel.camera.log_level=" : "") + level;
        const Outcome child = runWithProperties("DurationCheck.DISABLED_SlowRequests", properties);
        const std::regex slow(R"(takes \d{7,} ns)");
        Lines got;
        for (const std::string& entry :
             logEntries(std::regex_replace(child.out, slow, "takes T ns")))
            if (entry.find(" tavrel-") == 1) got.push_back(entry);
        EXPECT_EQ(got, Lines(all.begin() + (measured ? 0 : 4), all.end())) << properties;
        EXPECT_EQ(child.status, 70);
    }
}

}  // namespace
}  // namespace tavrel::test
