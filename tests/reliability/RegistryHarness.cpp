#include "RegistryHarness.h"

#include <sys/epoll.h>

#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <tuple>

#include "RuntimeDump.h"

namespace tavrel::test {

namespace {

constexpr const char* kSeedVariable = "TAVREL_RELIABILITY_SEED";
// Masks the walk attaches and modifies with.
constexpr uint32_t kMasks[] = {
    EPOLLIN, EPOLLIN | EPOLLET, EPOLLOUT, EPOLLIN | EPOLLOUT, EPOLLIN | EPOLLRDHUP | EPOLLET,
    EPOLLPRI};
// The kernel adds these to every registration.
constexpr uint32_t kAlwaysReported = EPOLLERR | EPOLLHUP;
// Relative weights of the operations: attach, modify, detach, reuse, dump.
constexpr int kWeights[] = {30, 20, 25, 10, 15};
// One detach in this many goes through another object reporting the same descriptor.
constexpr int kAliasDetachOneIn = 4;

// Reports the descriptor of an observer it is not, as a second owner would.
class Alias : public IEventObserver {
public:
    explicit Alias(int fd) : mFd(fd) {}
    int getEventFD() const override { return mFd; }
    void onEvent(IEventObserver::OnEvent const&) override {}

private:
    int mFd;  // the descriptor borrowed
};

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

uint64_t dataOf(const IEventObserver* observer) {
    return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(observer));
}

}  // namespace

uint32_t reliabilitySeed() {
    if (const char* text = std::getenv(kSeedVariable)) {
        return static_cast<uint32_t>(std::strtoul(text, nullptr, 0));
    }
    const uint32_t seed = std::random_device{}();
    setenv(kSeedVariable, std::to_string(seed).c_str(), 0);
    return static_cast<uint32_t>(std::strtoul(std::getenv(kSeedVariable), nullptr, 0));
}

RegistryHarness::RegistryHarness(uint32_t seed, int firstFd, int monitors)
    : mRandom(seed), mFirstFd(firstFd), mSlots(kSlots) {
    for (int i = 0; i < monitors; ++i) mMonitors.push_back(makeMonitor("model"));
    for (int slot = 0; slot < kSlots; ++slot) {
        mSlots[static_cast<size_t>(slot)].observer = std::make_unique<EventFdObserver>(fdOf(slot));
    }
}

RegistryHarness::~RegistryHarness() {
    for (int slot = 0; slot < kSlots; ++slot) {
        if (!attached(slot)) continue;
        for (auto& monitor : mMonitors)
            monitor->detach(mSlots[static_cast<size_t>(slot)].observer.get());
    }
}

bool RegistryHarness::attached(int slot) const {
    const auto entry = mModel.find(fdOf(slot));
    return entry != mModel.end() && entry->second != nullptr;
}

int RegistryHarness::pickSlot(bool wantAttached) {
    std::vector<int> candidates;
    for (int slot = 0; slot < kSlots; ++slot) {
        if (attached(slot) == wantAttached) candidates.push_back(slot);
    }
    if (candidates.empty()) return -1;
    return candidates[std::uniform_int_distribution<size_t>(0, candidates.size() - 1)(mRandom)];
}

int RegistryHarness::randomMask() {
    // The monitor takes an int and passes its bits through.
    return static_cast<int>(
        kMasks[std::uniform_int_distribution<size_t>(0, std::size(kMasks) - 1)(mRandom)]);
}

void RegistryHarness::attach(int slot) {
    Slot& s = mSlots[static_cast<size_t>(slot)];
    s.mask = randomMask();
    mLastOperation = "attach fd " + std::to_string(fdOf(slot));
    for (auto& monitor : mMonitors) monitor->attach(s.observer.get(), s.mask);
    mModel[fdOf(slot)] = s.observer.get();
    ++mAttaches;
}

void RegistryHarness::modify(int slot) {
    Slot& s = mSlots[static_cast<size_t>(slot)];
    s.mask = randomMask();
    mLastOperation = "modify fd " + std::to_string(fdOf(slot));
    for (auto& monitor : mMonitors) monitor->modify(s.observer.get(), s.mask);
}

void RegistryHarness::detach(int slot, bool throughAlias) {
    Alias alias(fdOf(slot));
    IEventObserver* observer = throughAlias ? static_cast<IEventObserver*>(&alias)
                                            : mSlots[static_cast<size_t>(slot)].observer.get();
    mLastOperation =
        std::string(throughAlias ? "alias " : "") + "detach fd " + std::to_string(fdOf(slot));
    for (auto& monitor : mMonitors) monitor->detach(observer);
    mModel[fdOf(slot)] = nullptr;
    ++mDetaches;
}

