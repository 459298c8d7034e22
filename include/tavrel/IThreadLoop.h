// The body of a thread that an outside thread driver runs.
#pragma once

#include <cstdint>
#include <string>

#include "tavrel/Export.h"

namespace NSCam::NSTavrel {

class TAVREL_SYS_API IThreadLoop {
public:
    // Given by the thread driver once, before the first threadLoop().
    struct ReadyToRun {
        static constexpr int32_t kNotGiven = INT32_MIN;

        std::string threadName;        // empty: use the loop's own name
        int32_t policy = kNotGiven;    // scheduling policy, or kNotGiven
        int32_t priority = kNotGiven;  // scheduling priority, or kNotGiven
    };

    // Does nothing. Defined in the library, so that the interface's type information
    // and table exist once, there, whatever the compiler inlines.
    virtual ~IThreadLoop();

    // Any thread. Asks the loop to end and wakes it.
    virtual void requestExit() = 0;

    // Loop thread, once, before threadLoop(). Returns 0 on success.
    virtual int readyToRun(ReadyToRun const& ready) = 0;
    // Kept for the stack: nothing calls it and nothing overrides it; it holds its slot in
    // the interface's table.
    virtual int readyToRun(std::string const& /*threadName*/) { return 0; }

    // Loop thread. Returns true to be called again, false when the loop has ended.
    virtual bool threadLoop() = 0;
};

}  // namespace NSCam::NSTavrel
