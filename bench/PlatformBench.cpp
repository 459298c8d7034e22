// Costs of the platform services on the library's hot paths: a property lookup, a trace
// point whose category is off, an error log statement with both routes off, and a close()
// of an unowned descriptor through the owner check against the C library's own close.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <gnu/lib-names.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

#include "tavrel/platform/Fdsan.h"
#include "tavrel/platform/Properties.h"
#include "tavrel/platform/Trace.h"
#include "tavrel/platform/ULogger.h"
#include "utils/log/Log.h"
#include "utils/log/TraceSection.h"

namespace {

constexpr NSCam::NSTavrel::Log::Site kLogSite{"tavrel-bench", "bench/PlatformBench"};
constexpr const char* kBenchKey = "persist.vendor.camera.tavrel.EpollMonitor.threadpriority";
constexpr int32_t kPriority = 6;
// The number each close round moves a descriptor onto and closes again.
constexpr int kClosedFd = 700;
constexpr unsigned long kOwner = 0xbe7c;
constexpr int kFdsanType = 1;

void BM_PropertyGetInt32(benchmark::State& state) {
    tavrel::host::property_set(kBenchKey, "6");
    for (auto _ : state) {
        benchmark::DoNotOptimize(NSCam::Utils::Properties::property_get_int32(kBenchKey, 0));
    }
    tavrel::host::property_set(kBenchKey, nullptr);
}
BENCHMARK(BM_PropertyGetInt32);

void BM_TraceSectionDisabled(benchmark::State& state) {
    tavrel::host::setTavrelTraceBits(0);
    tavrel::host::setAtraceEnabledTags(0);
    for (auto _ : state) {
        NSCam::NSTavrel::Trace::Section section(NSCam::NSTavrel::Trace::kFileCalls, "Read");
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_TraceSectionDisabled);

void BM_ErrorLogRoutesOff(benchmark::State& state) {
    using NSCam::Utils::ULog::ULogger;
    const uint32_t savedMode = ULogger::sMode.load();
    ULogger::sMode.store(0);
    int fd = 3;
    for (auto _ : state) {
        benchmark::DoNotOptimize(fd);
        TAVREL_LOGE("[%s] read(%d) priority %d", __func__, fd, kPriority);
    }
    ULogger::sMode.store(savedMode);
}
BENCHMARK(BM_ErrorLogRoutesOff);

using CloseCall = int (*)(int);
using Dup2Call = int (*)(int, int);

// The C library's own definition of `name`, not the one the program calls by that name.
template <typename Call>
Call libcCall(const char* name) {
    return reinterpret_cast<Call>(dlsym(dlopen(LIBC_SO, RTLD_LAZY | RTLD_NOLOAD), name));
}

// Moves a descriptor onto kClosedFd and closes it: with the C library's close (argument
// 0) or with the close this program gets, the platform layer's, which first finds the
// number unowned (argument 1). The difference of the two is the owner check's cost. An
// owned neighbour keeps the owner table's part for these numbers in place, as in any
// process that uses the library.
void BM_CloseUnowned(benchmark::State& state) {
    static const CloseCall libcClose = libcCall<CloseCall>("close");
    static const Dup2Call libcDup2 = libcCall<Dup2Call>("dup2");
    const CloseCall closeCall = state.range(0) == 0 ? libcClose : &close;
    const int source = eventfd(0, EFD_CLOEXEC);
    const uint64_t tag = zelcam_fdsan_create_tag(kOwner, kFdsanType);
    zelcam_fdsan_exchange_tag(source, 0, tag, kFdsanType);
    for (auto _ : state) {
        libcDup2(source, kClosedFd);
        benchmark::DoNotOptimize(closeCall(kClosedFd));
    }
    zelcam_fdsan_close_with_tag(source, tag, kFdsanType);
    state.SetLabel(state.range(0) == 0 ? "libc close" : "platform close");
}
BENCHMARK(BM_CloseUnowned)->ArgName("platform")->Arg(0)->Arg(1);

}  // namespace
