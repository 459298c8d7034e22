#include "PropertyValue.h"

#include <cstring>
#include <initializer_list>
#include <limits>

namespace tavrel::host {
namespace {

constexpr uint64_t kDecimalBase = 10;
constexpr uint64_t kHexBase = 16;
constexpr int kNotADigit = -1;

int digitValue(char c, uint64_t base) {
    int value = kNotADigit;
    if (c >= '0' && c <= '9') value = c - '0';
    if (c >= 'a' && c <= 'f') value = c - 'a' + 10;
    if (c >= 'A' && c <= 'F') value = c - 'A' + 10;
    if (value >= static_cast<int>(base)) return kNotADigit;
    return value;
}

// Reads the digits of `text` (with an optional 0x prefix) as an unsigned magnitude.
// False on no digits, a stray character or a magnitude beyond 64 bits.
bool parseMagnitude(const char* text, uint64_t* out) {
    uint64_t base = kDecimalBase;
    if (text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = kHexBase;
        text += 2;
    }
    if (*text == '\0') return false;
    uint64_t value = 0;
    for (; *text != '\0'; ++text) {
        const int digit = digitValue(*text, base);
        if (digit == kNotADigit) return false;
        const uint64_t limit = std::numeric_limits<uint64_t>::max();
        if (value > (limit - static_cast<uint64_t>(digit)) / base) return false;
        value = value * base + static_cast<uint64_t>(digit);
    }
    *out = value;
    return true;
}

}  // namespace

bool parseInteger(const char* text, int64_t min, int64_t max, int64_t* out) {
    if (text == nullptr) return false;
    const bool negative = text[0] == '-';
    if (text[0] == '-' || text[0] == '+') ++text;
    uint64_t magnitude = 0;
    if (!parseMagnitude(text, &magnitude)) return false;
    // Bounds of int64 itself, checked before converting so that nothing overflows.
    const uint64_t int64Limit = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
    if (magnitude > int64Limit + (negative ? 1 : 0)) return false;
    const int64_t value =
        negative ? static_cast<int64_t>(uint64_t{0} - magnitude) : static_cast<int64_t>(magnitude);
    if (value < min || value > max) return false;
    *out = value;
    return true;
}

bool parseMask(const char* text, uint64_t* out) {
    if (text == nullptr) return false;
    return parseMagnitude(text, out);
}

int parseBool(const char* text) {
    if (text == nullptr) return -1;
    for (const char* word : {"1", "y", "yes", "on", "true"}) {
        if (std::strcmp(text, word) == 0) return 1;
    }
    for (const char* word : {"0", "n", "no", "off", "false"}) {
        if (std::strcmp(text, word) == 0) return 0;
    }
    return -1;
}

}  // namespace tavrel::host
