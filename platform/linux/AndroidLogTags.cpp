// logcat's filter rules on the host's Android log. Debian's liblog ignores ANDROID_LOG_TAGS;
// the layer's own Android-log logger (AndroidLogOutput.cpp) asks these rules about every line.
#include "tavrel/platform/AndroidLogTags.h"

#include <android/log.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

#include "AndroidLogOutput.h"

namespace tavrel::host {
namespace {

constexpr const char* kReportPrefix = "tavrel-log";
// What logcat takes as the space between two rules.
constexpr const char* kRuleSeparators = " \t,";
constexpr const char* kEveryTag = "*";

struct Rule {
    std::string tag;  // a tag, or kEveryTag
    int priority;     // the lowest Android priority shown for it
};

struct Filter {
    std::shared_mutex lock;                     // writers replace the rules
    std::vector<Rule> rules;                    // in the order given; the last one for a tag wins
    int defaultPriority = ANDROID_LOG_VERBOSE;  // for tags no rule names
};

// Never destroyed: threads may log while the process exits.
Filter& filter() {
    static Filter* const sFilter = new Filter;
    return *sFilter;
}

// logcat's level letters, in either case; ANDROID_LOG_UNKNOWN for anything else.
int priorityOf(char letter) {
    switch (std::tolower(static_cast<unsigned char>(letter))) {
        case 'v':
            return ANDROID_LOG_VERBOSE;
        case 'd':
            return ANDROID_LOG_DEBUG;
        case 'i':
            return ANDROID_LOG_INFO;
        case 'w':
            return ANDROID_LOG_WARN;
        case 'e':
            return ANDROID_LOG_ERROR;
        case 'f':
            return ANDROID_LOG_FATAL;
        case 's':
            return ANDROID_LOG_SILENT;
        default:
            return ANDROID_LOG_UNKNOWN;
    }
}

// "tag", "tag:L", "*" or "*:L". False when malformed.
bool parseRule(const std::string& text, Rule* rule) {
    const size_t colon = text.find(':');
    rule->tag = text.substr(0, colon);
    if (rule->tag.empty()) return false;
    if (colon == std::string::npos) {
        // As logcat has it: a tag alone shows all of it, a '*' alone debug and above.
        rule->priority = rule->tag == kEveryTag ? ANDROID_LOG_DEBUG : ANDROID_LOG_VERBOSE;
        return true;
    }
    if (text.size() != colon + 2) return false;
    rule->priority = priorityOf(text[colon + 1]);
    return rule->priority != ANDROID_LOG_UNKNOWN;
}

// The lowest priority shown for `tag`: its last rule's, else the last '*' rule's, else all.
int thresholdOf(const Filter& f, const char* tag) {
    const auto named = std::find_if(f.rules.rbegin(), f.rules.rend(),
                                    [tag](const Rule& rule) { return rule.tag == tag; });
    return named != f.rules.rend() ? named->priority : f.defaultPriority;
}

// The variable's rules apply from the start, before other libraries' initialisers log.
__attribute__((constructor(101))) void applyAndroidLogTags() {
    const char* tags = std::getenv(kAndroidLogTagsEnv);
    if (tags != nullptr && tags[0] != '\0') setAndroidLogTags(tags);
}

}  // namespace

bool androidLogTagsShow(int priority, const char* tag) {
    Filter& f = filter();
    std::shared_lock<std::shared_mutex> guard(f.lock);
    return std::max(priority, static_cast<int>(ANDROID_LOG_VERBOSE)) >= thresholdOf(f, tag);
}

void setAndroidLogTags(const char* tags) {
    const std::string text = tags != nullptr ? tags : "";
    std::vector<Rule> rules;
    int defaultPriority = ANDROID_LOG_VERBOSE;
    for (size_t start = 0; start < text.size();) {
        const size_t end = std::min(text.find_first_of(kRuleSeparators, start), text.size());
        const std::string word = text.substr(start, end - start);
        start = end + 1;
        if (word.empty()) continue;
        Rule rule;
        if (!parseRule(word, &rule)) {
            std::fprintf(stderr,
                         "%s: %s rule '%s' left out (expected tag:level or *:level, with a "
                         "level of V, D, I, W, E, F or S)\n",
                         kReportPrefix, kAndroidLogTagsEnv, word.c_str());
            continue;
        }
        if (rule.tag == kEveryTag) defaultPriority = rule.priority;
        rules.push_back(std::move(rule));
    }
    Filter& f = filter();
    std::unique_lock<std::shared_mutex> guard(f.lock);
    f.rules = std::move(rules);
    f.defaultPriority = defaultPriority;
}

}  // namespace tavrel::host
