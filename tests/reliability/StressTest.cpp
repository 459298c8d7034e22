// Eight clients hammer one running monitor with short-lived eventfds, pipes and Timers,
// attaching, signalling, modifying, detaching and closing them, while relay observers
// attach and detach others from inside onEvent. Every unit a client produced is consumed,
// no observer is called once its detach has settled, the monitor's counters and dump add
// up to the calls made, and the process holds the same descriptors before and after.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <iterator>
#include <memory>
#include <optional>
#include <random>
#include <thread>
#include <vector>

#include "ReliabilitySupport.h"
#include "tavrel/SystemCall.h"
#include "tavrel/ThreadDriver.h"
#include "tavrel/Timer.h"
#include "tavrel/platform/UniqueFd.h"
#include "timer/RunningMonitor.h"

namespace tavrel::test {
namespace {

using NSCam::NSTavrel::Timer;
namespace System = NSCam::NSTavrel::System;

constexpr int kClients = 8;
constexpr std::chrono::milliseconds kReleaseDuration{2000};
// Rounds of all clients together; time is the usual limit.
constexpr uint64_t kReleaseRounds = 40000;
// Rounds each client makes whatever the time, one of each kind: a build that runs many
// times slower (valgrind) may use up the time budget before the clients start, and then
// nothing would have been checked. Bounded by the count budget all the same.
constexpr uint64_t kLeastRoundsPerClient = 4;
// Units written per signal: 1 to this many.
constexpr uint64_t kMostUnitsPerSignal = 3;
// Settled observers each client keeps alive (see SettledWindow).
constexpr size_t kKeptAlivePerClient = 64;
constexpr int kDescriptorFlags = EFD_CLOEXEC | EFD_NONBLOCK;
constexpr timespec kOnce = {0, 0};

// Sums over all clients.
struct Totals {
    std::atomic<uint64_t> rounds{0};
    std::atomic<uint64_t> attaches{0};  // attach() calls that returned, any thread
    std::atomic<uint64_t> detaches{0};  // detach() calls that returned, any thread
    std::atomic<uint64_t> lost{0};      // waits for a dispatch that ran out
    std::atomic<uint64_t> failures{0};  // descriptors that could not be made or written
};

// One client thread's work: rounds of one kind of descriptor each, in turn.
class Client {
public:
    Client(EpollMonitor& monitor, Totals& totals, uint64_t rounds, const RunBudget& budget,
           unsigned seed)
        : mMonitor(monitor),
          mTotals(totals),
          mRounds(rounds),
          mBudget(budget),
          mRandom(seed),
          mSettled(kKeptAlivePerClient) {}

    void run() {
        DispatchBarrier barrier(mMonitor);
        mTotals.attaches.fetch_add(1);
        mBarrier = &barrier;
        using Round = void (Client::*)();
        constexpr Round kRounds[] = {&Client::eventFdRound, &Client::pipeRound, &Client::timerRound,
                                     &Client::relayRound};
        const uint64_t least = std::min(mRounds, kLeastRoundsPerClient);
        for (uint64_t i = 0; i < mRounds && (i < least || !mBudget.expired()); ++i) {
            (this->*kRounds[i % std::size(kRounds)])();
            mTotals.rounds.fetch_add(1);
        }
        mBarrier = nullptr;
        mTotals.detaches.fetch_add(1);
    }

    // Main thread, after the last barrier: what all observers of this client consumed.
    const SettledWindow::Sums& settle() { return mSettled.foldAll(); }

private:
    unsigned long owner() const { return reinterpret_cast<unsigned long>(this); }

    void attach(IEventObserver* observer, int events) {
        mMonitor.attach(observer, events);
        mTotals.attaches.fetch_add(1);
    }

    void detach(IEventObserver* observer, Tally& tally) {
        mMonitor.detach(observer);
        mTotals.detaches.fetch_add(1);
        tally.detached.store(true);
    }

