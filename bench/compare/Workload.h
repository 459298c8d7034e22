// The classic event-loop benchmark round: one byte is written into A of the N pairs;
// every read callback takes its byte and, while writes remain, passes one byte on to the
// next pair. The round ends when every byte written has been read.
//
// The driver thread starts a round through an eventfd that the loop watches, and the loop
// thread writes the A bytes itself: the loop then finds them all ready at once, as in the
// single-threaded original, and how the work is batched does not depend on how the two
// threads happen to interleave (which keeps instruction counts repeatable).
#pragma once

#include <time.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "SocketPairs.h"
#include "tavrel/platform/UniqueFd.h"

namespace tavrel::bench {

class Workload {
public:
    Workload(const SocketPairs& pairs, size_t active, int writes);

    // Loop thread: the whole callback body, identical for every backend, for pair `i`.
    void onReadable(size_t i);

    // The descriptor every loop watches besides the pairs: readable when a round starts.
    int startFd() const { return mStart.get(); }

    // Loop thread, when startFd() is readable: writes the round's first A bytes.
    void onStart();

    // What one round cost, from just before the driver's first write to the end of the
    // last callback.
    struct RoundTime {
        int64_t wallNs;  // elapsed
        int64_t cpuNs;   // spent by the loop thread: blind to time other processes take
    };

    // Driver thread, while the loop thread is idle: runs one round. `loopCpuClock` is the
    // loop thread's CPU-time clock.
    RoundTime runRound(clockid_t loopCpuClock);

    const SocketPairs& pairs() const { return mPairs; }
    size_t callbacksPerRound() const { return mActive + static_cast<size_t>(mWrites); }

private:
    void finishRound();

    const SocketPairs& mPairs;
    const size_t mActive;   // pairs the driver writes to at the start of a round
    const int mWrites;      // bytes the callbacks pass on per round
    const size_t mSpacing;  // distance between the pairs the driver writes to

    // Touched by the loop thread during a round and by the driver only between rounds;
    // the socket and eventfd calls that hand the round over order those accesses.
    std::atomic<int> mWritesLeft{0};
    std::atomic<int> mRead{0};
    std::atomic<int> mWritten{0};
    std::atomic<int64_t> mEndNs{0};
    std::atomic<int64_t> mEndCpuNs{0};

    host::UniqueFd mStart;  // eventfd: the driver starts a round
    host::UniqueFd mDone;   // eventfd: the last callback of a round wakes the driver
};

}  // namespace tavrel::bench
