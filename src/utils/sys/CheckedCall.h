// The contract every system-call wrapper shares, written once: the call runs inside its
// trace section; a failure saves errno once, writes the wrapper's error line, reacts to
// errno (and for driver requests raises the driver report) and yields -errno, or null
// for calls that return a pointer.
#pragma once

#include <cerrno>
#include <type_traits>

#include "utils/log/FatalReport.h"
#include "utils/log/TraceSection.h"
#include "utils/sys/SystemCallInternal.h"

namespace NSCam::NSTavrel::System::internal {

// Which results of a call are failures.
enum class Fails {
    kNegative,  // the usual -1
    kNonZero,   // anything but 0, for requests whose positive results are not expected
};

// An errno value that never occurs, for calls without a routine errno.
inline constexpr int kNoSilentErrno = -1;

// What sets one wrapper apart from the others.
struct Rule {
    uint64_t traceCategory;              // trace bit of the section, Trace::kNone for none
    const char* section;                 // trace section name
    Fails fails = Fails::kNegative;      // how a failure shows in the result
    int silentErrno = kNoSilentErrno;    // routine errno returned at once, unreported
    const char* driverFormat = nullptr;  // driver report format; null when not fatal
};

template <typename T>
bool isFailure(T result, Fails fails) {
    if constexpr (std::is_pointer_v<T>) {
        return result == nullptr;
    } else {
        return fails == Fails::kNonZero ? result != 0 : result < 0;
    }
}

template <typename T>
T failureResult(int err) {
    if constexpr (std::is_pointer_v<T>) {
        return nullptr;
    } else {
        return static_cast<T>(-err);
    }
}

// `call` makes the system call and returns its raw result. `logError(function, result,
// err)` writes the wrapper's error line; `function` is the wrapper's name.
template <typename Call, typename LogError>
auto checked(const Rule& rule, const char* function, Call call, LogError logError) {
    using Result = decltype(call());
    Trace::Section trace(rule.traceCategory, rule.section);
    const Result result = call();
    if (!isFailure(result, rule.fails)) return result;
    const int err = errno;
    if (err == rule.silentErrno) return failureResult<Result>(err);
    logError(function, result, err);
    handleErrno(err);
    if (rule.driverFormat != nullptr) Log::driverReport(rule.driverFormat, err);
    return failureResult<Result>(err);
}

// For calls whose success value is 0 by contract, whatever the call returned.
inline int zeroOnSuccess(int result) {
    return result < 0 ? result : 0;
}

}  // namespace NSCam::NSTavrel::System::internal
