// Sends this process's stderr (where the host's Android log writes) to a temporary file
// while alive; lines() gives what was written so far.
#pragma once

#include <string>
#include <vector>

#include "tavrel/platform/UniqueFd.h"

namespace tavrel::test {

class StderrCapture {
public:
    StderrCapture();
    ~StderrCapture();
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;

    std::vector<std::string> lines() const;

private:
    host::UniqueFd mSaved;  // the real stderr, put back at the end
    host::UniqueFd mFile;   // the unlinked file stderr writes to meanwhile
};

}  // namespace tavrel::test
