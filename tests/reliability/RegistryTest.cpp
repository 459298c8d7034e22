// The registry after random histories. Tens of thousands of random operations (attach,
// modify, detach, also through another object reporting the same descriptor, re-attach of a
// reused descriptor, dump), each followed by a comparison of every monitor with a model of
// its map (descriptor to observer, or detached), its counters, the kernel's epoll set and
// its dump text. Then misuse after a random history: a second attach, a detach of a
// descriptor that was never seen or is detached, and a modify of a detached descriptor each
// end the process with the dump of that exact state and the fatal report; a few random
// states are sampled per run, since every sample costs a child process. Set
// TAVREL_RELIABILITY_SEED to replay a run.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>

#include <array>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <random>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "ReliabilitySupport.h"
#include "tavrel/platform/ULogger.h"

namespace tavrel::test {
namespace {

using testing::ContainsRegex;

constexpr const char* kSeedVariable = "TAVREL_RELIABILITY_SEED";
// Masks the walk attaches and modifies with.
constexpr uint32_t kMasks[] = {
    EPOLLIN, EPOLLIN | EPOLLET, EPOLLOUT, EPOLLIN | EPOLLOUT, EPOLLIN | EPOLLRDHUP | EPOLLET,
    EPOLLPRI};
// The kernel adds these to every registration.
constexpr uint32_t kAlwaysReported = EPOLLERR | EPOLLHUP;
enum Operation { kAttach, kModify, kDetach, kReuse, kDump };
// Relative weights of the operations, in that order.
constexpr int kWeights[] = {30, 20, 25, 10, 15};
// One detach in this many goes through another object reporting the same descriptor.
constexpr int kAliasDetachOneIn = 4;

// TAVREL_RELIABILITY_SEED when set, else a fresh seed that is put into the environment, so
// that a death test's re-run child walks the same way.
uint32_t reliabilitySeed() {
    if (std::getenv(kSeedVariable) == nullptr)
        setenv(kSeedVariable, std::to_string(std::random_device{}()).c_str(), 0);
    return static_cast<uint32_t>(std::strtoul(std::getenv(kSeedVariable), nullptr, 0));
}

using Registration = std::tuple<int, uint32_t, uint64_t>;  // fd, events, data

// What the kernel has registered in the epoll instance `epfd`, from its fdinfo.
std::set<Registration> epollSet(int epfd) {
    std::set<Registration> registrations;
    std::ifstream info("/proc/self/fdinfo/" + std::to_string(epfd));
    std::string line;
    while (std::getline(info, line)) {
        if (line.rfind("tfd:", 0) != 0) continue;
        std::istringstream fields(line);
        std::string label;
        int fd = -1;
        uint32_t events = 0;
        uint64_t data = 0;
        fields >> label >> fd >> label >> std::hex >> events >> label >> data;
        registrations.emplace(fd, events, data);
    }
    return registrations;
}

Registration registration(int fd, int mask, const IEventObserver* observer) {
    return {fd, static_cast<uint32_t>(mask) | kAlwaysReported,
            static_cast<uint64_t>(reinterpret_cast<uintptr_t>(observer))};
}

// A seeded random walk over the registry. Slot i observes descriptor `firstFd` + i; the
// numbers are fixed so that a re-run child sees the same ones. Every step goes to each of
// `monitors` monitors alike, and each is then compared with the model.
class RegistryHarness {
public:
    static constexpr size_t kSlots = 12;

    RegistryHarness(uint32_t seed, int firstFd, int monitors = 1)
        : mRandom(seed), mFirstFd(firstFd) {
        for (int i = 0; i < monitors; ++i) mMonitors.push_back(makeMonitor("model"));
        for (size_t slot = 0; slot < kSlots; ++slot)
            mSlots[slot].observer = std::make_unique<EventFdObserver>(fdOf(slot));
    }
    ~RegistryHarness() {
        for (const Slot& slot : mSlots) {
            for (auto& monitor : mMonitors)
                if (slot.attached) monitor->detach(slot.observer.get());
        }
    }
    RegistryHarness(const RegistryHarness&) = delete;
    RegistryHarness& operator=(const RegistryHarness&) = delete;

