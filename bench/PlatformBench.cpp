// Costs of the platform services on the library's hot paths: a property lookup, a trace
// point whose category is off, and an error log statement with both routes off.
#include <benchmark/benchmark.h>

#include <cstdint>

#include "tavrel/platform/Properties.h"
#include "tavrel/platform/Trace.h"
#include "tavrel/platform/ULogger.h"
#include "utils/log/Log.h"
#include "utils/log/TraceSection.h"

namespace {

constexpr NSCam::NSTavrel::Log::Site kLogSite{"tavrel-bench", "bench/PlatformBench"};
constexpr const char* kBenchKey = "persist.vendor.camera.tavrel.EpollMonitor.threadpriority";
constexpr int32_t kPriority = 6;

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

}  // namespace
