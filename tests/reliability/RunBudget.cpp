#include "RunBudget.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace tavrel::test {

namespace {

// Rough factor by which valgrind runs the tests slower than a release build (the
// sanitizers' factors are given where their builds are recognised below).
constexpr int kValgrindSlowdown = 25;
// Set to a number of seconds, every time-bounded test runs that long.
constexpr const char* kSoakVariable = "TAVREL_SOAK_SECONDS";
// Valgrind preloads its core under this name; nothing else does.
constexpr const char* kValgrindPreload = "vgpreload";

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

bool underValgrind() {
    const char* preload = std::getenv("LD_PRELOAD");
    return preload != nullptr && std::strstr(preload, kValgrindPreload) != nullptr;
}

long soakSeconds() {
    const char* text = std::getenv(kSoakVariable);
    if (text == nullptr) return 0;
    return std::max(0L, std::strtol(text, nullptr, 10));
}

}  // namespace

BuildKind buildKind() {
#if defined(TAVREL_RELIABILITY_TSAN)
    constexpr BuildKind kSanitized = {"tsan", 8};
#elif defined(TAVREL_RELIABILITY_ASAN)
    constexpr BuildKind kSanitized = {"asan", 4};
#else
    constexpr BuildKind kSanitized = {nullptr, 1};
#endif
    if (kSanitized.name != nullptr) return kSanitized;
    if (underValgrind()) return {"valgrind", kValgrindSlowdown};
    return {"release", 1};
}

RunBudget::RunBudget(std::chrono::milliseconds releaseDuration, uint64_t releaseCount,
                     std::chrono::milliseconds shortestUnderValgrind)
    : mStart(std::chrono::steady_clock::now()) {
    const long soak = soakSeconds();
    mSoak = soak > 0;
    if (mSoak) {
        // The count grows with the time asked for, so that time stays the binding limit.
        mDuration = std::chrono::seconds(soak);
        const uint64_t factor = std::max<uint64_t>(
            1,
            static_cast<uint64_t>(mDuration.count() / std::max<long>(1, releaseDuration.count())));
        mCount = releaseCount * factor;
        return;
    }
    const BuildKind kind = buildKind();
    const int slowdown = kind.slowdown;
    std::chrono::milliseconds divided = releaseDuration / slowdown;
    if (std::strcmp(kind.name, "valgrind") == 0)
        divided = std::min(releaseDuration, std::max(shortestUnderValgrind, divided));
    mDuration = std::max(std::chrono::milliseconds(1), divided);
    mCount = std::max<uint64_t>(1, releaseCount / static_cast<uint64_t>(slowdown));
}

std::string RunBudget::describe() const {
    return std::string("build=") + buildKind().name + " soak=" + (mSoak ? "1" : "0") +
           " budget_ms=" + std::to_string(mDuration.count()) +
           " budget_count=" + std::to_string(mCount);
}

}  // namespace tavrel::test
