#include "SocketPairs.h"

#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>

namespace tavrel::bench {

SocketPairs::SocketPairs(size_t count) {
    mReadEnds.reserve(count);
    mWriteEnds.reserve(count);
    for (size_t i = 0; i < count; ++i) {
        int fds[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds) != 0) {
            std::perror("socketpair");
            std::exit(EXIT_FAILURE);
        }
        mReadEnds.emplace_back(fds[0]);
        mWriteEnds.emplace_back(fds[1]);
    }
}

}  // namespace tavrel::bench
