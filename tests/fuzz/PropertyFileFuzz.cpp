// The properties file: any content loads without fault, and each value it sets passes
// every value parser.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <map>
#include <string>

#include "PropertyFile.h"
#include "PropertyValue.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // One file in memory, rewritten for each input and read by its name as the store reads.
    static const int fd = memfd_create("properties", 0);
    static const std::string path = "/proc/self/fd/" + std::to_string(fd);
    if (ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) abort();
    std::map<std::string, std::string> values;
    tavrel::host::loadPropertyFile(path.c_str(), &values);
    for (const auto& [key, value] : values) {
        int64_t number = 0;
        uint64_t mask = 0;
        tavrel::host::parseInteger(value.c_str(), std::numeric_limits<int64_t>::min(),
                                   std::numeric_limits<int64_t>::max(), &number);
        tavrel::host::parseMask(value.c_str(), &mask);
        tavrel::host::parseBool(value.c_str());
    }
    return 0;
}
