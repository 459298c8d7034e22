// Trace backend of Linux hosts: the two category masks and the atrace markers, written to
// the kernel's trace_marker or to a trace file in ftrace's text format.
#include "tavrel/platform/Trace.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <string>

#include "HostKeys.h"
#include "PropertyReport.h"
#include "PropertyValue.h"
#include "tavrel/platform/Properties.h"

namespace tavrel::host {

namespace {

// Where the kernel offers its marker file, newest mount point first.
constexpr const char* kKernelMarkers[] = {"/sys/kernel/tracing/trace_marker",
                                          "/sys/kernel/debug/tracing/trace_marker"};

// Room for one marker and for one line of the trace file; longer names are cut.
constexpr size_t kMarkerSize = 1024;
constexpr size_t kLineSize = kMarkerSize + 128;
// Room for a property value (a path or a number).
constexpr size_t kValueSize = 4096;
// The kernel keeps 15 characters of a thread's name, plus the terminator.
constexpr size_t kTaskNameSize = 16;
constexpr long kNanosPerMicro = 1000;
constexpr mode_t kTraceFileMode = 0644;

// The header that makes a trace viewer read the file as ftrace text output.
constexpr const char kFtraceHeader[] =
    "# tracer: nop\n"
    "#\n"
    "#                                _-----=> irqs-off/BH-disabled\n"
    "#                               / _----=> need-resched\n"
    "#                              | / _---=> hardirq/softirq\n"
    "#                              || / _--=> preempt-depth\n"
    "#                              ||| / _-=> migrate-disable\n"
    "#                              |||| /     delay\n"
    "#           TASK-PID     CPU#  |||||  TIMESTAMP  FUNCTION\n"
    "#              | |         |   |||||     |         |\n";

// A 64-bit decimal or 0x-hex property; 0 when unset or malformed.
uint64_t loadMask(const char* key) {
    char value[kValueSize];
    if (!property_get(key, value, sizeof(value))) return 0;
    uint64_t mask = 0;
    if (!parseMask(value, &mask)) {
        reportBadValue(key, value, kExpectMask64);
        return 0;
    }
    return mask;
}

// Same spellings as the stack's boolean properties; false when unset or malformed.
bool loadBool(const char* key) {
    char value[kValueSize];
    if (!property_get(key, value, sizeof(value))) return false;
    const int parsed = parseBool(value);
    if (parsed < 0) reportBadValue(key, value, kExpectBool);
    return parsed == 1;
}

// Where markers go. Replaced as a whole under the writer lock; markers are written under
// the reader lock, so a descriptor is never closed while a marker is being written to it.
struct Output {
    int fd = -1;              // trace_marker or trace file, or -1 for nowhere
    bool ftraceText = false;  // true for a trace file: each marker becomes a full line
    std::string path;         // the trace file's path; empty otherwise
};

struct TraceState {
    std::shared_mutex lock;      // writers replace the output or the sink
    std::once_flag configured;   // the properties choose the first output once
    Output output;               // current destination
    TraceSink sink = nullptr;    // test hook, called with every marker
    void* sinkCookie = nullptr;  // handed back to the sink
};

TraceState& state() {
    static TraceState* const sState = new TraceState;  // outlives every static destructor
    return *sState;
}

int openKernelMarker() {
    for (const char* path : kKernelMarkers) {
        const int fd = open(path, O_WRONLY | O_CLOEXEC);
        if (fd >= 0) return fd;
    }
    return -1;
}

// Opens `path` for appending and writes the header when the file is new or empty.
int openTraceFile(const char* path) {
    const int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, kTraceFileMode);
    if (fd < 0) return -1;
    struct stat st {};
    if (fstat(fd, &st) == 0 && st.st_size == 0) {
        if (write(fd, kFtraceHeader, sizeof(kFtraceHeader) - 1) < 0) {
            close(fd);
            return -1;
        }
    }
    return fd;
}

void replaceOutput(Output next) {
    TraceState& s = state();
    std::unique_lock<std::shared_mutex> guard(s.lock);
    if (s.output.fd >= 0) close(s.output.fd);
    s.output = std::move(next);
}

void configureFromProperties() {
    if (loadBool(kTraceKernelMarkerKey)) {
        const int fd = openKernelMarker();
        if (fd >= 0) {
            replaceOutput(Output{fd, false, {}});
            return;
        }
    }
    char path[kValueSize];
    if (!property_get(kTraceFileKey, path, sizeof(path)) || path[0] == '\0') return;
    const int fd = openTraceFile(path);
    if (fd < 0) return;
    replaceOutput(Output{fd, true, path});
}

// Frames a marker as one ftrace text line: task-tid [cpu] flags seconds: event: marker.
int formatLine(char* line, size_t size, const char* marker) {
    char task[kTaskNameSize] = {};
    if (prctl(PR_GET_NAME, task) != 0) strcpy(task, "<...>");
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const int cpu = sched_getcpu();
    return snprintf(line, size, "%16s-%-7d [%03d] ..... %lld.%06ld: tracing_mark_write: %s\n", task,
                    static_cast<int>(gettid()), cpu < 0 ? 0 : cpu,
                    static_cast<long long>(now.tv_sec), now.tv_nsec / kNanosPerMicro, marker);
}

void emit(const char* marker) {
    TraceState& s = state();
    std::call_once(s.configured, configureFromProperties);
    std::shared_lock<std::shared_mutex> guard(s.lock);
    if (s.sink != nullptr) s.sink(s.sinkCookie, marker);
    if (s.output.fd < 0) return;
    if (!s.output.ftraceText) {
        // The kernel stamps the marker itself; one write makes one event.
        (void)!write(s.output.fd, marker, strlen(marker));
        return;
    }
    char line[kLineSize];
    const int length = formatLine(line, sizeof(line), marker);
    if (length <= 0) return;
    // One write per line on an O_APPEND descriptor keeps lines whole across threads.
    const size_t bytes = static_cast<size_t>(length) < sizeof(line) ? length : sizeof(line) - 1;
    if (static_cast<size_t>(length) >= sizeof(line)) line[bytes - 1] = '\n';
    (void)!write(s.output.fd, line, bytes);
}

// Markers are built and sent with errno left as the caller had it.
__attribute__((format(printf, 1, 2))) void emitFormatted(const char* format, ...) {
    const int savedErrno = errno;
    char marker[kMarkerSize];
    va_list args;
    va_start(args, format);
    const int length = vsnprintf(marker, sizeof(marker), format, args);
    va_end(args);
    if (length >= 0) emit(marker);
    errno = savedErrno;
}

}  // namespace

