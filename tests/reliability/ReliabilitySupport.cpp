#include "ReliabilitySupport.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <thread>

namespace tavrel::test {

namespace {

// Between two looks at a condition another thread will make true.
constexpr std::chrono::microseconds kPollPause{50};
// Pipe reads take this much at a time.
constexpr size_t kPipeChunk = 256;

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define TAVREL_RELIABILITY_TSAN 1
#endif
#if __has_feature(address_sanitizer)
#define TAVREL_RELIABILITY_ASAN 1
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define TAVREL_RELIABILITY_TSAN 1
#endif
#if defined(__SANITIZE_ADDRESS__)
#define TAVREL_RELIABILITY_ASAN 1
#endif

// The kind of build running the tests, and by how much it divides the default budgets.
struct BuildKind {
    const char* name;
    int slowdown;
};

BuildKind buildKind() {
#if defined(TAVREL_RELIABILITY_TSAN)
    return {"tsan", 8};
#elif defined(TAVREL_RELIABILITY_ASAN)
    return {"asan", 4};
#else
    // Valgrind preloads its core under this name; nothing else does. It runs the tests
    // roughly 25 times slower than a release build.
    const char* preload = std::getenv("LD_PRELOAD");
    if (preload != nullptr && std::strstr(preload, "vgpreload") != nullptr) return {"valgrind", 25};
    return {"release", 1};
#endif
}

}  // namespace

RunBudget::RunBudget(std::chrono::milliseconds releaseDuration, uint64_t releaseCount,
                     std::chrono::milliseconds shortestUnderValgrind)
    : mStart(std::chrono::steady_clock::now()) {
    // Set to a number of seconds, every time-bounded test runs that long.
    const char* soak = std::getenv("TAVREL_SOAK_SECONDS");
    const long seconds = soak == nullptr ? 0 : std::max(0L, std::strtol(soak, nullptr, 10));
    mSoak = seconds > 0;
    if (mSoak) {
        // The count grows with the time asked for, so that time stays the binding limit.
        mDuration = std::chrono::seconds(seconds);
        mCount = releaseCount *
                 std::max<uint64_t>(
                     1, static_cast<uint64_t>(mDuration.count() /
                                              std::max<long>(1, releaseDuration.count())));
        return;
    }
    const BuildKind kind = buildKind();
    std::chrono::milliseconds divided = releaseDuration / kind.slowdown;
    if (std::strcmp(kind.name, "valgrind") == 0)
        divided = std::min(releaseDuration, std::max(shortestUnderValgrind, divided));
    mDuration = std::max(std::chrono::milliseconds(1), divided);
    mCount = std::max<uint64_t>(1, releaseCount / static_cast<uint64_t>(kind.slowdown));
}

std::string RunBudget::describe() const {
    return buildTag() + " soak=" + (mSoak ? "1" : "0") +
           " budget_ms=" + std::to_string(mDuration.count()) +
           " budget_count=" + std::to_string(mCount);
}

std::string buildTag() {
    return std::string("build=") + buildKind().name;
}

void reportFigures(const std::string& test, const std::vector<Figure>& figures,
                   const std::string& tail) {
    std::string line = "[ figures ] " + test;
    for (const Figure& figure : figures) {
        line += " " + figure.name + "=" + std::to_string(figure.value);
        testing::Test::RecordProperty(figure.name, std::to_string(figure.value));
    }
    testing::Test::RecordProperty("budget", tail);
    std::printf("%s %s\n", line.c_str(), tail.c_str());
    std::fflush(stdout);
}

DescriptorTable openDescriptors() {
    DescriptorTable table;
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) return table;
    const int own = dirfd(dir);
    while (const dirent* entry = readdir(dir)) {
        const int fd = std::atoi(entry->d_name);
        if (entry->d_name[0] == '.' || fd == own) continue;
        char target[PATH_MAX] = {};
        const std::string path = std::string("/proc/self/fd/") + entry->d_name;
        const ssize_t length = readlink(path.c_str(), target, sizeof(target) - 1);
        table[fd] = length < 0 ? "?" : std::string(target, static_cast<size_t>(length));
    }
    closedir(dir);
    return table;
}

int descriptorDifference(const DescriptorTable& before, const DescriptorTable& after) {
    // A replaced entry is in both differences under one number, and counts once.
    DescriptorTable changed;
    std::set_symmetric_difference(before.begin(), before.end(), after.begin(), after.end(),
                                  std::inserter(changed, changed.end()));
    return static_cast<int>(changed.size());
}

std::shared_ptr<NSCam::NSTavrel::IThreadLoop> loopOf(const std::shared_ptr<EpollMonitor>& monitor) {
    return std::dynamic_pointer_cast<NSCam::NSTavrel::IThreadLoop>(
        std::static_pointer_cast<IEpollMonitor>(monitor));
}

bool waitUntil(const std::function<bool()>& done) {
    const auto giveUp = std::chrono::steady_clock::now() + kDispatchGuard;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= giveUp) return false;
        std::this_thread::sleep_for(kPollPause);
    }
    return true;
}

