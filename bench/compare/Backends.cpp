#include "Backend.h"

namespace tavrel::bench {

const std::vector<Backend>& allBackends() {
    static const std::vector<Backend> kBackends = {
        {"raw", startRawEpoll}, {"monitor", startEpollMonitor}, {"libevent", startLibevent},
        {"libev", startLibev},  {"libuv", startLibuv},
    };
    return kBackends;
}

}  // namespace tavrel::bench
