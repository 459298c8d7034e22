// What the reliability tests share: their time and count budgets and figures line, the
// observers that account for every event, the barrier that proves a detached observer is
// no longer dispatched, the process's descriptor table and the monitor's dump read back.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "monitor/MonitorTestSupport.h"
#include "tavrel/IThreadLoop.h"

namespace tavrel::test {

// How long and how many times a test runs: short by default, shorter still in builds that
// run many times slower, and as long as TAVREL_SOAK_SECONDS asks for a soak.
class RunBudget {
public:
    // `releaseDuration` and `releaseCount` make the default run of a release build. A
    // slower build divides both; under valgrind the duration stays at least
    // `shortestUnderValgrind` (and at most the release one), for a check that needs some
    // wall time to mean anything at valgrind's pace (every Timer firing in the last part
    // of the run). The sanitizer builds run at most a few times slower and need no floor.
    RunBudget(std::chrono::milliseconds releaseDuration, uint64_t releaseCount,
              std::chrono::milliseconds shortestUnderValgrind = std::chrono::milliseconds(1));

    std::chrono::milliseconds duration() const { return mDuration; }
    uint64_t count() const { return mCount; }
    std::chrono::steady_clock::time_point deadline() const { return mStart + mDuration; }
    bool expired() const { return std::chrono::steady_clock::now() >= deadline(); }
    // For the figures line: "build=tsan soak=0 budget_ms=250 budget_count=5000".
    std::string describe() const;

private:
    std::chrono::milliseconds mDuration;           // time bound
    uint64_t mCount;                               // count bound
    bool mSoak;                                    // set from TAVREL_SOAK_SECONDS
    std::chrono::steady_clock::time_point mStart;  // when the budget was made
};

// "build=release", "build=asan", "build=tsan" or "build=valgrind".
std::string buildTag();

struct Figure {
    template <typename Number>
    Figure(const char* name, Number number) : name(name), value(static_cast<int64_t>(number)) {}
    std::string name;
    int64_t value;
};

// Prints "[ figures ] <test> name=value ... <tail>", the one line each test leaves in the
// CI log, and records each figure as a test property for the XML report. A test bounded by
// its own fixed counts gives only the build as its tail.
void reportFigures(const std::string& test, const std::vector<Figure>& figures,
                   const std::string& tail = buildTag());

// Descriptor number to what it leads to, from /proc/self/fd (without the listing's own).
using DescriptorTable = std::map<int, std::string>;
DescriptorTable openDescriptors();
// Entries that differ between the two tables: opened, closed or replaced in between.
int descriptorDifference(const DescriptorTable& before, const DescriptorTable& after);

// The monitor as the loop a ThreadDriver runs.
std::shared_ptr<NSCam::NSTavrel::IThreadLoop> loopOf(const std::shared_ptr<EpollMonitor>& monitor);

// Long enough for any dispatch on a loaded machine; only a lost event makes a wait run out.
inline constexpr std::chrono::seconds kDispatchGuard{20};

// Polls `done` until it holds; false when kDispatchGuard runs out first.
bool waitUntil(const std::function<bool()>& done);

// What one observer was handed, and when. An observer is "detached" once detach() has
// returned, and "settled" once a barrier event has been dispatched after that: from then
// on the monitor must not call it again.
struct Tally {
    std::atomic<uint64_t> consumed{0};      // units read (eventfd counts, bytes, expiries)
    std::atomic<bool> detached{false};      // detach() has returned
    std::atomic<bool> settled{false};       // the batch running at detach has ended
    std::atomic<uint64_t> inLastBatch{0};   // calls between detach and settling (allowed)
    std::atomic<uint64_t> afterSettled{0};  // calls after settling (a defect)

    void record(uint64_t units);
};

// Reads its non-blocking descriptor dry on every event: an eventfd's counter, or a pipe's
// bytes. The descriptor belongs to whoever made it; the hook runs after the accounting.
class DrainObserver : public IEventObserver {
public:
    enum class Kind { kEventFd, kPipe };
    using Hook = std::function<void(IEventObserver::OnEvent const&)>;

