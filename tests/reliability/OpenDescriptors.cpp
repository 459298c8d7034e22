#include "OpenDescriptors.h"

#include <dirent.h>
#include <limits.h>
#include <unistd.h>

#include <cstdlib>

namespace tavrel::test {

DescriptorTable openDescriptors() {
    DescriptorTable table;
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) return table;
    const int own = dirfd(dir);
    while (const dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') continue;
        const int fd = std::atoi(entry->d_name);
        if (fd == own) continue;
        char target[PATH_MAX] = {};
        const std::string path = std::string("/proc/self/fd/") + entry->d_name;
        const ssize_t length = readlink(path.c_str(), target, sizeof(target) - 1);
        table[fd] =
            length < 0 ? std::string("?") : std::string(target, static_cast<size_t>(length));
    }
    closedir(dir);
    return table;
}

int descriptorDifference(const DescriptorTable& before, const DescriptorTable& after) {
    int differences = 0;
    for (const auto& [fd, target] : after) {
        const auto found = before.find(fd);
        if (found == before.end() || found->second != target) ++differences;
    }
    for (const auto& entry : before) differences += after.count(entry.first) == 0 ? 1 : 0;
    return differences;
}

}  // namespace tavrel::test