// The old observer and its descriptor go; a new one takes the same number and is attached.
void RegistryHarness::reuse(int slot) {
    Slot& s = mSlots[static_cast<size_t>(slot)];
    s.observer.reset();
    s.observer = std::make_unique<EventFdObserver>(fdOf(slot));
    attach(slot);
    mLastOperation = "reuse and attach fd " + std::to_string(fdOf(slot));
}

bool RegistryHarness::dump() {
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
        if (printer.lines[1].rfind("    ", 0) != 0) return fail("second dump line is not indented");
        if (!checkDump(printer.lines[1].substr(4))) return false;
    }
    return true;
}

bool RegistryHarness::step() {
    ++mSteps;
    std::discrete_distribution<int> operation(std::begin(kWeights), std::end(kWeights));
    bool done = false;
    while (!done) {
        switch (operation(mRandom)) {
            case 0: {
                const int slot = pickSlot(false);
                if (slot < 0) break;
                attach(slot);
                done = true;
                break;
            }
            case 1: {
                const int slot = pickSlot(true);
                if (slot < 0) break;
                modify(slot);
                done = true;
                break;
            }
            case 2: {
                const int slot = pickSlot(true);
                if (slot < 0) break;
                detach(slot,
                       std::uniform_int_distribution<int>(1, kAliasDetachOneIn)(mRandom) == 1);
                done = true;
                break;
            }
            case 3: {
                const int slot = pickSlot(false);
                if (slot < 0) break;
                reuse(slot);
                done = true;
                break;
            }
            default:
                if (!dump()) return false;
                done = true;
                break;
        }
    }
    return check();
}

IEventObserver* RegistryHarness::attachedObserver() {
    for (int slot = 0; slot < kSlots; ++slot) {
        if (attached(slot)) return mSlots[static_cast<size_t>(slot)].observer.get();
    }
    attach(0);
    return mSlots[0].observer.get();
}

IEventObserver* RegistryHarness::detachedObserver() {
    for (int slot = 0; slot < kSlots; ++slot) {
        if (known(slot) && !attached(slot)) return mSlots[static_cast<size_t>(slot)].observer.get();
    }
    if (!attached(0)) attach(0);
    detach(0, false);
    return mSlots[0].observer.get();
}

bool RegistryHarness::check() {
    for (auto& monitor : mMonitors) {
        ++mChecks;
        const uint32_t expected = mAttaches - mDetaches;
        if (monitor->determineFdObserverCount() != expected) {
            return fail("determineFdObserverCount() is " +
                        std::to_string(monitor->determineFdObserverCount()) + ", model " +
                        std::to_string(expected));
        }
        if (!checkDump(monitor->toString_runtime())) return false;
        if (!checkEpollSet(*monitor)) return false;
    }
    return true;
}

bool RegistryHarness::checkDump(const std::string& runtime) {
    const std::optional<RuntimeDump> dump = parseRuntimeDump(runtime);
    if (!dump) return fail("unreadable runtime dump: " + runtime);
    std::set<std::pair<int, std::string>> attachedSet;
    std::set<int> detachedSet;
    for (const auto& [fd, observer] : mModel) {
        if (observer != nullptr) {
            attachedSet.emplace(fd, pointerText(observer));
        } else {
            detachedSet.insert(fd);
        }
    }
    if (dump->attachCount != mAttaches || dump->detachCount != mDetaches || !dump->active)
        return fail("dump counters or activity differ: " + runtime);
    if (dump->attached != attachedSet) return fail("dump attach list differs: " + runtime);
    if (dump->detached != detachedSet) return fail("dump detach list differs: " + runtime);
    return true;
}

bool RegistryHarness::checkEpollSet(EpollMonitor& monitor) {
    std::set<Registration> expected;
    expected.emplace(monitor.getEventFD(), static_cast<uint32_t>(EPOLLIN) | kAlwaysReported,
                     dataOf(static_cast<IEventObserver*>(&monitor)));
    for (int slot = 0; slot < kSlots; ++slot) {
        if (!attached(slot)) continue;
        const Slot& s = mSlots[static_cast<size_t>(slot)];
        expected.emplace(fdOf(slot), static_cast<uint32_t>(s.mask) | kAlwaysReported,
                         dataOf(s.observer.get()));
    }
    if (epollSet(monitor.getEpollFd()) != expected) return fail("the kernel's epoll set differs");
    return true;
}

bool RegistryHarness::fail(const std::string& what) {
    mFailure = "step " + std::to_string(mSteps) + " (" + mLastOperation + "): " + what;
    return false;
}

}  // namespace tavrel::test
