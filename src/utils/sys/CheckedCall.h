// The contract every system-call wrapper shares, written once. A wrapper gives its rule,
// its call and its error line; the contract runs the call inside the wrapper's trace
// section, and on a failure saves errno once, writes the error line, reacts to errno (and
// for a driver request raises the driver report) and yields -errno, or null for calls that
// return a pointer.
#pragma once

#include <algorithm>
#include <cerrno>
#include <type_traits>

#include "utils/log/FatalReport.h"
#include "utils/log/TraceSection.h"
#include "utils/sys/SystemCallInternal.h"

namespace NSCam::NSTavrel::System::internal {

// Which results of a call are failures. A call that returns a pointer fails with null.
enum class Fails {
    kNegative,  // the usual -1
    kNonZero,   // anything but 0, for requests whose positive results are not expected
};

// An errno value that never occurs, for calls without a routine errno.
inline constexpr int kNoRoutineErrno = -1;

// What sets one wrapper apart from the others.
struct Rule {
    const char* name;                    // the wrapper's, for its error line
    uint64_t traceCategory;              // the section's trace bit; Trace::kNone for none
    const char* section = nullptr;       // the section's name; null: the wrapper's name
    Fails fails = Fails::kNegative;      // which results are failures
    int routineErrno = kNoRoutineErrno;  // returned at once, neither logged nor reported
    const char* driverFormat = nullptr;  // the driver report's format; null: not fatal
};

template <typename Result>
bool isFailure(Result result, Fails fails) {
    if constexpr (std::is_pointer_v<Result>) {
        return result == nullptr;
    } else {
        return fails == Fails::kNonZero ? result != 0 : result < 0;
    }
}

// The name of the wrapper's trace section.
inline const char* sectionOf(const Rule& rule) {
    return rule.section != nullptr ? rule.section : rule.name;
}

// The failure half of the contract.
template <typename Result, typename LogError>
Result failed(const Rule& rule, Result result, const LogError& logError) {
    // Nothing between the call and here can have changed errno.
    const int err = errno;
    if (err != rule.routineErrno) {
        logError(rule.name, result, err);
        handleErrno(err);
        if (rule.driverFormat != nullptr) Log::driverReport(rule.driverFormat, err);
    }
    if constexpr (std::is_pointer_v<Result>) {
        return nullptr;
    } else {
        return static_cast<Result>(-err);
    }
}

// The call, its failure half and the exit gate of the section. Declared inline so that GCC
// takes it into both paths below: 23 instructions a call.
template <typename Call, typename LogError>
inline auto callAndEndSection(const Rule& rule, const Call& call, const LogError& logError) {
    const auto result = call();
    const auto value = isFailure(result, rule.fails) ? failed(rule, result, logError) : result;
    if (Trace::enabled(rule.traceCategory)) atrace_end_body();
    return value;
}

// The contract once the entry gate's category bit has been found on. Out of line, so that
// an untraced call keeps its arguments where they came in: 4 instructions a call.
template <typename Call, typename LogError>
__attribute__((noinline)) auto tracedCall(const Rule& rule, const Call& call,
                                          const LogError& logError) {
    if (Trace::cameraTagOn()) atrace_begin_body(sectionOf(rule));
    return callAndEndSection(rule, call, logError);
}

// `call()` makes the system call and returns its raw result. `logError(name, result, err)`
// writes the wrapper's error line, with `err` the saved errno.
template <typename Call, typename LogError>
auto checked(const Rule& rule, const Call& call, const LogError& logError) {
    // The section's entry gate: the category bit here, then the camera tag.
    if (Trace::categoryOn(rule.traceCategory)) return tracedCall(rule, call, logError);
    return callAndEndSection(rule, call, logError);
}

// For calls whose success value is 0 by contract, whatever the call returned.
inline int zeroOnSuccess(int result) {
    return std::min(result, 0);
}

}  // namespace NSCam::NSTavrel::System::internal
