// The monitor's life on one thread (its log lines, trace points and dumps), its registry,
// readyToRun, and every way misuse or a broken descriptor ends the process.

#include "common/Support.h"

namespace tavrel::test {
namespace {

constexpr int kNotGiven = IThreadLoop::ReadyToRun::kNotGiven;
constexpr const char* kBadFd = "err=-9(Bad file descriptor)";
const std::string kSys = "E tavrel-syscall: ", kMon = "E tavrel-EpollMonitor: ";

std::string config(const IEpollMonitor& m) {
    return format("{ %s .mEpollFd=%d .mEventFd=%d }", m.getName().c_str(), descriptorsOf(m).first,
                  descriptorsOf(m).second);
}

// `map` is "", " attach=[ (7, 0x...) ]", " detach=[ 7 ]" or both.
std::string runtime(int attaches, int detaches, int active, const std::string& map) {
    return format("{ #attach=%d #detach=%d .mActive=%d .mFdObserverMap={%s } }", attaches, detaches,
                  active, map.c_str());
}

std::string entry(const IEventObserver& o) {
    return format("(%d, %p)", o.getEventFD(), static_cast<const void*>(&o));
}

using Values = std::vector<std::pair<const char*, std::string>>;

// `text` with each placeholder replaced by its value, in order.
std::string fill(std::string text, const Values& values) {
    for (const auto& [placeholder, value] : values)
        text = std::regex_replace(text, std::regex(placeholder), value);
    return text;
}

// One life of monitor "s" on this thread: made; an observer attached and modified; one
// batch in which the observer asks the loop to end; the interrupt read, read again when
// there is none, and left alone for a write-only event; the observer detached; destroyed.
// Returns what it saw as placeholders: the config, the monitor and it as an observer, the
// observer and its entry, its descriptor, the monitor's eventfd and epoll descriptor.
Values runScenario() {
    const auto monitor = IEpollMonitor::make("s");
    const auto loop = std::dynamic_pointer_cast<IThreadLoop>(monitor);
    const auto self = std::dynamic_pointer_cast<IEventObserver>(monitor);
    EventObserver observer([&](const OnEvent&) { loop->requestExit(); });
    monitor->attach(&observer, EPOLLIN);
    monitor->modify(&observer, EPOLLIN);
    observer.signal();
    loop->threadLoop();
    for (const int events : {EPOLLIN, EPOLLIN, EPOLLOUT})
        self->onEvent({monitor.get(), uint32_t(events)});
    monitor->detach(&observer);
    const auto [epollFd, eventFd] = descriptorsOf(*monitor);
    const auto at = [](const void* p) { return format("%p", p); };
    return {{"@C", config(*monitor)},        {"@P", at(monitor.get())},
            {"@S", at(self.get())},          {"@O", at(&observer)},
            {"@E", entry(observer)},         {"@F", std::to_string(observer.getEventFD())},
            {"@V", std::to_string(eventFd)}, {"@Q", std::to_string(epollFd)}};
}

TEST(MonitorLife, EachStepLogsItsLineWithTheDumps) {
    const ScopedProperty logv("persist.vendor.camera.tavrel.EpollMonitor.logv", "1");
    const LogCapture capture;
    const Values s = runScenario();
    // clang-format off
    const std::string expected = fill(fill(R"(3 @M EpollMonitor() [EpollMonitor] this(@P @S) @C @0
3 @M attach() [attach] @E
3 @M modify() [modify] @E
3 @M threadLoop() [threadLoop] + @C @1
3 @M handleEvents() [handleEvents] + fd=@F events=0x1 observer=@O @C @1
3 @M requestExit() [requestExit] + @C @1
3 @M requestExit() [requestExit] - @C @2
3 @M handleEvents() [handleEvents] - fd=@F events=0x1
3 @M threadLoop() [threadLoop] - @C @2
3 @M isInterruptEvent() [P2DrvEP-s] isInterruptEvent: 0x40
1 tavrel-syscall [tavrel-syscall] SystemCall:N Read() [Read] read(@V, buffer, 8) return -1: err=-11(Resource temporarily unavailable) (Read){#N:src/utils/sys/SystemCall}
2 @M isInterruptEvent() [P2DrvEP-s] isInterruptEvent: read(@V) returns -11 != 8
3 @M detach() [detach] @E
3 @M ~EpollMonitor() [~EpollMonitor] @C @3)",
        {{"@M", "tavrel-EpollMonitor [tavrel-EpollMonitor] EpollMonitor:N"}, {"@0", runtime(0, 0, 1, "")},
         {"@1", runtime(1, 0, 1, " attach=[ @E ]")}, {"@2", runtime(1, 0, 0, " attach=[ @E ]")},
         {"@3", runtime(1, 1, 0, " detach=[ @F ]")}}), s);
    // clang-format on
    std::string got;
    for (const std::string& line : capture.debug()) got += (got.empty() ? "" : "\n") + line;
    EXPECT_EQ(std::regex_replace(got, std::regex(R"(read\((\d+), 0x[0-9a-f]+)"), "read($1, buffer"),
              expected);
    EXPECT_EQ(capture.texts().size(), 14u);
}

TEST(MonitorLife, EachStepIsTracedUnderItsOwnCategoryBit) {
    // Untraced, with a trace file open as in the traced runs: the numbers they get as well.
    const Values s = (TraceCapture(0), runScenario());
    // Each step's markers as "bit:marker;", in order: construction, attach, modify, one
    // batch, the three interrupt events, detach, destruction.
    const std::string text =
        std::regex_replace(R"(4:B|EpollMonitor;0:B|EPollCreate;0:E;0:B|EventFD;0:E;
        1:B|EPollCtlAdd;1:E;4:E;10:B|P2DrvEP-s::attachObserver;10:B|fetch_add;10:E;
        36:C|P2DrvEP-s-#FdObserverCount|1;10:B|fetch observer;1:B|EPollCtlAdd;1:E;10:E;
        37:S|P2DrvEP-s-FdObserver|@F;10:E;10:B|P2DrvEP-s::modifyObserver;1:B|EPollCtlMod;1:E;10:E;
        4:B|threadLoop;13:B|tryEpoll;1:B|EPollWait;1:E;12:B|handleEvents;13:B|NOTIFY_READY fd:@F;
        4:B|P2DrvEP-s::requestExit;4:B|sendInterruptEvent;0:B|Write;0:E;4:E;4:E;13:E;12:E;13:E;4:E;
        4:B|isInterruptEvent;0:B|Read;0:E;4:E;4:B|isInterruptEvent;0:B|Read;0:E;4:E;
        4:B|isInterruptEvent;4:E;14:B|P2DrvEP-s::detachObserver;14:B|fetch observer;
        1:B|EPollCtlDel;1:E;14:E;36:C|P2DrvEP-s-#FdObserverCount|0;37:F|P2DrvEP-s-FdObserver|@F;
        14:E;4:B|~EpollMonitor;1:B|EPollCtlDel;1:E;0:B|Close;0:E;0:B|Close;0:E;4:E;)",
                           std::regex("\n *"), "");
    // -1: every category; -2: every category but no camera tag; -3: no category, every tag.
    const uint64_t all = ~uint64_t{0}, bits[] = {all, all, 0}, tags[] = {0x400, ~0x400ul, all};
    for (const int bit : {-1, -2, -3, 0, 1, 4, 10, 12, 13, 14, 36, 37}) {
        Lines expected;
        std::istringstream steps(fill(text, s));
        for (std::string step; std::getline(steps, step, ';');)
            if (bit == -1 || std::stoi(step) == bit)
                expected.push_back(step.substr(step.find(':') + 1));
        const TraceCapture trace(bit < 0 ? bits[-1 - bit] : uint64_t{1} << bit,
                                 bit < 0 ? tags[-1 - bit] : 0x400);
        runScenario();
        EXPECT_EQ(trace.markers(), expected) << "bit " << bit;
    }
}

// A trace name made at run time is whole, or empty when too long for its buffer; an interrupt
// that cannot be written, to an eventfd at the most it counts, is logged.
TEST(MonitorLife, ATraceNameMadeAtRunTimeIsWholeOrEmptyAndAnUnwrittenInterruptIsLogged) {
    for (const size_t length : {127u, 128u}) {
        const std::string name(length - std::strlen("P2DrvEP-::requestExit"), 'n');
        const auto monitor = IEpollMonitor::make(name.c_str());
        const int eventFd = descriptorsOf(*monitor).second;
        const uint64_t most = 0xfffffffffffffffe;
        ASSERT_EQ(::write(eventFd, &most, sizeof(most)), 8);
        const TraceCapture trace(uint64_t{1} << 4);
        const LogCapture capture({3, 2});
        std::dynamic_pointer_cast<IThreadLoop>(monitor)->requestExit();
        EXPECT_EQ(trace.markers().at(0),
                  length < 128 ? "B|P2DrvEP-" + name + "::requestExit" : "B|");
        ASSERT_EQ(capture.texts().size(), 2u);  // Write's own line, then the monitor's
        EXPECT_EQ(capture.texts()[1],
                  format("[sendInterruptEvent] write(%d) returns -11 != 8", eventFd));
    }
}

// Detaching an observer whose owner closed its descriptor first: the kernel refuses the
// removal, which is logged, and the registry lets the entry go all the same.
TEST(Registry, AnObserverWhoseDescriptorIsClosedIsRemovedAndLogged) {
    const auto monitor = IEpollMonitor::make("r");
    EventObserver c;
    monitor->attach(&c, EPOLLIN);
    c.closeFd();
    const LogCapture capture;
    monitor->detach(&c);
    const int e = descriptorsOf(*monitor).first, fd = c.getEventFD();
    EXPECT_EQ(capture.texts(), (Lines{epollCtlError("Del", e, fd, kBadFd),
                                      format("[operator()] EPOLL_CTL_DEL fd=%d %s", fd, kBadFd)}));
    EXPECT_EQ(dumpOf(*monitor), (Lines{"P2DrvEP-r: logv:0 " + config(*monitor),
                                       "    " + runtime(1, 1, 1, format(" detach=[ %d ]", fd))}));
}

TEST(ReadyToRun, AppliesThePropertiesOnlyWhenTheDriverGivesNeitherValue) {
    const std::string key = "persist.vendor.camera.tavrel.EpollMonitor.thread";
    cpu_set_t all;
    sched_getaffinity(0, sizeof(all), &all);
    const int cpus = CPU_COUNT(&all);
    // clang-format off
    const struct {
        int32_t policy, priority;
        const char *threadName, *propertyPolicy, *propertyPriority, *affinity;
        int schedPolicy, nice;  // -1: left as it was
        const char* name;
    } rows[] = {{kNotGiven, kNotGiven, "", nullptr, nullptr, "0", SCHED_OTHER, 6, "P2DrvEP-thread-"},
                {kNotGiven, kNotGiven, "worker", "0", "3", nullptr, SCHED_BATCH, 3, "worker"},
                {2, kNotGiven, "", "0", "3", nullptr, SCHED_OTHER, -1, "P2DrvEP-thread-"}};
    // clang-format on
    for (const auto& row : rows) {
        const ScopedProperty policy(key + "policy", row.propertyPolicy),
            priority(key + "priority", row.propertyPriority),
            affinity("tavrel.host.perfctrl.affinity", row.affinity);
        std::thread([&] {
            const int inherited = getpriority(PRIO_PROCESS, 0);
            // Without the privilege, a nice value below the inherited one is refused whole.
            const bool set = row.nice >= 0 && (geteuid() == 0 || row.nice >= inherited);
            const int result =
                std::dynamic_pointer_cast<IThreadLoop>(IEpollMonitor::make("thread-cut"))
                    ->readyToRun(IThreadLoop::ReadyToRun{row.threadName, row.policy, row.priority});
            char name[16] = {};
            prctl(PR_GET_NAME, name);
            cpu_set_t now;
            sched_getaffinity(0, sizeof(now), &now);
            EXPECT_EQ(
                format("%d %d %d %s %d", result, sched_getscheduler(0),
                       getpriority(PRIO_PROCESS, 0), name, CPU_COUNT(&now)),
                format("0 %d %d %s %d", set ? row.schedPolicy : SCHED_OTHER,
                       set ? row.nice : inherited, row.name, row.affinity != nullptr ? 1 : cpus));
        }).join();
    }
}

// `before`, then the lines of a fatal report from `file` whose short form is `text`.
Lines fatal(Lines before, const std::string& file, const char* function, const std::string& text) {
    const std::string tag = "tavrel-" + file;
    const std::string longForm = text + " (" + function + "){#N:src/utils/sys/" + file + "}";
    return before + Lines{"E " + tag + ": " + text, longForm, "F " + tag + ": " + longForm};
}

// A misuse's end: the lines `before`, the monitor's dump with `runtimeText`, then the fatal
// report of `operation`.
testing::Matcher<const std::string&> misuse(const IEpollMonitor& monitor, const Lines& before,
                                            const std::string& runtimeText, const char* operation) {
    const Lines dump{kMon + monitor.getName() + ": logv:0 " + config(monitor),
                     kMon + "    " + runtimeText};
    return entriesAre(
        fatal(before + dump, "EpollMonitor", operation, format("[%s] FATAL", operation)));
}

TEST(MonitorDeathTest, MisuseDumpsTheStateToTheErrorLogThenEnds) {
    const auto monitor = IEpollMonitor::make("f");
    const int e = descriptorsOf(*monitor).first;
    EventObserver a;
    const TempDir temp;
    FdObserver file(::open(temp.write("plain", "").c_str(), O_RDONLY | O_CLOEXEC));
    const std::string aGone = format(" detach=[ %d ]", a.getEventFD());
    monitor->attach(&a, EPOLLIN);
    EXPECT_DEATH(monitor->attach(&a, EPOLLIN),
                 misuse(*monitor, {kMon + entry(a) + " has existed"},
                        runtime(2, 0, 1, " attach=[ " + entry(a) + " ]"), "attach"));
    monitor->detach(&a);
    // A regular file cannot be watched; its entry keeps what was being attached.
    EXPECT_DEATH(monitor->attach(&file, EPOLLIN),
                 misuse(*monitor,
                        {kSys + epollCtlError("Add", e, file.fd, "err=-1(Operation not permitted)"),
                         kMon + entry(file) + " has existed"},
                        runtime(2, 1, 1, " attach=[ " + entry(file) + " ]" + aGone), "attach"));
    EXPECT_DEATH(monitor->modify(&a, EPOLLIN),
                 misuse(*monitor,
                        {kSys + epollCtlError("Mod", e, a.getEventFD(),
                                              "err=-2(No such file or directory)")},
                        runtime(1, 1, 1, aGone), "modify"));
    const auto other = IEpollMonitor::make("f");  // its map gets an entry for what it never had
    EXPECT_DEATH(other->detach(&file),
                 misuse(*other, {kMon + entry(file) + " not found"},
                        runtime(0, 0, 1, format(" detach=[ %d ]", file.fd)), "detach"));
    ::close(file.fd);
}

TEST(MonitorDeathTest, BrokenLoopsAndDescriptorsThatCannotBeMadeOrRegisteredEndTheProcess) {
    auto monitor = IEpollMonitor::make("b");
    auto loop = std::dynamic_pointer_cast<IThreadLoop>(monitor);
    const auto [e, v] = descriptorsOf(*monitor);
    EventObserver observer;
    epoll_event noObserver{EPOLLIN, {}};
    ::epoll_ctl(e, EPOLL_CTL_ADD, observer.getEventFD(), &noObserver);
    observer.signal();
    const char* m = "EpollMonitor";
    EXPECT_DEATH(loop->threadLoop(),
                 entriesAre(fatal({}, m, "handleEvents", "[handleEvents] Bad observer")));
    const std::string wait =
        format("[EPollWait] epoll_wait(%d, maxevents=64, timeout=-1) return -1: %s", e, kBadFd);
    EXPECT_DEATH(
        (host::setFdsanReaction(host::FdsanReaction::kOff), ::close(e), loop->threadLoop()),
        entriesAre(fatal({kSys + wait}, m, "tryEpoll", std::string("[tryEpoll] ") + kBadFd)));
    // At the descriptor limit at info level: the open descriptors cannot be listed either.
    const std::string tooMany = " return -1: err=-24(Too many open files)";
    EXPECT_DEATH((ULogger::sDetailsLevel = 3, limitDescriptors(0), IEpollMonitor::make("c")),
                 entriesAre(fatal({kSys + "[EPollCreate] epoll_create()" + tooMany}, m, m,
                                  "[EpollMonitor] Failed on create epoll fd:-24")));
    EXPECT_DEATH((limitDescriptors(1), IEpollMonitor::make("c")),
                 entriesAre(fatal({kSys + "[EventFD] eventfd(0, 0x80800)" + tooMany}, m, m,
                                  "[EpollMonitor] Failed on create event fd:-24")));
    const std::string badClock =
        kSys + "[TimerFDCreate] timerfd_create() return -1: err=-22(Invalid argument)";
    EXPECT_DEATH(Timer("t", -1, [] {}),
                 entriesAre(fatal({badClock}, "Timer", "Timer", "[Timer] Bad fd:-22")));
    EXPECT_DEATH(Timer("t", CLOCK_MONOTONIC, nullptr),
                 entriesAre(fatal({}, "Timer", "Timer", "[Timer] Bad mNotifyTimeout")));
    // A Timer that no shared_ptr owns cannot keep itself alive through its callback.
    Timer unowned("t", CLOCK_MONOTONIC, [] {});
    EXPECT_DEATH(unowned.onEvent({nullptr, EPOLLIN}),
                 entriesAre({"bad_weak_ptr was thrown in -fno-exceptions mode"}));
    SKIP_WITHOUT_FAULTS();  // the next monitor gets the descriptor numbers of the first
    EXPECT_DEATH(
        (monitor.reset(), loop.reset(), inject(SYS_epoll_ctl, 1, EPOLL_CTL_ADD, ENOSPC),
         IEpollMonitor::make("b")),
        entriesAre(fatal({kSys + epollCtlError("Add", e, v, "err=-28(No space left on device)")}, m,
                         m, format("[EpollMonitor] EPOLL_CTL_ADD event fd:%d - red:-28", v))));
}

// Descriptor 0 is a descriptor like any other: made, tagged, used and closed as such.
TEST(MonitorDeathTest, DescriptorZeroIsNoError) {
    EXPECT_EXIT(
        {
            ::close(0);
            auto monitor = IEpollMonitor::make("zero");
            bool ok = descriptorsOf(*monitor).first == 0;  // the epoll instance's
            const TraceCapture trace(uint64_t{1} << 1);
            monitor.reset();  // takes the eventfd off the epoll instance before closing both
            ok = ok && trace.markers() == (Lines{"B|EPollCtlDel", "E"}) && ::fcntl(0, F_GETFD) < 0;
            auto timer = std::make_shared<Timer>("zero", CLOCK_MONOTONIC, [] {});
            ok = ok && timer->getEventFD() == 0;
            timer.reset();
            _exit(ok && ::fcntl(0, F_GETFD) == -1 ? 0 : 1);
        },
        testing::ExitedWithCode(0), entriesAre({}));
}

}  // namespace
}  // namespace tavrel::test
