#include "HostTuning.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <thread>

#include "tavrel/platform/Properties.h"
#include "tavrel/platform/ThreadControl.h"

namespace tavrel::timerlat {
namespace {

constexpr const char* kDmaLatencyDevice = "/dev/cpu_dma_latency";
constexpr const char* kAffinityKey = "tavrel.host.perfctrl.affinity";

std::string errorText(int negativeErrno) {
    return std::strerror(-negativeErrno);
}

}  // namespace

std::string lockAllMemory() {
    if (mlockall(MCL_CURRENT | MCL_FUTURE) == 0) return {};
    return std::string("cannot lock memory (-m): ") + std::strerror(errno) +
           " (needs CAP_IPC_LOCK or a large enough RLIMIT_MEMLOCK)";
}

DmaLatencyHold::DmaLatencyHold() {
    mFd = open(kDmaLatencyDevice, O_RDWR | O_CLOEXEC);
    if (mFd < 0) {
        mState = std::string("not held (") + kDmaLatencyDevice + ": " + std::strerror(errno) + ")";
        return;
    }
    const int32_t zeroUs = 0;
    if (write(mFd, &zeroUs, sizeof(zeroUs)) != sizeof(zeroUs)) {
        mState = std::string("not held (write: ") + std::strerror(errno) + ")";
        close(mFd);
        mFd = -1;
        return;
    }
    mState = "0 us held";
}

DmaLatencyHold::~DmaLatencyHold() {
    if (mFd >= 0) close(mFd);
}

void requestAffinity(const std::string& cpus) {
    // Without -a, a CPU list from the properties file stays in force.
    if (!cpus.empty()) tavrel::host::property_set(kAffinityKey, cpus.c_str());
}

std::string tryThreadSettings(const Options& options) {
    std::string refused;
    std::thread probe([&options, &refused] {
        if (options.schedGiven) {
            const int result = NSCam::Thread::setThreadPriority(NSCam::Thread::getThisThread(),
                                                                options.priority, options.policy);
            if (result != 0) {
                refused = std::string("cannot run the monitor thread at policy ") +
                          policyName(options.policy) + " priority " +
                          std::to_string(options.priority) + ": " + errorText(result) +
                          " (needs CAP_SYS_NICE or a high enough RLIMIT_RTPRIO or RLIMIT_NICE)";
                return;
            }
        }
        if (options.cpus.empty()) return;
        const int result = zelcam_perfctrl_set_affinity();
        if (result != 0) {
            refused =
                "cannot pin the monitor thread to CPUs " + options.cpus + ": " + errorText(result);
        }
    });
    probe.join();
    return refused;
}

}  // namespace tavrel::timerlat
