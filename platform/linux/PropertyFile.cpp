#include "PropertyFile.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "PropertyReport.h"

namespace tavrel::host {
namespace {

constexpr const char* kReportPrefix = "tavrel-properties";
constexpr std::string_view kBlanks = " \t\r\n\f\v";

std::string_view trim(std::string_view text) {
    const size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) return {};
    const size_t last = text.find_last_not_of(kBlanks);
    return text.substr(first, last - first + 1);
}

// Applies one line, setting `key` to the key it sets; returns the reason it was rejected,
// or null when it was taken or carries nothing.
const char* applyLine(std::string_view line, std::map<std::string, std::string>* into,
                      std::string* key) {
    const std::string_view content = trim(line);
    if (content.empty() || content.front() == '#') return nullptr;
    const size_t equals = content.find('=');
    if (equals == std::string_view::npos) return "no '='";
    *key = trim(content.substr(0, equals));
    if (key->empty()) return "empty key";
    (*into)[*key] = std::string(trim(content.substr(equals + 1)));
    return nullptr;
}

}  // namespace

void loadPropertyFile(const char* path, std::map<std::string, std::string>* into) {
    FILE* file = std::fopen(path, "re");
    if (file == nullptr) {
        std::fprintf(stderr, "%s: cannot open %s: %s\n", kReportPrefix, path, std::strerror(errno));
        return;
    }
    char* line = nullptr;
    size_t capacity = 0;
    int lineNumber = 0;
    for (ssize_t length; (length = getline(&line, &capacity, file)) >= 0;) {
        ++lineNumber;
        std::string key;
        const char* reason =
            applyLine(std::string_view(line, static_cast<size_t>(length)), into, &key);
        if (reason == nullptr) {
            checkHostKey(key.c_str(),
                         (std::string(path) + ":" + std::to_string(lineNumber) + ": ").c_str());
            continue;
        }
        std::fprintf(stderr, "%s: %s:%d: malformed line skipped (%s)\n", kReportPrefix, path,
                     lineNumber, reason);
    }
    std::free(line);
    std::fclose(file);
}

}  // namespace tavrel::host
