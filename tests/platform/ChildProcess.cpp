#include "ChildProcess.h"

#include <fcntl.h>
#include <regex.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "common/ChildCommand.h"
#include "tavrel/platform/UniqueFd.h"

extern char** environ;

namespace tavrel::test {
namespace {

constexpr const char* kModeEnv = "TAVREL_PLATFORM_TEST_CHILD";
constexpr mode_t kFileMode = 0600;
constexpr int kExecFailedStatus = 127;

// Whether `entry` ("NAME=value") names a variable that one of `entries` sets anew.
bool overridden(const char* entry, const std::vector<std::string>& entries) {
    for (const std::string& other : entries) {
        const size_t nameEnd = other.find('=') + 1;
        if (std::strncmp(entry, other.c_str(), nameEnd) == 0) return true;
    }
    return false;
}

}  // namespace

TempDir::TempDir() {
    const char* base = std::getenv("TMPDIR");
    std::string templ = std::string(base != nullptr ? base : "/tmp") + "/tavrel-plat-XXXXXX";
    if (mkdtemp(templ.data()) != nullptr) mPath = templ;
}

TempDir::~TempDir() {
    if (mPath.empty()) return;
    std::error_code ignored;
    std::filesystem::remove_all(mPath, ignored);
}

std::string TempDir::write(const std::string& name, const std::string& content) const {
    const std::string file = mPath + "/" + name;
    std::ofstream(file) << content;
    return file;
}

ChildMode::ChildMode(const char* name, void (*body)()) {
    const char* wanted = std::getenv(kModeEnv);
    if (wanted == nullptr || std::strcmp(wanted, name) != 0) return;
    body();
    std::fflush(nullptr);
    _exit(0);
}

ChildResult runChild(const std::string& mode, const std::vector<std::string>& env,
                     const TempDir& dir) {
    // Everything the child needs is built before fork: only async-signal-safe calls
    // are made between fork and exec.
    std::vector<std::string> entries = env;
    entries.push_back(std::string(kModeEnv) + "=" + mode);
    std::vector<char*> envp;
    for (char** e = environ; *e != nullptr; ++e) {
        if (!overridden(*e, entries)) envp.push_back(*e);
    }
    for (std::string& entry : entries) envp.push_back(entry.data());
    envp.push_back(nullptr);
    // This program by its path, through the emulator in a cross build (see ChildCommand.h).
    std::vector<std::string> command = commandFor(selfExecutable());
    ChildResult result;
    if (command.back().empty()) return result;
    std::vector<char*> argv;
    for (std::string& word : command) argv.push_back(word.data());
    argv.push_back(nullptr);
    const std::string outPath = dir.path() + "/child.out";
    const std::string errPath = dir.path() + "/child.err";
    host::UniqueFd out(
        ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kFileMode));
    host::UniqueFd err(
        ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kFileMode));
    if (!out.ok() || !err.ok()) return result;
    result.pid = fork();
    if (result.pid == 0) {
        dup2(out.get(), STDOUT_FILENO);
        dup2(err.get(), STDERR_FILENO);
        execve(argv[0], argv.data(), envp.data());
        _exit(kExecFailedStatus);
    }
    if (result.pid < 0) return result;
    waitpid(result.pid, &result.status, 0);
    result.out = readFile(outPath);
    result.err = readFile(errPath);
    return result;
}

ChildResult runWithProperties(const std::string& mode, const std::string& properties,
                              const TempDir& dir) {
    return runChild(mode, {"TAVREL_PROPERTIES=" + dir.write("child.prop", properties)}, dir);
}

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream content;
    content << in.rdbuf();
    return content.str();
}

std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

std::vector<std::string> matchWhole(const std::string& text, const std::string& pattern) {
    constexpr size_t kMaxGroups = 8;
    regex_t compiled;
    if (regcomp(&compiled, ("^" + pattern + "$").c_str(), REG_EXTENDED) != 0) return {};
    regmatch_t groups[kMaxGroups];
    const bool matched = regexec(&compiled, text.c_str(), kMaxGroups, groups, 0) == 0;
    const size_t count = compiled.re_nsub + 1;
    regfree(&compiled);
    if (!matched) return {};
    std::vector<std::string> found;
    for (size_t i = 0; i < count && i < kMaxGroups; ++i) {
        if (groups[i].rm_so < 0) {
            found.emplace_back();
            continue;
        }
        found.push_back(text.substr(static_cast<size_t>(groups[i].rm_so),
                                    static_cast<size_t>(groups[i].rm_eo - groups[i].rm_so)));
    }
    return found;
}

std::string androidLogEntry(const std::string& line, const std::string& tag, pid_t pid) {
    const std::vector<std::string> match =
        matchWhole(line, tag + " ([A-Z]) [0-9]{2}-[0-9]{2} [0-9:]{8} +([0-9]+) +([0-9]+) (.*)");
    const std::string id = std::to_string(pid);
    if (match.empty() || match[2] != id || match[3] != id) return "unexpected: " + line;
    return match[1] + " " + match[4];
}

}  // namespace tavrel::test
