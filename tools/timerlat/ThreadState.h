// The scheduling a thread actually runs with, as the kernel reports it.
#pragma once

#include <cstdint>
#include <string>

namespace tavrel::timerlat {

struct ThreadState {
    bool seen = false;     // false: nothing was observed (no callback ran)
    int32_t policy = 0;    // the stack's policy number (Options.h), -1 for another class
    int32_t priority = 0;  // real-time priority for fifo and rr, nice value otherwise
    std::string cpus;      // the CPUs it may run on, as a list such as 0-1,3
};

// Calling thread only.
ThreadState observeThisThread();

// "policy fifo  priority 80  cpus 0-1", or with other and batch "policy other  nice 6".
std::string describe(const ThreadState& state);

}  // namespace tavrel::timerlat
