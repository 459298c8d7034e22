// tavrel-timerlat's command line: the input's words, each ending at a NUL or at the input's
// end, follow the program name. Any of them parses without fault, and twice alike.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Options.h"

namespace {

std::string parse(const uint8_t* data, size_t size) {
    std::vector<char> text(data, data + size);
    text.push_back('\0');
    std::vector<char*> argv{const_cast<char*>("tavrel-timerlat")};
    for (size_t i = 0; i < size; i += std::strlen(&text[i]) + 1) argv.push_back(&text[i]);
    argv.push_back(nullptr);
    tavrel::timerlat::Options options;
    std::string error;
    const auto result = tavrel::timerlat::parseOptions(static_cast<int>(argv.size() - 1),
                                                       argv.data(), &options, &error);
    return std::to_string(static_cast<int>(result)) + error;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // A command line parsed before must not change how the next one parses.
    if (parse(data, size) != parse(data, size)) abort();
    return 0;
}
