// Runs this test program again as a child in a named mode, with its own environment,
// so that what happens at load time (property file, switches, log output) is observable.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace tavrel::test {

// A folder under $TMPDIR (or /tmp), removed with everything in it when the object goes.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return mPath; }
    // Writes `content` to the file `name` inside the folder and returns its path.
    std::string write(const std::string& name, const std::string& content) const;

private:
    std::string mPath;  // the folder, empty when it could not be made
};

// Registers a child mode at static initialisation: when the program was started with
// this mode named in the environment, `body` runs instead of the tests and the program
// exits with status 0. Define one per mode as a namespace-scope object.
class ChildMode {
public:
    ChildMode(const char* name, void (*body)());
};

struct ChildResult {
    pid_t pid = -1;   // the child's process id, which is also its main thread's id
    int status = -1;  // raw wait status
    std::string out;  // everything written to stdout
    std::string err;  // everything written to stderr
};

// Test thread. Runs mode `mode` of this program in a child with `env` ("NAME=value")
// added to this process's environment; stdout and stderr go to files in `dir`.
ChildResult runChild(const std::string& mode, const std::vector<std::string>& env,
                     const TempDir& dir);

// runChild() with `properties` as the child's property file, written into `dir`.
ChildResult runWithProperties(const std::string& mode, const std::string& properties,
                              const TempDir& dir);

// The whole content of a file, or an empty text when it cannot be read.
std::string readFile(const std::string& path);

// `text` cut at each '\n'; a final line without one is kept.
std::vector<std::string> splitLines(const std::string& text);

// Matches all of `text` against the POSIX extended expression `pattern`; returns the
// whole match and each group, or nothing when it does not match.
std::vector<std::string> matchWhole(const std::string& text, const std::string& pattern);

// A line of the host's Android log as "<priority letter> <text>" when it has `tag` and was
// written by the main thread of `pid`, else "unexpected: <line>".
std::string androidLogEntry(const std::string& line, const std::string& tag, pid_t pid);

}  // namespace tavrel::test
