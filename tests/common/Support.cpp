#include "common/Support.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <thread>

#include "tavrel/platform/Properties.h"
#include "tavrel/platform/Trace.h"

extern char** environ;

namespace tavrel::test {

using NSCam::Utils::ULog::ULogger;

namespace {
constexpr uint64_t kModuleBit = uint64_t{1} << 55;
}  // namespace

std::string format(const char* fmt, ...) {
    char text[4096];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
    return text;
}

std::string withoutLineNumbers(const std::string& text) {
    static const std::regex header(R"((\] [^ :]+):\d+ )"), suffix(R"(\{#\d+:)");
    return std::regex_replace(
        std::regex_replace(text, header, "$1:N ", std::regex_constants::format_first_only), suffix,
        "{#N:");
}

LogCapture::LogCapture(LogSwitches s)
    : mPrevious(ULogger::sULogger.exchange(this)),
      mSaved{ULogger::sMode, ULogger::sDetailsLevel, ULogger::sNormalDetailsMask, true} {
    for (int i = 0; i < kLogInfoLevels; ++i) {
        mSavedBits[i] = g_logInfoLv[i].enableMask;
        g_logInfoLv[i].enableMask =
            s.bit55 ? mSavedBits[i] | kModuleBit : mSavedBits[i] & ~kModuleBit;
    }
    host::setDebugPrintSink(
        [](void* self, const char* tag, cam_debug_level_t level, const char* text) {
            auto* capture = static_cast<LogCapture*>(self);
            std::lock_guard<std::mutex> lock(capture->mMutex);
            capture->mDebug.push_back(format("%d %s ", level, tag) + withoutLineNumbers(text));
        },
        this);
    ULogger::sMode = s.mode;
    ULogger::sDetailsLevel = s.details;
    ULogger::sNormalDetailsMask = s.mask;
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

Lines LogCapture::copy(const Lines& lines) const {
    std::lock_guard<std::mutex> lock(mMutex);
    return lines;
}

std::string withoutPid(const std::string& marker) {
    std::string text = marker;
    const size_t pid = text.find('|');
    return text.erase(pid, text.find('|', pid + 1) - pid);
}

TraceCapture::TraceCapture(uint64_t bits, uint64_t tags) {
    host::setTraceSink(
        [](void* self, const char* marker) {
            auto* capture = static_cast<TraceCapture*>(self);
            std::lock_guard<std::mutex> lock(capture->mMutex);
            capture->mMarkers.push_back(withoutPid(marker));
        },
        this);
    host::setTavrelTraceBits(bits);
    host::setAtraceEnabledTags(tags);
}

TraceCapture::~TraceCapture() {
    host::setTavrelTraceBits(0);
    host::setAtraceEnabledTags(0);
    host::setTraceSink(nullptr, nullptr);
}

Lines TraceCapture::markers() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mMarkers;
}

StderrCapture::StderrCapture()
    : mSaved(::dup(STDERR_FILENO)), mFile(::open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600)) {
    ::dup2(mFile.get(), STDERR_FILENO);
}

StderrCapture::~StderrCapture() {
    ::dup2(mSaved.get(), STDERR_FILENO);
}

std::string StderrCapture::text() const {
    std::string text(static_cast<size_t>(::lseek(mFile.get(), 0, SEEK_END)), '\0');
    return ::pread(mFile.get(), text.data(), text.size(), 0) < 0 ? "" : text;
}

Lines logEntries(const std::string& text) {
    // "2024-01-02 03:04:05.123456 12 13 E tag: text" and "tag F 01-02 03:04:05  12  13 text"
    static const std::regex host(R"(^[\d-]{10} [\d:.]{15} \d+ \d+ ([A-Z]) ([^:]*): (.*)$)"),
        android(R"(^(\S+) ([A-Z]) [\d-]{5} [\d:]{8} +\d+ +\d+ (.*)$)");
    Lines entries;
    bool continues = false;  // only the Android log keeps a message's newlines
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        std::smatch m;
        if (std::regex_match(line, m, host)) {
            entries.push_back(m.str(1) + " " + m.str(2) + ": " + m.str(3));
            continues = false;
        } else if (std::regex_match(line, m, android)) {
            entries.push_back(m.str(2) + " " + m.str(1) + ": " + m.str(3));
            continues = true;
        } else if (continues) {
            entries.back() += "\n" + line;
        } else {
            entries.push_back(line);
        }
        entries.back() = withoutLineNumbers(entries.back());
    }
    return entries;
}

testing::Matcher<const std::string&> entriesAre(const Lines& entries) {
    return testing::ResultOf(logEntries, testing::ElementsAreArray(entries));
}

TempDir::TempDir() {
    std::string pattern = std::filesystem::temp_directory_path() / "tavrel-test-XXXXXX";
    mPath = ::mkdtemp(pattern.data()) != nullptr ? pattern : "";
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(mPath, ignored);
}

std::string TempDir::write(const std::string& name, const std::string& content) const {
    std::ofstream(mPath + "/" + name) << content;
    return mPath + "/" + name;
}

Lines commandFor(const std::string& program, const Lines& arguments) {
    const char* emulator = std::getenv("TAVREL_TEST_EMULATOR");
    std::istringstream words(emulator != nullptr ? emulator : "");
    Lines command{std::istream_iterator<std::string>(words), {}};
    command.push_back(program);
    return command + arguments;
}

std::string selfExecutable() {
    char path[4096];
    const ssize_t length = ::readlink("/proc/self/exe", path, sizeof(path));
    return length > 0 ? std::string(path, size_t(length)) : "";
}

Outcome run(const Lines& command, const Lines& env) {
    const Lines full = commandFor(command.front(), Lines(command.begin() + 1, command.end()));
    std::vector<char*> argv, envp;
    for (const std::string& word : full) argv.push_back(const_cast<char*>(word.c_str()));
    for (const std::string& entry : env) envp.push_back(const_cast<char*>(entry.c_str()));
    for (char** entry = environ; *entry != nullptr; ++entry) envp.push_back(*entry);
    argv.push_back(nullptr);
    envp.push_back(nullptr);
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return {-1, "no pipe"};
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(ends[1], STDOUT_FILENO);
        ::dup2(ends[1], STDERR_FILENO);
        ::execve(argv[0], argv.data(), envp.data());
        ::_exit(127);
    }
    ::close(ends[1]);
    Outcome outcome{-1, {}};
    char chunk[4096];
    for (ssize_t got; (got = ::read(ends[0], chunk, sizeof(chunk))) != 0;) {
        if (got > 0) outcome.out.append(chunk, static_cast<size_t>(got));
        if (got < 0 && errno != EINTR) break;
    }
    ::close(ends[0]);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return outcome;
}

Outcome runWithProperties(const std::string& name, const std::string& properties) {
    const TempDir dir;
    return run({selfExecutable(), "--gtest_also_run_disabled_tests", "--gtest_filter=" + name},
               {std::string(host::kPropertiesFileEnv) + "=" + dir.write("props", properties)});
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

Lines dumpOf(const IEpollMonitor& monitor) {
    RecordingPrinter printer;
    monitor.dumpState(&printer);
    return printer.lines;
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

void EventObserver::signal() const {
    const uint64_t one = 1;
    if (::write(owned.get(), &one, sizeof(one)) != sizeof(one)) ADD_FAILURE() << "signal";
}

}  // namespace tavrel::test
