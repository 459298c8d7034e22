// The monitor with observers coming and going: detaches inside a batch, a seeded walk
// checked against a model and the kernel's epoll set, and threads racing each other and
// the monitor thread while signals interrupt its waits.
#include <pthread.h>
#include <signal.h>

#include <map>
#include <random>
#include <set>

#include "common/Support.h"

namespace tavrel::test {
namespace {

// Regression: observer A's onEvent detached and deleted B while B's entry was later in the
// same batch, and the loop then called B through a dangling pointer.
TEST(DetachInBatch, ADetachedObserverIsNotCalledForTheRestOfTheBatch) {
    const auto monitor = IEpollMonitor::make("batch");
    const auto loop = std::dynamic_pointer_cast<IThreadLoop>(monitor);
    int calls = 0;
    std::unique_ptr<EventObserver> observers[2];
    for (int i = 0; i < 2; ++i)  // whichever of the two comes first detaches and deletes the other
        observers[i] = std::make_unique<EventObserver>([&, i](const OnEvent&) {
            ++calls;
            monitor->detach(observers[1 - i].get());
            observers[1 - i].reset();
        });
    EventObserver last([&](const OnEvent&) { loop->requestExit(); });
    for (EventObserver* observer : {observers[0].get(), observers[1].get(), &last}) {
        monitor->attach(observer, EPOLLIN);
        observer->signal();
    }
    loop->threadLoop();
    EXPECT_EQ(calls * 10 + last.calls, 11);
    for (auto& observer : observers)
        if (observer != nullptr) monitor->detach(observer.get());
    monitor->detach(&last);
}

// Regression: A detached B, closed its descriptor and attached C, which got the same
// number; B's stale entry in the batch must reach neither B nor C.
TEST(DetachInBatch, AStaleEntryReachesNeitherItsObserverNorTheNextOwnerOfItsNumber) {
    const auto monitor = IEpollMonitor::make("batch");
    const auto loop = std::dynamic_pointer_cast<IThreadLoop>(monitor);
    EventObserver b;
    std::unique_ptr<EventObserver> c;
    EventObserver a([&](const OnEvent&) {
        monitor->detach(&b);
        b.closeFd();
        c = std::make_unique<EventObserver>();
        monitor->attach(c.get(), EPOLLIN);
        loop->requestExit();
    });
    for (EventObserver* observer : {&a, &b}) {
        monitor->attach(observer, EPOLLIN);
        observer->signal();
    }
    loop->threadLoop();
    ASSERT_EQ(c->getEventFD(), b.getEventFD());
    EXPECT_EQ(b.calls + c->calls, 0);
    monitor->detach(&a);
    monitor->detach(c.get());
}

// The kernel's epoll set as "fd events data" entries, from the epoll descriptor's fdinfo.
std::set<std::string> kernelSet(int epollFd) {
    std::ifstream info(format("/proc/self/fdinfo/%d", epollFd));
    std::set<std::string> set;
    for (std::string word, fd, events, data; info >> word;)
        if (word == "tfd:" && info >> fd >> word >> events >> word >> data)
            set.insert(fd + " " + events + " " + data);
    return set;
}

// Attaches, modifies, detaches (also through another object with the same descriptor) and
// reuses descriptor numbers at random; after each step the kernel's set must match a model. Replay
// a run with TAVREL_SEED=<seed>.
TEST(Registry, ASeededWalkKeepsTheKernelSetInStepWithAModel) {
    const char* given = std::getenv("TAVREL_SEED");
    const unsigned seed = given != nullptr ? std::stoul(given) : std::random_device{}();
    SCOPED_TRACE("TAVREL_SEED=" + std::to_string(seed));
    std::mt19937 random(seed);
    const auto monitor = IEpollMonitor::make("walk");
    const int epollFd = descriptorsOf(*monitor).first;
    const std::set<std::string> own = kernelSet(epollFd);  // the monitor's eventfd alone
    std::vector<std::unique_ptr<EventObserver>> pool(6);
    for (auto& observer : pool) observer = std::make_unique<EventObserver>();
    std::map<int, std::string> model;  // the kernel's entry of each attached descriptor
    const unsigned masks[] = {EPOLLIN, EPOLLIN | EPOLLET, EPOLLPRI, EPOLLIN | EPOLLOUT};
    for (int step = 0; step < 300; ++step) {
        std::unique_ptr<EventObserver>& observer = pool[random() % pool.size()];
        const int fd = observer->getEventFD(), op = int(random() % 4);
        const unsigned mask = masks[random() % 4];
        const bool attached = model.count(fd) != 0;
        // EPOLLERR and EPOLLHUP are always on.
        const std::string entry = format("%d %x %lx", fd, mask | EPOLLERR | EPOLLHUP,
                                         reinterpret_cast<unsigned long>(observer.get()));
        FdObserver other(fd);  // detaches by descriptor, as the registered observer would
        if (op == 0 && !attached) monitor->attach(observer.get(), int(mask));
        if (op == 1 && attached) monitor->modify(observer.get(), int(mask));
        if (op < 2 && attached == (op == 1)) model[fd] = entry;
        if (op == 2 && attached) {
            monitor->detach(random() % 2 != 0 ? &other
                                              : static_cast<IEventObserver*>(observer.get()));
            model.erase(fd);
        }
        if (op == 3 && !attached) observer = std::make_unique<EventObserver>();  // number freed
        std::set<std::string> kernel = own;
        for (const auto& [number, registered] : model) kernel.insert(registered);
        ASSERT_EQ(kernelSet(epollFd), kernel) << "step " << step;
    }
}

// Threads attach, signal, modify and detach eventfds and timers on one running monitor
// while a relay attaches and detaches from inside onEvent on the monitor thread, and
// signals interrupt its waits. Every unit written is consumed, every expiry dispatched.
// Meanwhile 20 periodic timers keep firing however many expire together, and four disarmed
// with a period set never come back. Runs half a second, or TAVREL_SOAK_SECONDS (scripts/
// soak.sh, which reads the figures line).
TEST(MonitorStress, EveryUnitIsConsumedEveryRegistrationUndoneAndNothingLogged) {
    const auto openDescriptors = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto before = openDescriptors();
    struct sigaction action = {}, previous = {};
    action.sa_handler = [](int) {};
    ::sigaction(SIGUSR1, &action, &previous);  // without SA_RESTART: waits end with EINTR
    const LogCapture capture({3, 2});
    const char* soak = std::getenv("TAVREL_SOAK_SECONDS");
    const auto end = std::chrono::steady_clock::now() +
                     std::chrono::milliseconds(soak != nullptr ? std::stol(soak) * 1000 : 500);
    std::atomic<uint64_t> operations{0};
    std::atomic<int> relayed{0}, lost{0};  // lost: a unit, expiry or barrier never dispatched
    {
        std::shared_ptr<IEpollMonitor> monitor;  // for the relay, which lives longer than the loop
        EventObserver helper, relay([&](const OnEvent&) {
            monitor->attach(&helper, EPOLLIN);
            monitor->detach(&helper);
            ++relayed;
        });
        std::vector<std::atomic<uint64_t>> fired(24);
        std::vector<std::shared_ptr<Timer>> load;  // stopped with the monitor, before they go
        RunningMonitor running;
        monitor = running.monitor;
        monitor->attach(&relay, EPOLLIN);
        for (size_t i = 0; i < fired.size(); ++i) {
            const timespec past{0, 1}, none{}, period{0, 200'000};
            load.push_back(
                std::make_shared<Timer>("load", CLOCK_MONOTONIC, [&, i] { ++fired[i]; }));
            monitor->attach(load[i].get(), int(load[i]->getEventType()));
            load[i]->startTimerAbsoluteTime(i < 20 ? &past : &none, &period);
            ++operations;
        }
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&, t] {
                const timespec past{0, 1}, once{};
                // Once a signal to this thread's own barrier has been dispatched, every batch
                // that could still hold its detached observers has ended.
                EventObserver barrier;
                monitor->attach(&barrier, EPOLLIN);
                do {  // at least once, however late the thread starts
                    EventObserver observer;
                    std::atomic<int> fired{0};
                    const auto timer =
                        std::make_shared<Timer>("stress", CLOCK_MONOTONIC, [&] { ++fired; });
                    monitor->attach(&observer, EPOLLIN | EPOLLET);
                    monitor->attach(timer.get(), int(timer->getEventType()));
                    timer->startTimerAbsoluteTime(&past, &once);
                    for (int unit = 0; unit < 3; ++unit) observer.signal();
                    monitor->modify(&observer, EPOLLIN);
                    if (t == 0) relay.signal();
                    if (t == 1) pthread_kill(running.driver.nativeHandle(), SIGUSR1);
                    lost += !waitUntil([&] { return observer.units == 3 && fired == 1; });
                    monitor->detach(&observer);
                    monitor->detach(timer.get());
                    const int passed = barrier.calls;
                    barrier.signal();
                    lost += !waitUntil([&] { return barrier.calls > passed; });
                    operations += 2;
                } while (std::chrono::steady_clock::now() < end);
                monitor->detach(&barrier);
                operations += 1;
            });
        for (std::thread& thread : threads) thread.join();
        const std::vector<uint64_t> atEnd(fired.begin(), fired.end());
        waitUntil([&] {  // counted, not timed: each periodic timer fires again
            return std::equal(fired.begin(), fired.begin() + 20, atEnd.begin(),
                              std::not_equal_to<>());
        });
        uint64_t rearms = 0, stopped = 0, revived = 0;
        for (size_t i = 0; i < fired.size(); ++i) {
            monitor->detach(load[i].get());
            rearms += fired[i];
            (i < 20 ? stopped : revived) += i < 20 ? fired[i] == atEnd[i] : fired[i] != 0;
        }
        std::printf("[ figures ] timer_load rearms=%lu stopped=%lu revived=%lu\n", rearms, stopped,
                    revived);
        EXPECT_EQ(stopped + revived, 0u);
        monitor->detach(&relay);
        const uint64_t n = operations + uint64_t(relayed) + 1;  // and the relay's
        EXPECT_EQ(dumpOf(*monitor).at(1).find(format("{ #attach=%lu #detach=%lu", n, n)), 4u);
    }
    ::sigaction(SIGUSR1, &previous, nullptr);
    EXPECT_EQ(capture.texts(), Lines{});
    EXPECT_EQ(lost, 0);
    EXPECT_GT(relayed, 0);
    EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace tavrel::test
