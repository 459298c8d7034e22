// An eventfd that a loop watches so that the driver thread can end it: the loop's own
// callback for it leaves the loop, which is how each library expects to be stopped.
#pragma once

#include "tavrel/platform/UniqueFd.h"

namespace tavrel::bench {

class StopSignal {
public:
    StopSignal();

    int fd() const { return mFd.get(); }

    // Driver thread: makes fd() readable.
    void raise();

    // Loop thread: clears what raise() wrote.
    void consume();

private:
    host::UniqueFd mFd;
};

}  // namespace tavrel::bench
