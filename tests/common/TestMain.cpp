// Shared entry point of the test programs: ownership errors are fatal, and death tests
// re-run the program rather than fork a copy of a threaded process.
#include <gtest/gtest.h>

#include "tavrel/platform/Fdsan.h"

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    tavrel::host::setFdsanReaction(tavrel::host::FdsanReaction::kFatal);
    return RUN_ALL_TESTS();
}
