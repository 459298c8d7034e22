// ANDROID_LOG_TAGS: any expression is taken without fault, and lines then pass its filter.
#include <android/log.h>

#include <cstdint>
#include <string>

#include "tavrel/platform/AndroidLogTags.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string tags(reinterpret_cast<const char*>(data), size);
    tavrel::host::setAndroidLogTags(tags.c_str());
    __android_log_write(ANDROID_LOG_INFO, "fuzz", "a line under a fixed tag");
    // The expression's own text as a tag, so that rules naming it match.
    __android_log_write(ANDROID_LOG_WARN, tags.c_str(), "a line under the input's tag");
    return 0;
}
