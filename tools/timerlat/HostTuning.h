// What a measuring run asks of the host, each request saying whether it was granted: locked
// memory, the CPUs' wake-up latency held low, the monitor thread's scheduling and CPUs.
#pragma once

#include <string>

#include "Options.h"

namespace tavrel::timerlat {

// Locks the process's current and future memory. Empty on success, else why not.
std::string lockAllMemory();

// Holds /dev/cpu_dma_latency at 0 (no deep CPU idle states) for its lifetime, as cyclictest
// does by default: the kernel keeps the request only while the descriptor stays open.
class DmaLatencyHold {
public:
    // Tries to open and write the device; state() says how that went.
    DmaLatencyHold();
    ~DmaLatencyHold();
    DmaLatencyHold(const DmaLatencyHold&) = delete;
    DmaLatencyHold& operator=(const DmaLatencyHold&) = delete;

    bool held() const { return mFd >= 0; }
    // "0 us held", or "not held (...)" with the reason.
    const std::string& state() const { return mState; }

private:
    int mFd = -1;        // the open device while held
    std::string mState;  // for the header
};

// Makes the monitor thread's readyToRun pin it to `cpus` (through the affinity property
// the platform's zelcam_perfctrl_set_affinity reads); empty: leaves the property alone.
void requestAffinity(const std::string& cpus);

// Tries the scheduling and CPU list the options ask for on a throwaway thread, through the
// calls the monitor thread makes. Empty when both are granted (or nothing is asked), else
// what was refused and why. Call requestAffinity first.
std::string tryThreadSettings(const Options& options);

}  // namespace tavrel::timerlat
