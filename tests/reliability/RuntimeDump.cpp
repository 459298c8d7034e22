#include "RuntimeDump.h"

#include <cctype>
#include <cstdlib>

namespace tavrel::test {

namespace {

// A cursor over the dump text that either matches what is expected or fails for good.
class Reader {
public:
    explicit Reader(const std::string& text) : mText(text) {}

    bool literal(const char* expected) {
        const std::string want(expected);
        if (mText.compare(mPos, want.size(), want) != 0) return false;
        mPos += want.size();
        return true;
    }

    bool number(long* value) {
        size_t end = mPos;
        if (end < mText.size() && mText[end] == '-') ++end;
        const size_t digits = end;
        while (end < mText.size() && std::isdigit(static_cast<unsigned char>(mText[end]))) ++end;
        if (end == digits) return false;
        *value = std::strtol(mText.c_str() + mPos, nullptr, 10);
        mPos = end;
        return true;
    }

    bool pointer(std::string* text) {
        if (mText.compare(mPos, 2, "0x") != 0) return false;
        size_t end = mPos + 2;
        while (end < mText.size() && std::isxdigit(static_cast<unsigned char>(mText[end]))) ++end;
        if (end == mPos + 2) return false;
        *text = mText.substr(mPos, end - mPos);
        mPos = end;
        return true;
    }

    bool peek(const char* expected) const {
        const std::string want(expected);
        return mText.compare(mPos, want.size(), want) == 0;
    }

    size_t position() const { return mPos; }
    bool atEnd() const { return mPos == mText.size(); }

private:
    const std::string& mText;  // the whole dump line
    size_t mPos = 0;           // next character to read
};

bool readAttached(Reader& in, RuntimeDump& dump, std::set<int>& seen) {
    if (!in.literal(" attach=[")) return true;
    bool any = false;
    while (in.literal(" (")) {
        long fd = 0;
        std::string pointer;
        if (!in.number(&fd) || !in.literal(", ") || !in.pointer(&pointer) || !in.literal(")"))
            return false;
        if (!seen.insert(static_cast<int>(fd)).second) return false;
        dump.attached.emplace(static_cast<int>(fd), pointer);
        any = true;
    }
    return any && in.literal(" ]");
}

bool readDetached(Reader& in, RuntimeDump& dump, std::set<int>& seen) {
    if (!in.literal(" detach=[")) return true;
    bool any = false;
    long fd = 0;
    while (!in.peek(" ]") && in.literal(" ") && in.number(&fd)) {
        if (!seen.insert(static_cast<int>(fd)).second) return false;
        dump.detached.insert(static_cast<int>(fd));
        any = true;
    }
    return any && in.literal(" ]");
}

}  // namespace

std::optional<RuntimeDump> parseRuntimeDump(const std::string& text) {
    RuntimeDump dump;
    Reader in(text);
    long attach = 0, detach = 0, active = 0;
    if (!in.literal("{ #attach=") || !in.number(&attach) || !in.literal(" #detach=") ||
        !in.number(&detach) || !in.literal(" .mActive=") || !in.number(&active) ||
        (active != 0 && active != 1) || !in.literal(" .mFdObserverMap="))
        return std::nullopt;
    const size_t mapStart = in.position();
    std::set<int> seen;
    if (!in.literal("{") || !readAttached(in, dump, seen) || !readDetached(in, dump, seen) ||
        !in.literal(" }"))
        return std::nullopt;
    dump.mapText = text.substr(mapStart, in.position() - mapStart);
    if (!in.literal(" }") || !in.atEnd()) return std::nullopt;
    dump.attachCount = static_cast<uint32_t>(attach);
    dump.detachCount = static_cast<uint32_t>(detach);
    dump.active = active == 1;
    return dump;
}

std::string maskPointers(const std::string& text) {
    std::string masked;
    for (size_t i = 0; i < text.size();) {
        if (text.compare(i, 2, "0x") == 0) {
            size_t end = i + 2;
            while (end < text.size() && std::isxdigit(static_cast<unsigned char>(text[end]))) ++end;
            masked += "@P";
            i = end;
            continue;
        }
        masked += text[i++];
    }
    return masked;
}

}  // namespace tavrel::test
