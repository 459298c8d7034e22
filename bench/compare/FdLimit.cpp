#include "FdLimit.h"

#include <sys/resource.h>

namespace tavrel::bench {

FdLimit raiseFdLimit(size_t wanted) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur < wanted) {
        rlimit raised{wanted, limit.rlim_max < wanted ? wanted : limit.rlim_max};
        if (setrlimit(RLIMIT_NOFILE, &raised) != 0) {
            raised = {limit.rlim_max, limit.rlim_max};
            setrlimit(RLIMIT_NOFILE, &raised);
        }
        getrlimit(RLIMIT_NOFILE, &limit);
    }
    return {static_cast<size_t>(limit.rlim_cur), static_cast<size_t>(limit.rlim_max)};
}

}  // namespace tavrel::bench