    // One random valid operation, then the checks. False at the first difference from the
    // model, which failure() then describes.
    bool step() {
        ++mSteps;
        std::discrete_distribution<int> operation(std::begin(kWeights), std::end(kWeights));
        for (;;) {
            const int chosen = operation(mRandom);
            if (chosen == kDump) {
                if (!dump()) return false;
                break;
            }
            // Modify and detach need an attached slot; attach and reuse one that is not.
            const size_t slot = pickSlot(chosen == kModify || chosen == kDetach);
            if (slot == kSlots) continue;
            if (chosen == kAttach) {
                attach(slot);
            } else if (chosen == kModify) {
                mSlots[slot].mask = randomMask();
                mLastOperation = "modify fd " + std::to_string(fdOf(slot));
                for (auto& monitor : mMonitors)
                    monitor->modify(mSlots[slot].observer.get(), mSlots[slot].mask);
            } else if (chosen == kDetach) {
                detach(slot,
                       std::uniform_int_distribution<int>(1, kAliasDetachOneIn)(mRandom) == 1);
            } else {
                // The old observer and its descriptor go; a new one takes the same number.
                mSlots[slot].observer.reset();
                mSlots[slot].observer = std::make_unique<EventFdObserver>(fdOf(slot));
                attach(slot);
                mLastOperation = "reuse and attach fd " + std::to_string(fdOf(slot));
            }
            break;
        }
        return check();
    }

    const std::string& failure() const { return mFailure; }
    uint64_t steps() const { return mSteps; }
    uint64_t checks() const { return mChecks; }
    uint32_t attachCount() const { return mAttaches; }
    uint32_t detachCount() const { return mDetaches; }
    EpollMonitor& monitor(int index) { return *mMonitors.at(static_cast<size_t>(index)); }

    // The observer of an attached slot, attaching one first when none is.
    IEventObserver* attachedObserver() {
        for (const Slot& slot : mSlots)
            if (slot.attached) return slot.observer.get();
        attach(0);
        return mSlots[0].observer.get();
    }

    // The observer of a slot whose entry is null, detaching one first when none is.
    IEventObserver* detachedObserver() {
        for (const Slot& slot : mSlots)
            if (slot.known && !slot.attached) return slot.observer.get();
        if (!mSlots[0].attached) attach(0);
        detach(0, false);
        return mSlots[0].observer.get();
    }

private:
    struct Slot {
        std::unique_ptr<EventFdObserver> observer;
        int mask = 0;           // the mask it was last attached or modified with
        bool known = false;     // the monitors hold an entry for its descriptor
        bool attached = false;  // that entry is its observer, not null
    };

    int fdOf(size_t slot) const { return mFirstFd + static_cast<int>(slot); }

    // A random slot that is attached or is not; kSlots when there is none.
    size_t pickSlot(bool wantAttached) {
        std::vector<size_t> candidates;
        for (size_t slot = 0; slot < kSlots; ++slot)
            if (mSlots[slot].attached == wantAttached) candidates.push_back(slot);
        if (candidates.empty()) return kSlots;
        return candidates[std::uniform_int_distribution<size_t>(0, candidates.size() - 1)(mRandom)];
    }

    int randomMask() {
        // The monitor takes an int and passes its bits through.
        return static_cast<int>(
            kMasks[std::uniform_int_distribution<size_t>(0, std::size(kMasks) - 1)(mRandom)]);
    }

    void attach(size_t slot) {
        Slot& s = mSlots[slot];
        s.mask = randomMask();
        mLastOperation = "attach fd " + std::to_string(fdOf(slot));
        for (auto& monitor : mMonitors) monitor->attach(s.observer.get(), s.mask);
        s.known = s.attached = true;
        ++mAttaches;
    }

    void detach(size_t slot, bool throughAlias) {
        // Another object reporting the same descriptor, as a second owner would.
        DrainObserver alias(fdOf(slot), DrainObserver::Kind::kEventFd);
        IEventObserver* observer =
            throughAlias ? static_cast<IEventObserver*>(&alias) : mSlots[slot].observer.get();
        mLastOperation =
            std::string(throughAlias ? "alias " : "") + "detach fd " + std::to_string(fdOf(slot));
        for (auto& monitor : mMonitors) monitor->detach(observer);
        mSlots[slot].attached = false;
        ++mDetaches;
    }

    bool dump() {
        mLastOperation = "dump";
        for (auto& monitor : mMonitors) {
            LinePrinter printer;
            monitor->dumpState(&printer);
            const std::string name = monitor->getName();
            const std::string config = name + ": logv:0 { " + name +
                                       " .mEpollFd=" + std::to_string(monitor->getEpollFd()) +
                                       " .mEventFd=" + std::to_string(monitor->getEventFD()) + " }";
            if (printer.lines.size() != 2)
                return fail("dumpState wrote " + std::to_string(printer.lines.size()) + " lines");
            if (printer.lines[0] != config) return fail("first dump line is " + printer.lines[0]);
            if (printer.lines[1].rfind("    ", 0) != 0)
                return fail("second dump line is not indented");
            if (!checkDump(printer.lines[1].substr(4))) return false;
        }
        return true;
    }

