// The process's property store: loaded once from the file named by TAVREL_PROPERTIES,
// then read and changed in memory by any thread.
#include "tavrel/platform/Properties.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "PropertyFile.h"
#include "PropertyReport.h"
#include "PropertyValue.h"

namespace tavrel::host {
namespace {

class PropertyStore {
public:
    PropertyStore() {
        const char* path = std::getenv(kPropertiesFileEnv);
        if (path != nullptr && path[0] != '\0') loadPropertyFile(path, &mValues);
    }

    std::optional<std::string> get(const char* key) const {
        std::lock_guard<std::mutex> lock(mMutex);
        const auto found = mValues.find(key);
        if (found == mValues.end()) return std::nullopt;
        return found->second;
    }

    void set(const char* key, const char* value) {
        std::lock_guard<std::mutex> lock(mMutex);
        if (value == nullptr) {
            mValues.erase(key);
            return;
        }
        mValues[key] = value;
    }

private:
    mutable std::mutex mMutex;                   // guards mValues against concurrent use
    std::map<std::string, std::string> mValues;  // the properties by key
};

// Built on first use, from whatever static initialiser or thread reads first, and never
// destroyed so that threads still logging during exit find it intact.
PropertyStore& store() {
    static PropertyStore* const sStore = new PropertyStore();
    return *sStore;
}

}  // namespace

bool property_get(const char* key, char* out, unsigned long size) {
    if (key == nullptr) return false;
    const std::optional<std::string> value = store().get(key);
    if (!value) return false;
    if (size == 0) return true;
    const size_t copied = std::min<size_t>(value->size(), size - 1);
    std::memcpy(out, value->data(), copied);
    out[copied] = '\0';
    return true;
}

void property_set(const char* key, const char* value) {
    if (key == nullptr) return;
    checkHostKey(key, "");
    store().set(key, value);
}

}  // namespace tavrel::host

namespace NSCam::Utils::Properties {

int32_t property_get_int32(const char* key, int32_t defaultValue) {
    if (key == nullptr) return defaultValue;
    const std::optional<std::string> value = tavrel::host::store().get(key);
    if (!value) return defaultValue;
    int64_t parsed = 0;
    if (!tavrel::host::parseInteger(value->c_str(), std::numeric_limits<int32_t>::min(),
                                    std::numeric_limits<int32_t>::max(), &parsed)) {
        tavrel::host::reportBadValue(key, value->c_str(), tavrel::host::kExpectInt32);
        return defaultValue;
    }
    return static_cast<int32_t>(parsed);
}

int8_t property_get_bool(const char* key, int8_t defaultValue) {
    if (key == nullptr) return defaultValue;
    const std::optional<std::string> value = tavrel::host::store().get(key);
    if (!value) return defaultValue;
    const int parsed = tavrel::host::parseBool(value->c_str());
    if (parsed < 0) {
        tavrel::host::reportBadValue(key, value->c_str(), tavrel::host::kExpectBool);
        return defaultValue;
    }
    return static_cast<int8_t>(parsed);
}

}  // namespace NSCam::Utils::Properties
