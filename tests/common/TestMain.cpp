// Shared entry point of the test programs: ownership errors are fatal, and death tests
// re-run the program rather than fork a copy of a threaded process.
#include <gtest/gtest.h>

#include "tavrel/platform/Fdsan.h"

// The threadsafe style re-runs the program with execv(), which fails with ENOEXEC for an
// Arm program run through qemu's user-mode emulator (no binfmt_misc handler); a plain
// fork works there, so that build picks "fast" (see tests/CMakeLists.txt).
#ifndef TAVREL_DEATH_TEST_STYLE
#define TAVREL_DEATH_TEST_STYLE "threadsafe"
#endif

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    GTEST_FLAG_SET(death_test_style, TAVREL_DEATH_TEST_STYLE);
    tavrel::host::setFdsanReaction(tavrel::host::FdsanReaction::kFatal);
    return RUN_ALL_TESTS();
}