std::atomic<uint64_t> gTavrelTraceBits{loadMask(kTraceBitsKey)};
std::atomic<uint64_t> gAtraceEnabledTags{loadMask(kTraceTagsKey)};

void setTavrelTraceBits(uint64_t bits) {
    gTavrelTraceBits.store(bits, std::memory_order_relaxed);
}

void setAtraceEnabledTags(uint64_t tags) {
    gAtraceEnabledTags.store(tags, std::memory_order_relaxed);
}

void setTraceSink(TraceSink sink, void* cookie) {
    TraceState& s = state();
    std::unique_lock<std::shared_mutex> guard(s.lock);
    s.sink = sink;
    s.sinkCookie = cookie;
}

const char* traceFilePath() {
    TraceState& s = state();
    std::call_once(s.configured, configureFromProperties);
    std::shared_lock<std::shared_mutex> guard(s.lock);
    return s.output.path.empty() ? nullptr : s.output.path.c_str();
}

bool setTraceFile(const char* path) {
    TraceState& s = state();
    // Settle the properties' choice first so that it cannot replace this one later.
    std::call_once(s.configured, [] {});
    if (path == nullptr) {
        replaceOutput(Output{});
        return true;
    }
    const int fd = openTraceFile(path);
    if (fd < 0) return false;
    replaceOutput(Output{fd, true, path});
    return true;
}

}  // namespace tavrel::host

void atrace_begin_body(const char* name) {
    tavrel::host::emitFormatted("B|%d|%s", static_cast<int>(getpid()), name);
}

void atrace_end_body() {
    tavrel::host::emitFormatted("E|%d", static_cast<int>(getpid()));
}

void atrace_int_body(const char* name, int32_t value) {
    tavrel::host::emitFormatted("C|%d|%s|%" PRId32, static_cast<int>(getpid()), name, value);
}

void atrace_async_begin_body(const char* name, int32_t cookie) {
    tavrel::host::emitFormatted("S|%d|%s|%" PRId32, static_cast<int>(getpid()), name, cookie);
}

void atrace_async_end_body(const char* name, int32_t cookie) {
    tavrel::host::emitFormatted("F|%d|%s|%" PRId32, static_cast<int>(getpid()), name, cookie);
}
