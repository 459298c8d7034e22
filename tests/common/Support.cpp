#include "common/Support.h"

#include <linux/audit.h>
#include <linux/filter.h>
#include <signal.h>
#include <sys/wait.h>
#include <ucontext.h>

#include <cstdarg>
#include <cstddef>
#include <iterator>

namespace tavrel::test {

namespace {
constexpr uint64_t kModuleBit = uint64_t{1} << 55;

#if defined(__x86_64__)
constexpr uint32_t kArch = AUDIT_ARCH_X86_64;
#else
constexpr uint32_t kArch = AUDIT_ARCH_AARCH64;
#endif

// What a trapped call is answered with; each filter names its own by index.
struct Answer {
    long result;
    std::chrono::microseconds delay;
    int outArg;
    std::string out;
};
std::vector<Answer> sAnswers;

// SIGSYS: answers in place of the kernel what the filter named in si_errno.
void answer(int, siginfo_t* info, void* context) {
    const Answer& a = sAnswers[size_t(info->si_errno)];
    const timespec delay{0, long(a.delay.count()) * 1000};
    ::nanosleep(&delay, nullptr);
    mcontext_t& m = static_cast<ucontext_t*>(context)->uc_mcontext;
#if defined(__x86_64__)
    const int arguments[] = {REG_RDI, REG_RSI, REG_RDX};
    auto &out = m.gregs[arguments[a.outArg]], &result = m.gregs[REG_RAX];
#else
    auto &out = m.regs[a.outArg], &result = m.regs[0];
#endif
    if (!a.out.empty()) std::memcpy(reinterpret_cast<void*>(out), a.out.data(), a.out.size());
    result = a.result;
}
}  // namespace

std::string format(const char* fmt, ...) {
    char text[4096];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
    return text;
}

// Source line numbers in a log text as N ("Read() ... {#N:src/...}"), so that expectations
// do not move with the sources.
static std::string withoutLineNumbers(const std::string& text) {
    static const std::regex header(R"((\] [^ :]+):\d+ )"), suffix(R"(\{#\d+:)");
    return std::regex_replace(
        std::regex_replace(text, header, "$1:N ", std::regex_constants::format_first_only), suffix,
        "{#N:");
}

LogCapture::LogCapture(LogSwitches s)
    : mPrevious(ULogger::sULogger.exchange(this)),
      mSaved{ULogger::sMode.exchange(s.mode), ULogger::sDetailsLevel.exchange(s.details),
             ULogger::sNormalDetailsMask.exchange(s.mask), true} {
    for (int i = 0; i < kLogInfoLevels; ++i) {
        mSavedBits[i] = g_logInfoLv[i].enableMask;
        g_logInfoLv[i].enableMask = (mSavedBits[i] & ~kModuleBit) | (s.bit55 ? kModuleBit : 0);
    }
    host::setDebugPrintSink(
        [](void* self, const char* tag, cam_debug_level_t level, const char* text) {
            auto* capture = static_cast<LogCapture*>(self);
            std::lock_guard<std::mutex> lock(capture->mMutex);
            capture->mDebug.push_back(format("%d %s ", level, tag) + withoutLineNumbers(text));
        },
        this);
}

LogCapture::~LogCapture() {
    ULogger::sMode = mSaved.mode;
    ULogger::sDetailsLevel = mSaved.details;
    ULogger::sNormalDetailsMask = mSaved.mask;
    ULogger::sULogger = mPrevious;
    host::setDebugPrintSink(nullptr, nullptr);
    for (int i = 0; i < kLogInfoLevels; ++i) g_logInfoLv[i].enableMask = mSavedBits[i];
}

void LogCapture::writeLine(uint32_t module, const char* tag, int level, const char* text,
                           int length) {
    std::lock_guard<std::mutex> lock(mMutex);
    mUnified.push_back(format("%d %s %#x %d %s", level, tag, module, length, text));
    mTexts.push_back(text);
}

std::string withoutPid(const std::string& marker) {
    static const std::regex pid(R"(\|\d+)");
    return std::regex_replace(marker, pid, "", std::regex_constants::format_first_only);
}

TraceCapture::TraceCapture(uint64_t bits, uint64_t tags) {
    host::setTraceFile((dir.path + "/trace").c_str());
    host::setTavrelTraceBits(bits);
    host::setAtraceEnabledTags(tags);
}

TraceCapture::~TraceCapture() {
    host::setTavrelTraceBits(0);
    host::setAtraceEnabledTags(0);
    host::setTraceFile(nullptr);
}

Lines TraceCapture::markers() const {
    // "<task, 16 wide>-<tid> [<cpu>] ..... <seconds>.<micros>: tracing_mark_write: <marker>"
    const std::regex frame(R"(^.{16}-\d+ +\[\d{3}\] \.{5} \d+\.\d{6}: tracing_mark_write: )");
    Lines markers;
    std::istringstream in(readFile(dir.path + "/trace"));
    for (std::string line; std::getline(in, line);) {
        if (line[0] != '#')  // the header's lines
            markers.push_back(withoutPid(std::regex_replace(line, frame, "")));
    }
    return markers;
}

Lines logEntries(const std::string& text) {
    // "2024-01-02 03:04:05.123456 12 13 E tag: text" (the unified logger's) and
    // "01-02 03:04:05.123    12    13 F tag     : text" (logcat's threadtime, the Android log's)
    static const std::regex line(
        R"(^(?:[\d-]{10} [\d:.]{15}|[\d-]{5} [\d:.]{12}) +\d+ +\d+ ([A-Z]) (.*?) *: (.*)$)");
    Lines entries;
    std::istringstream in(text);
    for (std::string entry; std::getline(in, entry);) {
        std::smatch m;
        if (std::regex_match(entry, m, line)) entry = m.str(1) + " " + m.str(2) + ": " + m.str(3);
        entries.push_back(withoutLineNumbers(entry));
    }
    return entries;
}

testing::Matcher<const std::string&> entriesAre(const Lines& entries) {
    return testing::ResultOf(logEntries, testing::ElementsAreArray(entries));
}

TempDir::TempDir() {
    std::string pattern = std::filesystem::temp_directory_path() / "tavrel-test-XXXXXX";
    path = ::mkdtemp(pattern.data()) != nullptr ? pattern : "";
}

std::string TempDir::write(const std::string& name, const std::string& content) const {
    std::ofstream(path + "/" + name) << content;
    return path + "/" + name;
}

std::string readFile(const std::string& path) {
    std::ifstream file(path);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

Outcome run(const std::string& command, const std::string& program) {
    FILE* pipe =
        ::popen((std::regex_replace(command, std::regex("%T"), program) + " 2>&1").c_str(), "r");
    if (pipe == nullptr) return {-1, ""};
    std::string out;
    for (int c; (c = std::fgetc(pipe)) != EOF;) out += static_cast<char>(c);
    const int status = ::pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

Outcome runWithProperties(const std::string& name, const std::string& properties) {
    const TempDir dir;
    char self[4096] = {};
    ::readlink("/proc/self/exe", self, sizeof(self) - 1);
    return run(
        format("%s=%s %%T --gtest_also_run_disabled_tests --gtest_filter=%s",
               host::kPropertiesFileEnv, dir.write("props", properties).c_str(), name.c_str()),
        self);
}

void inject(long call, int arg, long value, int error, long result, std::chrono::microseconds delay,
            int outArg, const std::string& out) {
    const uint32_t action = error != 0 ? SECCOMP_RET_ERRNO | uint32_t(error)
                                       : SECCOMP_RET_TRAP | uint32_t(sAnswers.size());
    sAnswers.push_back({result, delay, outArg, out});
    // Another architecture's calls have other numbers. Both are little-endian: an
    // argument's low half comes first.
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kArch, 0, 5),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, uint32_t(call), 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, uint32_t(offsetof(seccomp_data, args) + 8 * arg)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, uint32_t(value), 0, 1),
        BPF_STMT(BPF_RET | BPF_K, action),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
    const sock_fprog filter{uint16_t(std::size(program)), program};
    struct sigaction trap {};
    trap.sa_sigaction = answer;
    trap.sa_flags = SA_SIGINFO;
    if (::sigaction(SIGSYS, &trap, nullptr) != 0 || ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0)
        std::perror("seccomp");  // the call then reaches the kernel, and the test fails
}

void limitDescriptors(int spare) {
    ULogger::sULogger.load()->flush(0);
    const int lowestFree = ::dup(0);
    ::close(lowestFree);
    const rlimit limit{rlim_t(lowestFree + spare), rlim_t(lowestFree + spare)};
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

bool waitUntil(const std::function<bool()>& done) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

void RecordingPrinter::printFormatLine(const char* fmt, ...) {
    char text[4096];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
    lines.push_back(text);
}

std::pair<int, int> descriptorsOf(const IEpollMonitor& monitor) {
    std::pair<int, int> fds{-1, -1};
    const std::string line = dumpOf(monitor).at(0);
    std::sscanf(line.c_str() + line.find(".mEpollFd="), ".mEpollFd=%d .mEventFd=%d", &fds.first,
                &fds.second);
    return fds;
}

std::string epollCtlError(const std::string& op, int epollFd, int fd, const std::string& err) {
    std::string upper = op;
    for (char& c : upper) c = char(std::toupper(c));
    return format("[EPollCtl%s] epoll_ctl(%d, EPOLL_CTL_%s, %d) return -1: %s", op.c_str(), epollFd,
                  upper.c_str(), fd, err.c_str());
}

Lines crashReport(const char* request, int err) {
    return {format("F tavrel-crash: varnok: %s err=%d(%s) Please check VarnokKernel.", request,
                   -err, strerror(err)),
            "F tavrel-crash: CRDISPATCH_KEY:VarnokKernel"};
}

RunningMonitor::RunningMonitor(const char* name)
    : monitor(IEpollMonitor::make(name)), driver(std::dynamic_pointer_cast<IThreadLoop>(monitor)) {}

EventObserver::EventObserver(std::function<void(const OnEvent&)> onEach)
    : FdObserver(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC), std::move(onEach)), owned(fd) {}

void EventObserver::onEvent(const OnEvent& event) {
    uint64_t value = 0, read = 0;
    while (::read(owned.get(), &value, sizeof(value)) == sizeof(value)) read += value;
    units += read;
    FdObserver::onEvent(event);
}

}  // namespace tavrel::test