    // Compares every monitor with the model.
    bool check() {
        for (auto& monitor : mMonitors) {
            ++mChecks;
            const uint32_t expected = mAttaches - mDetaches;
            if (monitor->determineFdObserverCount() != expected) {
                return fail("determineFdObserverCount() is " +
                            std::to_string(monitor->determineFdObserverCount()) + ", model " +
                            std::to_string(expected));
            }
            if (!checkDump(monitor->toString_runtime())) return false;
            std::set<Registration> registered = {
                registration(monitor->getEventFD(), EPOLLIN, monitor.get())};
            for (size_t slot = 0; slot < kSlots; ++slot) {
                const Slot& s = mSlots[slot];
                if (s.attached)
                    registered.insert(registration(fdOf(slot), s.mask, s.observer.get()));
            }
            if (epollSet(monitor->getEpollFd()) != registered)
                return fail("the kernel's epoll set differs");
        }
        return true;
    }

    bool checkDump(const std::string& runtime) {
        const std::optional<RuntimeDump> dump = parseRuntimeDump(runtime);
        if (!dump) return fail("unreadable runtime dump: " + runtime);
        std::set<std::pair<int, std::string>> attached;
        std::set<int> detached;
        for (size_t slot = 0; slot < kSlots; ++slot) {
            const Slot& s = mSlots[slot];
            if (s.attached) {
                attached.emplace(fdOf(slot), pointerText(s.observer.get()));
            } else if (s.known) {
                detached.insert(fdOf(slot));
            }
        }
        if (dump->attachCount != mAttaches || dump->detachCount != mDetaches || !dump->active)
            return fail("dump counters or activity differ: " + runtime);
        if (dump->attached != attached) return fail("dump attach list differs: " + runtime);
        if (dump->detached != detached) return fail("dump detach list differs: " + runtime);
        return true;
    }

    bool fail(const std::string& what) {
        mFailure = "step " + std::to_string(mSteps) + " (" + mLastOperation + "): " + what;
        return false;
    }

