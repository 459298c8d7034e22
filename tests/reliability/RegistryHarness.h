// A seeded random walk over the monitor's registry: attach, modify, detach (also through
// another object reporting the same descriptor), re-attach of a reused descriptor, dump.
// After every step each monitor is compared with a model of the map, the counters, the
// kernel's epoll set and the dump text.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "monitor/MonitorTestSupport.h"

namespace tavrel::test {

// The seed of the random walks: TAVREL_RELIABILITY_SEED when set, else a fresh one that is
// put into the environment, so that a death test's re-run child walks the same way.
uint32_t reliabilitySeed();

class RegistryHarness {
public:
    static constexpr int kSlots = 12;

    // Slot i observes descriptor `firstFd` + i; the numbers are fixed so that a re-run
    // child sees the same ones. Every step goes to each of `monitors` monitors alike.
    RegistryHarness(uint32_t seed, int firstFd, int monitors = 1);
    // Detaches what is still attached.
    ~RegistryHarness();
    RegistryHarness(const RegistryHarness&) = delete;
    RegistryHarness& operator=(const RegistryHarness&) = delete;

    // One random valid operation, then the checks. False at the first difference from the
    // model, which failure() then describes.
    bool step();
    const std::string& failure() const { return mFailure; }
    uint64_t steps() const { return mSteps; }
    uint64_t checks() const { return mChecks; }

    EpollMonitor& monitor(int index) { return *mMonitors.at(static_cast<size_t>(index)); }
    // The observer of an attached slot, attaching one first when none is.
    IEventObserver* attachedObserver();
    // The observer of a slot whose entry is null, detaching one first when none is.
    IEventObserver* detachedObserver();
    uint32_t attachCount() const { return mAttaches; }
    uint32_t detachCount() const { return mDetaches; }

private:
    struct Slot {
        std::unique_ptr<EventFdObserver> observer;
        int mask = 0;  // the mask it was last attached or modified with
    };

    int fdOf(int slot) const { return mFirstFd + slot; }
    bool attached(int slot) const;
    bool known(int slot) const { return mModel.count(fdOf(slot)) != 0; }
    int pickSlot(bool wantAttached);
    int randomMask();

    void attach(int slot);
    void modify(int slot);
    void detach(int slot, bool throughAlias);
    void reuse(int slot);
    bool dump();

    // Compares every monitor with the model; sets mFailure on a difference.
    bool check();
    bool checkDump(const std::string& runtime);
    bool checkEpollSet(EpollMonitor& monitor);
    bool fail(const std::string& what);

    std::mt19937 mRandom;
    int mFirstFd;
    std::vector<std::shared_ptr<EpollMonitor>> mMonitors;  // each gets every step
    std::vector<Slot> mSlots;
    std::map<int, IEventObserver*> mModel;  // descriptor -> observer, null when detached
    uint32_t mAttaches = 0;
    uint32_t mDetaches = 0;
    uint64_t mSteps = 0;
    uint64_t mChecks = 0;
    std::string mLastOperation;  // for failure()
    std::string mFailure;        // empty while the monitors agree with the model
};

}  // namespace tavrel::test
