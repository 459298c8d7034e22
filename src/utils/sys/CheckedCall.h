// The contract every system-call wrapper shares, written once: the call runs inside its
// trace section; a failure saves errno once, writes the wrapper's error line, reacts to
// errno (and for driver requests raises the driver report) and yields -errno, or null
// for calls that return a pointer.
#pragma once

#include <algorithm>
#include <cerrno>
#include <tuple>
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

// The failure half of the contract, up to the end of the trace section. Runs right after
// the failed call: nothing between the call and the errno read below can change errno.
template <typename Result, typename LogError, typename... Args>
Result failed(uint64_t traceCategory, const char* function, int silentErrno,
              const char* driverFormat, LogError logError, Result result,
              const std::tuple<Args...>& args) {
    const int err = errno;
    if (err != silentErrno) {
        std::apply([&](Args... values) { logError(function, result, err, values...); }, args);
        handleErrno(err);
        if (driverFormat != nullptr) Log::driverReport(driverFormat, err);
    }
    if (Trace::enabled(traceCategory)) atrace_end_body();
    return failureResult<Result>(err);
}

// The rest of the exit gate and the end it guards, for a section whose category bit is on.
template <typename Result>
__attribute__((noinline, cold)) Result endSection(Result result) {
    if (Trace::cameraTagOn()) atrace_end_body();
    return result;
}

// The call and what follows it, once the entry gate's category test has been made.
template <typename Call, typename LogError, typename... Args>
__attribute__((always_inline)) inline auto callAndClose(uint64_t traceCategory, Fails fails,
                                                        const char* function, int silentErrno,
                                                        const char* driverFormat, Call call,
                                                        LogError logError, Args... args) {
    using Result = decltype(call(args...));
    // Kept in memory for the error line: the call clobbers the registers that hold them,
    // and a store each is cheaper than keeping them in registers the call preserves.
    const std::tuple<Args...> saved{args...};
    const Result result = call(args...);
    if (isFailure(result, fails)) {
        return failed(traceCategory, function, silentErrno, driverFormat, logError, result, saved);
    }
    if (Trace::categoryOn(traceCategory)) return endSection(result);
    return result;
}

// The whole contract for a section whose category bit was on at entry.
template <typename Call, typename LogError, typename... Args>
__attribute__((noinline, cold)) auto tracedCall(uint64_t traceCategory, const char* section,
                                                Fails fails, const char* function, int silentErrno,
                                                const char* driverFormat, Call call,
                                                LogError logError, Args... args) {
    if (Trace::cameraTagOn()) atrace_begin_body(section);
    return callAndClose(traceCategory, fails, function, silentErrno, driverFormat, call, logError,
                        args...);
}

// `call(args...)` makes the system call and returns its raw result. `logError(function,
// result, err, args...)` writes the wrapper's error line; `function` is the wrapper's
// name. Both capture nothing: the arguments travel as scalars, so the success path builds
// no object for the paths it does not take. That path is the category test, the call, the
// failure test and the category test again; the traced path runs out of line. Always
// inlined, so the rule folds into constants.
template <typename Call, typename LogError, typename... Args>
__attribute__((always_inline)) inline auto checked(const Rule& rule, const char* function,
                                                   Call call, LogError logError, Args... args) {
    static_assert(std::is_empty_v<Call> && std::is_empty_v<LogError>,
                  "the call and its error line take what they need as arguments");
    if (Trace::categoryOn(rule.traceCategory)) {
        return tracedCall(rule.traceCategory, rule.section, rule.fails, function, rule.silentErrno,
                          rule.driverFormat, call, logError, args...);
    }
    return callAndClose(rule.traceCategory, rule.fails, function, rule.silentErrno,
                        rule.driverFormat, call, logError, args...);
}

// For calls whose success value is 0 by contract, whatever the call returned.
inline int zeroOnSuccess(int result) {
    return std::min(result, 0);
}

}  // namespace NSCam::NSTavrel::System::internal
