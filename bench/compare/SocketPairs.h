// N connected socket pairs: byte carriers for the event-loop workload. Index i's read
// side is what a loop watches; its write side is where the previous callback writes.
#pragma once

#include <cstddef>
#include <vector>

#include "tavrel/platform/UniqueFd.h"

namespace tavrel::bench {

class SocketPairs {
public:
    // Creates `count` non-blocking AF_UNIX stream pairs; ends the process on failure.
    explicit SocketPairs(size_t count);

    size_t size() const { return mReadEnds.size(); }
    int readFd(size_t i) const { return mReadEnds[i].get(); }
    int writeFd(size_t i) const { return mWriteEnds[i].get(); }

private:
    std::vector<host::UniqueFd> mReadEnds;   // watched by the loops
    std::vector<host::UniqueFd> mWriteEnds;  // written by the driver and the callbacks
};

}  // namespace tavrel::bench
