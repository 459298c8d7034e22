// Shared entry point of the test programs: ownership errors are fatal, and death tests fork
// the test process as it stands, so that a child's descriptors and addresses are the ones
// the parent expects in its report. Every death test runs while the process has one thread.
#include <gtest/gtest.h>

#include "tavrel/platform/Fdsan.h"

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    GTEST_FLAG_SET(death_test_style, "fast");
    tavrel::host::setFdsanReaction(tavrel::host::FdsanReaction::kFatal);
    return RUN_ALL_TESTS();
}
