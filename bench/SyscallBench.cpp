// What the wrapper contract costs over the bare call when nothing is logged or traced.
#include <benchmark/benchmark.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdint>

#include "tavrel/SystemCall.h"
#include "tavrel/platform/Trace.h"
#include "tavrel/platform/UniqueFd.h"
#include "utils/log/Log.h"
#include "utils/log/TraceSection.h"

namespace {

namespace System = NSCam::NSTavrel::System;
using tavrel::host::UniqueFd;

constexpr NSCam::NSTavrel::Log::Site kLogSite{"tavrel-bench", "bench/SyscallBench"};

void BM_BareEventfdWriteRead(benchmark::State& state) {
    UniqueFd fd(::eventfd(0, EFD_CLOEXEC));
    const uint64_t one = 1;
    uint64_t value = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(::write(fd.get(), &one, sizeof(one)));
        benchmark::DoNotOptimize(::read(fd.get(), &value, sizeof(value)));
    }
}
BENCHMARK(BM_BareEventfdWriteRead);

void BM_WrappedEventfdWriteRead(benchmark::State& state) {
    UniqueFd fd(::eventfd(0, EFD_CLOEXEC));
    const uint64_t one = 1;
    uint64_t value = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(System::Write(fd.get(), &one, sizeof(one)));
        benchmark::DoNotOptimize(System::Read(fd.get(), &value, sizeof(value)));
    }
}
BENCHMARK(BM_WrappedEventfdWriteRead);

void BM_BareIoctl(benchmark::State& state) {
    int ends[2];
    if (::pipe(ends) != 0) state.SkipWithError("pipe");
    UniqueFd readEnd(ends[0]);
    UniqueFd writeEnd(ends[1]);
    int pending = 0;
    for (auto _ : state) benchmark::DoNotOptimize(::ioctl(readEnd.get(), FIONREAD, &pending));
}
BENCHMARK(BM_BareIoctl);

void BM_WrappedIoctl(benchmark::State& state) {
    int ends[2];
    if (::pipe(ends) != 0) state.SkipWithError("pipe");
    UniqueFd readEnd(ends[0]);
    UniqueFd writeEnd(ends[1]);
    int pending = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            System::Ioctl(readEnd.get(), FIONREAD, &pending, System::kIoctlCheckResult));
    }
}
BENCHMARK(BM_WrappedIoctl);

void BM_DisabledLogStatement(benchmark::State& state) {
    const uint32_t savedMode = NSCam::Utils::ULog::ULogger::sMode.exchange(0);
    int value = 0;
    for (auto _ : state) {
        TAVREL_LOGE("[%s] value %d", __func__, value);
        benchmark::DoNotOptimize(++value);
    }
    NSCam::Utils::ULog::ULogger::sMode.store(savedMode);
}
BENCHMARK(BM_DisabledLogStatement);

void BM_DisabledTraceSection(benchmark::State& state) {
    tavrel::host::setTavrelTraceBits(0);
    for (auto _ : state) {
        NSCam::NSTavrel::Trace::Section section(NSCam::NSTavrel::Trace::kQueueBuf, "bench");
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_DisabledTraceSection);

}  // namespace
