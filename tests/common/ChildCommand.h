// How a test starts a program of this build: this test program again, or a tool built
// beside it. A cross build runs its tests under an emulator (CMake's
// CMAKE_CROSSCOMPILING_EMULATOR, here qemu user-mode), and a program a test starts must go
// through it too: without a binfmt_misc handler the host kernel refuses to run it
// (ENOEXEC). CTest hands the emulator's command to the tests in TAVREL_TEST_EMULATOR.
#pragma once

#include <string>
#include <vector>

namespace tavrel::test {

// The emulator's command, one word per element, or nothing when the tests run natively.
std::vector<std::string> emulatorCommand();

// The command line that runs `program` with `arguments`: the emulator's words first when
// there is one. Its first element is the file to execute.
std::vector<std::string> commandFor(const std::string& program,
                                    const std::vector<std::string>& arguments = {});

// The path of this test program, or an empty text when it cannot be read. Read through
// readlink() because executing /proc/self/exe itself would start the wrong program under
// valgrind (its tool) and qemu (the emulator), while both answer readlink() with the
// program they run.
std::string selfExecutable();

}  // namespace tavrel::test
