#include "StderrCapture.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>

namespace tavrel::test {

StderrCapture::StderrCapture()
    : mSaved(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)),
      mFile(::open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600)) {
    std::fflush(stderr);
    ::dup2(mFile.get(), STDERR_FILENO);
}

StderrCapture::~StderrCapture() {
    std::fflush(stderr);
    ::dup2(mSaved.get(), STDERR_FILENO);
}

std::vector<std::string> StderrCapture::lines() const {
    std::fflush(stderr);
    std::string text;
    char chunk[4096];
    for (off_t offset = 0;;) {
        const ssize_t n = ::pread(mFile.get(), chunk, sizeof(chunk), offset);
        if (n <= 0) break;
        text.append(chunk, static_cast<size_t>(n));
        offset += n;
    }
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) result.push_back(line);
    return result;
}

}  // namespace tavrel::test
