// Misuse of the registry after a random history: a second attach, a detach of a
// descriptor that was never seen or is detached, and a modify of a detached descriptor
// each end the process with the dump of that exact state and the fatal report. A few
// random states are sampled per run, since every sample costs a child process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>

#include "Figures.h"
#include "RegistryHarness.h"
#include "RuntimeDump.h"
#include "tavrel/platform/ULogger.h"

namespace tavrel::test {
namespace {

using NSCam::Utils::ULog::ULogger;
using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

constexpr int kFirstFd = 600;
// Never in the walk: a descriptor the registry has not seen.
constexpr int kStrangerFd = kFirstFd + RegistryHarness::kSlots;
constexpr int kSamples = 2;
constexpr uint64_t kHistorySteps = 200;
// Both monitors take the same history; the second shows what the first's map will hold.
constexpr int kMonitors = 2;

enum class Misuse { kSecondAttach, kUnseenDetach, kDetachedDetach, kDetachedModify };

// The Android-log route only: the error printer's lines then carry their prefix.
void useAndroidLogRoute() {
    ULogger::sMode.store(1);
}

std::string configLine(const std::string& prefix) {
    return errorPrinterLine(prefix,
                            "P2DrvEP-model: logv:0 { P2DrvEP-model .mEpollFd=@N .mEventFd=@N }");
}

std::string runtimeLine(const std::string& prefix, uint32_t attaches, uint32_t detaches,
                        const std::string& mapText) {
    return errorPrinterLine(prefix, "    { #attach=" + std::to_string(attaches) +
                                        " #detach=" + std::to_string(detaches) +
                                        " .mActive=1 .mFdObserverMap=" + maskPointers(mapText) +
                                        " }");
}

std::string mapTextOf(EpollMonitor& monitor) {
    const std::optional<RuntimeDump> dump = parseRuntimeDump(monitor.toString_runtime());
    return dump ? dump->mapText : std::string("unreadable");
}

uint32_t sampleSeed(Misuse misuse, int sample) {
    return reliabilitySeed() * 31u + static_cast<uint32_t>(misuse) * 7u +
           static_cast<uint32_t>(sample);
}

// Walks the same random history in this process and in the re-run child.
void walk(RegistryHarness& harness) {
    for (uint64_t i = 0; i < kHistorySteps; ++i) ASSERT_TRUE(harness.step()) << harness.failure();
}

void report(const char* test) {
    reportFigures(test, {{"seed", reliabilitySeed()},
                         {"samples", kSamples},
                         {"history_steps", static_cast<int64_t>(kHistorySteps)}});
}

TEST(ReliabilityRegistryMisuseDeathTest, SecondAttachAfterRandomHistory) {
    SCOPED_TRACE("TAVREL_RELIABILITY_SEED=" + std::to_string(reliabilitySeed()));
    for (int sample = 0; sample < kSamples; ++sample) {
        RegistryHarness harness(sampleSeed(Misuse::kSecondAttach, sample), kFirstFd, kMonitors);
        walk(harness);
        IEventObserver* observer = harness.attachedObserver();
        const std::string fd = std::to_string(observer->getEventFD());
        EXPECT_DEATH(
            {
                useAndroidLogRoute();
                harness.monitor(0).attach(observer, EPOLLIN);
            },
            ContainsRegex(errorPrinterLine("attach", "(" + fd + ", @P) has existed") + ".*" +
                          configLine("attach") + ".*" +
                          runtimeLine("attach", harness.attachCount() + 1, harness.detachCount(),
                                      mapTextOf(harness.monitor(0))) +
                          ".*" + fatalLine("attach", "[attach] FATAL")));
    }
    report("misuse_second_attach");
}

TEST(ReliabilityRegistryMisuseDeathTest, DetachOfAnUnseenDescriptorAfterRandomHistory) {
    SCOPED_TRACE("TAVREL_RELIABILITY_SEED=" + std::to_string(reliabilitySeed()));
    for (int sample = 0; sample < kSamples; ++sample) {
        RegistryHarness harness(sampleSeed(Misuse::kUnseenDetach, sample), kFirstFd, kMonitors);
        walk(harness);
        EventFdObserver stranger(kStrangerFd);
        // The twin gains the stranger's null entry the way the failing detach will add it.
        harness.monitor(1).attach(&stranger, EPOLLIN);
        harness.monitor(1).detach(&stranger);
        EXPECT_DEATH(
            {
                useAndroidLogRoute();
                harness.monitor(0).detach(&stranger);
            },
            ContainsRegex(
                errorPrinterLine("detach", "(" + std::to_string(kStrangerFd) + ", @P) not found") +
                ".*" + configLine("detach") + ".*" +
                runtimeLine("detach", harness.attachCount(), harness.detachCount(),
                            mapTextOf(harness.monitor(1))) +
                ".*" + fatalLine("detach", "[detach] FATAL")));
    }
    report("misuse_unseen_detach");
}

TEST(ReliabilityRegistryMisuseDeathTest, DetachOfADetachedDescriptorAfterRandomHistory) {
    SCOPED_TRACE("TAVREL_RELIABILITY_SEED=" + std::to_string(reliabilitySeed()));
    for (int sample = 0; sample < kSamples; ++sample) {
        RegistryHarness harness(sampleSeed(Misuse::kDetachedDetach, sample), kFirstFd, kMonitors);
        walk(harness);
        IEventObserver* observer = harness.detachedObserver();
        const std::string fd = std::to_string(observer->getEventFD());
        EXPECT_DEATH(
            {
                useAndroidLogRoute();
                harness.monitor(0).detach(observer);
            },
            ContainsRegex(errorPrinterLine("detach", "(" + fd + ", @P) not found") + ".*" +
                          configLine("detach") + ".*" +
                          runtimeLine("detach", harness.attachCount(), harness.detachCount(),
                                      mapTextOf(harness.monitor(0))) +
                          ".*" + fatalLine("detach", "[detach] FATAL")));
    }
    report("misuse_detached_detach");
}

TEST(ReliabilityRegistryMisuseDeathTest, ModifyOfADetachedDescriptorAfterRandomHistory) {
    SCOPED_TRACE("TAVREL_RELIABILITY_SEED=" + std::to_string(reliabilitySeed()));
    for (int sample = 0; sample < kSamples; ++sample) {
        RegistryHarness harness(sampleSeed(Misuse::kDetachedModify, sample), kFirstFd, kMonitors);
        walk(harness);
        IEventObserver* observer = harness.detachedObserver();
        const std::string fd = std::to_string(observer->getEventFD());
        EXPECT_DEATH(
            {
                useAndroidLogRoute();
                harness.monitor(0).modify(observer, EPOLLIN | EPOLLET);
            },
            AllOf(ContainsRegex(configLine("modify") + ".*" +
                                runtimeLine("modify", harness.attachCount(), harness.detachCount(),
                                            mapTextOf(harness.monitor(0))) +
                                ".*" + fatalLine("modify", "[modify] FATAL")),
                  Not(HasSubstr("modify(" + fd))));
    }
    report("misuse_detached_modify");
}

}  // namespace
}  // namespace tavrel::test