void Tally::record(uint64_t units) {
    if (settled.load()) {
        afterSettled.fetch_add(1);
    } else if (detached.load()) {
        inLastBatch.fetch_add(1);
    }
    consumed.fetch_add(units);
}

void DrainObserver::onEvent(IEventObserver::OnEvent const& event) {
    uint64_t units = 0;
    if (mKind == Kind::kEventFd) {
        if (read(mFd, &units, sizeof(units)) != static_cast<ssize_t>(sizeof(units))) units = 0;
    } else {
        char chunk[kPipeChunk];
        ssize_t got = 0;
        while ((got = read(mFd, chunk, sizeof(chunk))) > 0) units += static_cast<uint64_t>(got);
    }
    mTally.record(units);
    if (mHook) mHook(event);
}

bool produce(int fd, DrainObserver::Kind kind, uint64_t units) {
    if (kind == DrainObserver::Kind::kEventFd)
        return write(fd, &units, sizeof(units)) == static_cast<ssize_t>(sizeof(units));
    const std::vector<char> bytes(units, 'x');
    return write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
}

DispatchBarrier::DispatchBarrier(IEpollMonitor& monitor)
    : mMonitor(monitor),
      mFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      mMarker(mFd.get(), DrainObserver::Kind::kEventFd) {
    mMonitor.attach(&mMarker, EPOLLIN);
}

DispatchBarrier::~DispatchBarrier() {
    mMonitor.detach(&mMarker);
}

bool DispatchBarrier::pass() {
    // One signal at a time: the previous one has been read, so the marker is not ready
    // until this write, and the batch that reads it began after it.
    ++mSent;
    if (!produce(mFd.get(), DrainObserver::Kind::kEventFd, 1)) return false;
    return waitUntil([&] { return mMarker.tally().consumed.load() >= mSent; });
}

namespace {

// A cursor over the dump text that either matches what is expected or fails for good.
class Reader {
public:
    explicit Reader(const std::string& text) : mText(text) {}

    bool literal(const std::string& expected) {
        if (!peek(expected)) return false;
        mPos += expected.size();
        return true;
    }
    bool peek(const std::string& expected) const {
        return mText.compare(mPos, expected.size(), expected) == 0;
    }

    // An optional '-' and decimal digits.
    bool number(long* value) {
        const size_t digits = mPos + (mPos < mText.size() && mText[mPos] == '-' ? 1 : 0);
        const size_t end = skip(digits, [](unsigned char c) { return std::isdigit(c) != 0; });
        if (end == digits) return false;
        *value = std::strtol(mText.c_str() + mPos, nullptr, 10);
        mPos = end;
        return true;
    }

    // "0x" and hexadecimal digits.
    bool pointer(std::string* text) {
        if (!peek("0x")) return false;
        const size_t end = skip(mPos + 2, [](unsigned char c) { return std::isxdigit(c) != 0; });
        if (end == mPos + 2) return false;
        *text = mText.substr(mPos, end - mPos);
        mPos = end;
        return true;
    }

    size_t position() const { return mPos; }
    bool atEnd() const { return mPos == mText.size(); }

private:
    template <typename Is>
    size_t skip(size_t from, Is is) const {
        while (from < mText.size() && is(static_cast<unsigned char>(mText[from]))) ++from;
        return from;
    }

    const std::string& mText;  // the whole dump line
    size_t mPos = 0;           // next character to read
};

// Either list may be missing, but a list that is there names at least one descriptor.
bool readLists(Reader& in, RuntimeDump& dump) {
    std::set<int> seen;
    long fd = 0;
    if (in.literal(" attach=[")) {
        std::string pointer;
        do {
            if (!in.literal(" (") || !in.number(&fd) || !in.literal(", ") ||
                !in.pointer(&pointer) || !in.literal(")") ||
                !seen.insert(static_cast<int>(fd)).second)
                return false;
            dump.attached.emplace(static_cast<int>(fd), pointer);
        } while (!in.literal(" ]"));
    }
    if (in.literal(" detach=[")) {
        do {
            if (!in.literal(" ") || !in.number(&fd) || !seen.insert(static_cast<int>(fd)).second)
                return false;
            dump.detached.insert(static_cast<int>(fd));
        } while (!in.literal(" ]"));
    }
    return true;
}

}  // namespace

std::optional<RuntimeDump> parseRuntimeDump(const std::string& text) {
    RuntimeDump dump;
    Reader in(text);
    long attach = 0, detach = 0, active = 0;
    if (!in.literal("{ #attach=") || !in.number(&attach) || !in.literal(" #detach=") ||
        !in.number(&detach) || !in.literal(" .mActive=") || !in.number(&active) ||
        (active != 0 && active != 1) || !in.literal(" .mFdObserverMap="))
        return std::nullopt;
    const size_t mapStart = in.position();
    if (!in.literal("{") || !readLists(in, dump) || !in.literal(" }")) return std::nullopt;
    dump.mapText = text.substr(mapStart, in.position() - mapStart);
    if (!in.literal(" }") || !in.atEnd()) return std::nullopt;
    dump.attachCount = static_cast<uint32_t>(attach);
    dump.detachCount = static_cast<uint32_t>(detach);
    dump.active = active == 1;
    return dump;
}

}  // namespace tavrel::test
