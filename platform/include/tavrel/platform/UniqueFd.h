// Ownership of a descriptor as a type: closed when the owner goes, errno kept intact.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

#include "tavrel/platform/Export.h"

namespace tavrel::host {

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : mFd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : mFd(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    int get() const { return mFd; }
    bool ok() const { return mFd >= 0; }

    // Gives the descriptor up without closing it.
    int release() { return std::exchange(mFd, -1); }

    // Closes the current descriptor (keeping errno as it was) and takes `fd`.
    void reset(int fd = -1) {
        if (mFd >= 0) {
            const int savedErrno = errno;
            ::close(mFd);
            errno = savedErrno;
        }
        mFd = fd;
    }

private:
    int mFd = -1;  // owned descriptor, or -1
};

}  // namespace tavrel::host
