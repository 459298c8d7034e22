#include "Workload.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "Clock.h"

namespace tavrel::bench {

namespace {

constexpr char kByte = 'e';

[[noreturn]] void die(const char* what) {
    std::perror(what);
    std::abort();
}

// Adds one to an eventfd, waking whoever waits on it.
void post(int eventFd) {
    const uint64_t one = 1;
    if (::write(eventFd, &one, sizeof one) != sizeof one) die("write eventfd");
}

}  // namespace

Workload::Workload(const SocketPairs& pairs, size_t active, int writes)
    : mPairs(pairs),
      mActive(active),
      mWrites(writes),
      mSpacing(pairs.size() / active),
      mStart(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      mDone(::eventfd(0, EFD_CLOEXEC)) {
    if (!mStart.ok() || !mDone.ok()) die("eventfd");
}

void Workload::onStart() {
    uint64_t started;
    if (::read(mStart.get(), &started, sizeof started) != sizeof started) die("read eventfd");
    for (size_t k = 0; k < mActive; ++k) {
        if (::write(mPairs.writeFd(k * mSpacing), &kByte, 1) != 1) die("write");
    }
}

void Workload::onReadable(size_t i) {
    char byte;
    if (::read(mPairs.readFd(i), &byte, 1) != 1) die("read");
    const int read = mRead.load(std::memory_order_relaxed) + 1;
    mRead.store(read, std::memory_order_relaxed);

    int written = mWritten.load(std::memory_order_relaxed);
    const int left = mWritesLeft.load(std::memory_order_relaxed);
    if (left > 0) {
        mWritesLeft.store(left - 1, std::memory_order_relaxed);
        mWritten.store(++written, std::memory_order_relaxed);
        const size_t next = i + 1 == mPairs.size() ? 0 : i + 1;
        if (::write(mPairs.writeFd(next), &kByte, 1) != 1) die("write");
    }
    if (read == written) finishRound();
}

void Workload::finishRound() {
    mEndNs.store(nowNs(), std::memory_order_relaxed);
    mEndCpuNs.store(readNs(CLOCK_THREAD_CPUTIME_ID), std::memory_order_relaxed);
    post(mDone.get());
}

Workload::RoundTime Workload::runRound(clockid_t loopCpuClock) {
    mWritesLeft.store(mWrites, std::memory_order_relaxed);
    mRead.store(0, std::memory_order_relaxed);
    mWritten.store(static_cast<int>(mActive), std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);

    const int64_t startCpu = readNs(loopCpuClock);
    const int64_t start = nowNs();
    post(mStart.get());
    uint64_t done;
    if (::read(mDone.get(), &done, sizeof done) != sizeof done) die("read eventfd");
    std::atomic_thread_fence(std::memory_order_acquire);
    return {mEndNs.load(std::memory_order_relaxed) - start,
            mEndCpuNs.load(std::memory_order_relaxed) - startCpu};
}

}  // namespace tavrel::bench