    std::mt19937 mRandom;
    int mFirstFd;
    std::vector<std::shared_ptr<EpollMonitor>> mMonitors;  // each gets every step
    std::array<Slot, kSlots> mSlots;
    uint32_t mAttaches = 0;
    uint32_t mDetaches = 0;
    uint64_t mSteps = 0;
    uint64_t mChecks = 0;
    std::string mLastOperation;  // for failure()
    std::string mFailure;        // empty while the monitors agree with the model
};

constexpr std::chrono::milliseconds kReleaseDuration{6000};
constexpr uint64_t kReleaseSteps = 40000;
// Far above what the program opens; the misuse walks use numbers of their own.
constexpr int kModelFirstFd = 500;
constexpr int kMisuseFirstFd = 600;
// Never in a misuse walk: a descriptor the registry has not seen.
constexpr int kStrangerFd = kMisuseFirstFd + static_cast<int>(RegistryHarness::kSlots);
constexpr int kSamples = 2;
constexpr uint64_t kHistorySteps = 200;
// Both monitors take the same history; the second shows what the first's map will hold.
constexpr int kMonitors = 2;

std::string seedTrace() {
    return "TAVREL_RELIABILITY_SEED=" + std::to_string(reliabilitySeed());
}

TEST(ReliabilityRegistryModel, RandomOperationsKeepMapCountersEpollSetAndDumpInStep) {
    const RunBudget budget(kReleaseDuration, kReleaseSteps);
    SCOPED_TRACE(seedTrace());
    RegistryHarness harness(reliabilitySeed(), kModelFirstFd);
    bool agreed = true;
    while (agreed && harness.steps() < budget.count() && !budget.expired()) agreed = harness.step();
    reportFigures("registry_model",
                  {{"seed", reliabilitySeed()},
                   {"operations", harness.steps()},
                   {"checks", harness.checks()},
                   {"attaches", harness.attachCount()},
                   {"detaches", harness.detachCount()}},
                  budget.describe());
    EXPECT_TRUE(agreed) << harness.failure();
    EXPECT_GT(harness.steps(), 0u);
}

enum class Misuse { kSecondAttach, kUnseenDetach, kDetachedDetach, kDetachedModify };

// In the order of Misuse.
constexpr struct {
    const char* figures;   // the figures line's test name
    const char* function;  // the monitor call misused, which names the report's lines
} kMisuses[] = {
    {"misuse_second_attach", "attach"},
    {"misuse_unseen_detach", "detach"},
    {"misuse_detached_detach", "detach"},
    {"misuse_detached_modify", "modify"},
};
// The first line of each monitor's dump.
constexpr const char* kConfigLine =
    "P2DrvEP-model: logv:0 { P2DrvEP-model .mEpollFd=@N .mEventFd=@N }";

std::string runtimeLine(const std::string& prefix, uint32_t attaches, uint32_t detaches,
                        EpollMonitor& monitor) {
    const std::optional<RuntimeDump> dump = parseRuntimeDump(monitor.toString_runtime());
    // Pointers become "@P" for the line patterns of MonitorTestSupport.
    const std::string map = std::regex_replace(dump ? dump->mapText : "unreadable",
                                               std::regex("0x[[:xdigit:]]*"), "@P");
    return errorPrinterLine(prefix, "    { #attach=" + std::to_string(attaches) +
                                        " #detach=" + std::to_string(detaches) +
                                        " .mActive=1 .mFdObserverMap=" + map + " }");
}

// Samples random histories and ends a re-run child of each with the misuse.
void expectFatalReportAfterRandomHistories(Misuse which) {
    const std::string function = kMisuses[static_cast<int>(which)].function;
    SCOPED_TRACE(seedTrace());
    for (int sample = 0; sample < kSamples; ++sample) {
        // Walks the same random history in this process and in the re-run child.
        RegistryHarness harness(reliabilitySeed() * 31u + static_cast<uint32_t>(which) * 7u +
                                    static_cast<uint32_t>(sample),
                                kMisuseFirstFd, kMonitors);
        for (uint64_t i = 0; i < kHistorySteps; ++i)
            ASSERT_TRUE(harness.step()) << harness.failure();
        EventFdObserver stranger(kStrangerFd);
        IEventObserver* observer = &stranger;
        int twin = 0;  // the monitor whose map shows what the first's will hold at the end
        if (which == Misuse::kSecondAttach) {
            observer = harness.attachedObserver();
        } else if (which == Misuse::kUnseenDetach) {
            // The twin gains the stranger's null entry the way the failing detach will add it.
            harness.monitor(1).attach(&stranger, EPOLLIN);
            harness.monitor(1).detach(&stranger);
            twin = 1;
        } else {
            observer = harness.detachedObserver();
        }
        const std::string fd = std::to_string(observer->getEventFD());
        const uint32_t attaches = harness.attachCount() + (which == Misuse::kSecondAttach ? 1 : 0);
        const std::string report =
            errorPrinterLine(function, kConfigLine) + ".*" +
            runtimeLine(function, attaches, harness.detachCount(), harness.monitor(twin)) + ".*" +
            fatalLine(function, "[" + function + "] FATAL");
        // A modify's report has no message line of its own; the others name the entry.
        testing::Matcher<const std::string&> matches =
            testing::AllOf(ContainsRegex(report), testing::Not(testing::HasSubstr("modify(" + fd)));
        if (which != Misuse::kDetachedModify) {
            const char* why = which == Misuse::kSecondAttach ? "has existed" : "not found";
            matches = ContainsRegex(errorPrinterLine(function, "(" + fd + ", @P) " + why) + ".*" +
                                    report);
        }
        EXPECT_DEATH(
            {
                // The Android-log route only: the error printer's lines then carry their prefix.
                NSCam::Utils::ULog::ULogger::sMode.store(1);
                if (which == Misuse::kSecondAttach) {
                    harness.monitor(0).attach(observer, EPOLLIN);
                } else if (which == Misuse::kDetachedModify) {
                    harness.monitor(0).modify(observer, EPOLLIN | EPOLLET);
                } else {
                    harness.monitor(0).detach(observer);
                }
            },
            matches);
    }
    reportFigures(
        kMisuses[static_cast<int>(which)].figures,
        {{"seed", reliabilitySeed()}, {"samples", kSamples}, {"history_steps", kHistorySteps}});
}

TEST(ReliabilityRegistryMisuseDeathTest, SecondAttachAfterRandomHistory) {
    expectFatalReportAfterRandomHistories(Misuse::kSecondAttach);
}

TEST(ReliabilityRegistryMisuseDeathTest, DetachOfAnUnseenDescriptorAfterRandomHistory) {
    expectFatalReportAfterRandomHistories(Misuse::kUnseenDetach);
}

TEST(ReliabilityRegistryMisuseDeathTest, DetachOfADetachedDescriptorAfterRandomHistory) {
    expectFatalReportAfterRandomHistories(Misuse::kDetachedDetach);
}

TEST(ReliabilityRegistryMisuseDeathTest, ModifyOfADetachedDescriptorAfterRandomHistory) {
    expectFatalReportAfterRandomHistories(Misuse::kDetachedModify);
}

}  // namespace
}  // namespace tavrel::test