    // Writes a random number of units and waits until the observer has read them all.
    void signalAndAwait(int fd, DrainObserver::Kind kind, Tally& tally, uint64_t& produced) {
        const uint64_t units =
            std::uniform_int_distribution<uint64_t>(1, kMostUnitsPerSignal)(mRandom);
        if (!produce(fd, kind, units)) {
            mTotals.failures.fetch_add(1);
            return;
        }
        produced += units;
        lostUnless(waitUntil([&] { return tally.consumed.load() >= produced; }));
    }

    void lostUnless(bool done) {
        if (!done) mTotals.lost.fetch_add(1);
    }

    // After the detaches have returned: once the barrier has been dispatched, the batch
    // that may still have held these observers is over.
    void settle(std::initializer_list<Tally*> tallies) {
        lostUnless(mBarrier->pass());
        for (Tally* tally : tallies) tally->settled.store(true);
    }

    // An eventfd attached level-triggered, or a pipe attached edge-triggered, then each
    // switched to the other.
    void drainRound(DrainObserver::Kind kind) {
        const bool isEventFd = kind == DrainObserver::Kind::kEventFd;
        int ends[2] = {-1, -1};
        if (isEventFd) {
            ends[0] = ends[1] = System::EventFD(0, kDescriptorFlags, owner());
        } else if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
            ends[0] = -1;
        }
        if (ends[0] < 0) {
            mTotals.failures.fetch_add(1);
            return;
        }
        auto observer = std::make_shared<DrainObserver>(ends[0], kind);
        const int events = isEventFd ? EPOLLIN : EPOLLIN | EPOLLET;
        uint64_t produced = 0;
        attach(observer.get(), events);
        signalAndAwait(ends[1], kind, observer->tally(), produced);
        mMonitor.modify(observer.get(), events ^ EPOLLET);
        signalAndAwait(ends[1], kind, observer->tally(), produced);
        detach(observer.get(), observer->tally());
        settle({&observer->tally()});
        if (isEventFd) {
            System::Close(ends[0], owner());
        } else {
            close(ends[0]);
            close(ends[1]);
        }
        mSettled.add(observer, observer->tally(), produced);
    }
    void eventFdRound() { drainRound(DrainObserver::Kind::kEventFd); }
    void pipeRound() { drainRound(DrainObserver::Kind::kPipe); }

    void timerRound() {
        auto tally = std::make_shared<Tally>();
        auto timer =
            std::make_shared<Timer>("stress", CLOCK_MONOTONIC, [tally] { tally->record(1); });
        uint64_t produced = 0;
        attach(timer.get(), static_cast<int>(timer->getEventType()));
        for (int start = 0; start < 2; ++start) {
            // A deadline already past: exactly one expiry.
            const timespec deadline = now();
            timer->startTimerAbsoluteTime(&deadline, &kOnce);
            ++produced;
            lostUnless(waitUntil([&] { return tally->consumed.load() >= produced; }));
            // The expiry's own re-arm runs after the callback; a new deadline set before
            // that dispatch has ended would be re-armed away with it.
            lostUnless(mBarrier->pass());
            if (start == 0) mMonitor.modify(timer.get(), static_cast<int>(timer->getEventType()));
        }
        detach(timer.get(), *tally);
        settle({tally.get()});
        timer->stopTimer();
        // The callback holds the tally, so the Timer keeps it alive.
        mSettled.add(timer, *tally, produced);
    }

    // The relay attaches the child from inside its onEvent and signals it; the child
    // detaches itself from inside its own.
    void relayRound() {
        const int relayFd = System::EventFD(0, kDescriptorFlags, owner());
        host::UniqueFd childFd(eventfd(0, kDescriptorFlags));
        if (relayFd < 0 || !childFd.ok()) {
            if (relayFd >= 0) System::Close(relayFd, owner());
            mTotals.failures.fetch_add(1);
            return;
        }
        auto relay = std::make_shared<DrainObserver>(relayFd, DrainObserver::Kind::kEventFd);
        auto child = std::make_shared<DrainObserver>(childFd.get(), DrainObserver::Kind::kEventFd);
        DrainObserver* childView = child.get();
        child->setHook([this, childView](IEventObserver::OnEvent const&) {
            detach(childView, childView->tally());
        });
        const int childNumber = childFd.get();
        relay->setHook([this, childView, childNumber](IEventObserver::OnEvent const&) {
            attach(childView, EPOLLIN);
            if (!produce(childNumber, DrainObserver::Kind::kEventFd, 1))
                mTotals.failures.fetch_add(1);
        });
        uint64_t produced = 0;
        attach(relay.get(), EPOLLIN);
        signalAndAwait(relayFd, DrainObserver::Kind::kEventFd, relay->tally(), produced);
        lostUnless(waitUntil([&] { return childView->tally().detached.load(); }));
        detach(relay.get(), relay->tally());
        settle({&relay->tally(), &child->tally()});
        System::Close(relayFd, owner());
        mSettled.add(relay, relay->tally(), produced);
        mSettled.add(child, child->tally(), 1);
    }

