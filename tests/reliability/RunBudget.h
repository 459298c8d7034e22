// How long and how many times a reliability test runs: short by default, shorter still in
// builds that run many times slower, and as long as TAVREL_SOAK_SECONDS asks for a soak.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace tavrel::test {

// The kind of build running the tests, and by how much it divides the default budgets.
struct BuildKind {
    const char* name;  // "release", "asan", "tsan", "valgrind"
    int slowdown;      // default budgets are divided by this
};

BuildKind buildKind();

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
    bool soak() const { return mSoak; }
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

}  // namespace tavrel::test
