// Tens of thousands of random registry operations, each followed by a comparison of the
// monitor with a model of its map (descriptor to observer, or detached), its counters,
// the kernel's epoll set and its dump text. Set TAVREL_RELIABILITY_SEED to replay a run.
#include <gtest/gtest.h>

#include "Figures.h"
#include "RegistryHarness.h"
#include "RunBudget.h"

namespace tavrel::test {
namespace {

constexpr std::chrono::milliseconds kReleaseDuration{6000};
constexpr uint64_t kReleaseSteps = 40000;
// Far above what the program opens, as in the misuse tests.
constexpr int kFirstFd = 500;

TEST(ReliabilityRegistryModel, RandomOperationsKeepMapCountersEpollSetAndDumpInStep) {
    const RunBudget budget(kReleaseDuration, kReleaseSteps);
    const uint32_t seed = reliabilitySeed();
    SCOPED_TRACE("TAVREL_RELIABILITY_SEED=" + std::to_string(seed));
    RegistryHarness harness(seed, kFirstFd);
    bool agreed = true;
    while (agreed && harness.steps() < budget.count() && !budget.expired()) agreed = harness.step();
    reportFigures("registry_model",
                  {{"seed", seed},
                   {"operations", static_cast<int64_t>(harness.steps())},
                   {"checks", static_cast<int64_t>(harness.checks())},
                   {"attaches", harness.attachCount()},
                   {"detaches", harness.detachCount()}},
                  budget);
    EXPECT_TRUE(agreed) << harness.failure();
    EXPECT_GT(harness.steps(), 0u);
}

}  // namespace
}  // namespace tavrel::test
