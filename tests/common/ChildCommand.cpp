#include "common/ChildCommand.h"

#include <limits.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>

namespace tavrel::test {

namespace {
// Set by CTest in a build with an emulator; its words are separated by spaces (CMake
// refuses an emulator command whose words contain one).
constexpr const char* kEmulatorVariable = "TAVREL_TEST_EMULATOR";
}  // namespace

std::vector<std::string> emulatorCommand() {
    std::vector<std::string> words;
    const char* text = std::getenv(kEmulatorVariable);
    if (text == nullptr) return words;
    std::istringstream in(text);
    for (std::string word; in >> word;) words.push_back(word);
    return words;
}

std::vector<std::string> commandFor(const std::string& program,
                                    const std::vector<std::string>& arguments) {
    std::vector<std::string> command = emulatorCommand();
    command.push_back(program);
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

std::string selfExecutable() {
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof(path));
    if (length <= 0 || static_cast<size_t>(length) >= sizeof(path)) return {};
    return std::string(path, static_cast<size_t>(length));
}

}  // namespace tavrel::test