    EpollMonitor& mMonitor;
    Totals& mTotals;
    const uint64_t mRounds;               // count bound of this client
    const RunBudget& mBudget;             // time bound, shared
    std::mt19937 mRandom;                 // units per signal
    DispatchBarrier* mBarrier = nullptr;  // this client's marker, while run() lasts
    SettledWindow mSettled;  // detached and settled observers, with what they were sent
};

TEST(ReliabilityStress, EightClientsAccountForEveryEventAndLeaveNothingBehind) {
    const RunBudget budget(kReleaseDuration, kReleaseRounds);
    const DescriptorTable before = openDescriptors();
    Totals totals;
    uint64_t consumed = 0, inLastBatch = 0, afterSettled = 0, unbalanced = 0;
    std::optional<RuntimeDump> dump;
    {
        auto monitor = makeMonitor("stress");
        host::ThreadDriver driver(loopOf(monitor));
        std::vector<std::unique_ptr<Client>> clients;
        for (int i = 0; i < kClients; ++i) {
            clients.push_back(std::make_unique<Client>(*monitor, totals, budget.count() / kClients,
                                                       budget, static_cast<unsigned>(i)));
        }
        std::vector<std::thread> threads;
        for (auto& client : clients) threads.emplace_back([&client] { client->run(); });
        for (auto& thread : threads) thread.join();
        {
            // Any late call still in flight lands before this is dispatched.
            DispatchBarrier last(*monitor);
            EXPECT_TRUE(last.pass());
        }
        totals.attaches.fetch_add(1);
        totals.detaches.fetch_add(1);
        driver.stop();
        for (const auto& client : clients) {
            const SettledWindow::Sums& sums = client->settle();
            consumed += sums.consumed;
            inLastBatch += sums.inLastBatch;
            afterSettled += sums.afterSettled;
            unbalanced += sums.unbalanced;
        }
        dump = parseRuntimeDump(monitor->toString_runtime());
    }
    const int leaked = descriptorDifference(before, openDescriptors());

    reportFigures("stress",
                  {{"rounds", totals.rounds.load()},
                   {"events_checked", consumed},
                   {"attaches", totals.attaches.load()},
                   {"detaches", totals.detaches.load()},
                   {"calls_in_last_batch", inLastBatch},
                   {"calls_after_settled", afterSettled},
                   {"lost", totals.lost.load()},
                   {"unbalanced", unbalanced},
                   {"descriptors_leaked", leaked}},
                  budget.describe());
    EXPECT_GT(totals.rounds.load(), static_cast<uint64_t>(kClients));
    EXPECT_EQ(totals.failures.load(), 0u);
    EXPECT_EQ(totals.lost.load(), 0u);
    EXPECT_EQ(unbalanced, 0u);
    EXPECT_EQ(afterSettled, 0u);
    EXPECT_EQ(totals.attaches.load(), totals.detaches.load());
    ASSERT_TRUE(dump.has_value());
    EXPECT_EQ(dump->attachCount, static_cast<uint32_t>(totals.attaches.load()));
    EXPECT_EQ(dump->detachCount, static_cast<uint32_t>(totals.detaches.load()));
    EXPECT_FALSE(dump->active);
    EXPECT_TRUE(dump->attached.empty());
    EXPECT_FALSE(dump->detached.empty());
    EXPECT_EQ(leaked, 0);
}

}  // namespace
}  // namespace tavrel::test