    DrainObserver(int fd, Kind kind) : mFd(fd), mKind(kind) {}

    int getEventFD() const override { return mFd; }
    void onEvent(IEventObserver::OnEvent const& event) override;

    // Before attach only: the monitor thread reads it unguarded.
    void setHook(Hook hook) { mHook = std::move(hook); }
    Tally& tally() { return mTally; }

private:
    int mFd;       // observed descriptor, not owned
    Kind mKind;    // how to read it
    Hook mHook;    // set before attach; runs on the monitor thread
    Tally mTally;  // what was consumed
};

// Writes `units` to an eventfd, or that many bytes to a pipe; false on a short write.
bool produce(int fd, DrainObserver::Kind kind, uint64_t units);

// A marker eventfd attached to a monitor: pass() signals it and waits until the monitor
// has dispatched that signal. Every batch whose wait began before pass() was called has
// then ended, so an observer detached before pass() can no longer be called.
class DispatchBarrier {
public:
    explicit DispatchBarrier(IEpollMonitor& monitor);
    ~DispatchBarrier();
    DispatchBarrier(const DispatchBarrier&) = delete;
    DispatchBarrier& operator=(const DispatchBarrier&) = delete;

    // False when the marker was not dispatched within kDispatchGuard.
    bool pass();

private:
    IEpollMonitor& mMonitor;  // where the marker is attached
    host::UniqueFd mFd;       // the marker eventfd
    DrainObserver mMarker;    // consumes the marker's signals
    uint64_t mSent = 0;       // signals written so far
};

// Observers whose detach has settled, kept alive a while so that a late call finds a live
// object and is counted in every build; older ones are folded into sums and freed, so
// that a long soak's memory stays flat.
class SettledWindow {
public:
    struct Sums {
        uint64_t consumed = 0;
        uint64_t inLastBatch = 0;
        uint64_t afterSettled = 0;
        uint64_t unbalanced = 0;  // observers that consumed other than what was produced
    };

    explicit SettledWindow(size_t kept) : mKept(kept) {}

    // `owner` keeps the observer (and `tally`) alive; `produced` is what was sent to it.
    void add(std::shared_ptr<void> owner, Tally& tally, uint64_t produced) {
        mWindow.push_back({std::move(owner), &tally, produced});
        if (mWindow.size() > mKept) foldOldest();
    }

    // Once no late call can come any more.
    const Sums& foldAll() {
        while (!mWindow.empty()) foldOldest();
        return mSums;
    }

private:
    struct Entry {
        std::shared_ptr<void> owner;
        Tally* tally;
        uint64_t produced;
    };

    void foldOldest() {
        const Entry& entry = mWindow.front();
        const uint64_t consumed = entry.tally->consumed.load();
        mSums.consumed += consumed;
        mSums.inLastBatch += entry.tally->inLastBatch.load();
        mSums.afterSettled += entry.tally->afterSettled.load();
        mSums.unbalanced += consumed != entry.produced ? 1 : 0;
        mWindow.pop_front();
    }

    size_t mKept;               // entries kept alive
    std::deque<Entry> mWindow;  // oldest first
    Sums mSums;                 // of the entries folded
};

// The monitor's runtime dump line read back into values, so that it can be compared with
// what a test expects regardless of the map's iteration order.
struct RuntimeDump {
    uint32_t attachCount = 0;
    uint32_t detachCount = 0;
    bool active = false;
    std::set<std::pair<int, std::string>> attached;  // (descriptor, observer pointer text)
    std::set<int> detached;                          // descriptors with a null entry
    std::string mapText;                             // the map's text as printed
};

// Reads "{ #attach=N #detach=N .mActive=B .mFdObserverMap={ attach=[ (fd, ptr) ... ]
// detach=[ fd ... ] } }" exactly; nothing when the text deviates in any way, including a
// descriptor listed twice.
std::optional<RuntimeDump> parseRuntimeDump(const std::string& text);

}  // namespace tavrel::test
