// Descriptor ownership checks for Linux hosts. The C library has no fdsan, so this file
// keeps its own owner table: one atomic tag per descriptor number, changed only by
// compare-and-swap, in chunks allocated on first use so that the table covers any
// descriptor limit (also one raised while the process runs) and costs memory only up to
// the highest descriptor that was tagged.
//
// Tag layout: the descriptor kind `type` in the top byte (bits 56-63), the owner value in
// the low 56 bits. 0 means "not owned": owner value 0 makes tag 0, as on the device, so a
// descriptor created with it carries no tag and closing with it is a plain close (which
// still meets the reaction when the descriptor is owned by someone).
//
// The C library's close, dup2 and dup3 do not know the table either, so this library
// defines all three in front of them: a program that has this library among its direct
// dependencies finds these first, and a plain close() of an owned descriptor, or a dup2()
// or dup3() onto one, meets the reaction at the moment it happens, as on the device.
// Unowned descriptors go straight to the C library's call. What closes a descriptor
// inside the C library itself (fclose, closedir, close_range, closefrom) or by a raw
// system call is not seen; README.md lists it.
#include "tavrel/platform/Fdsan.h"

#include <android/log.h>
#include <dlfcn.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>

#include "HostKeys.h"
#include "PropertyReport.h"
#include "tavrel/platform/Properties.h"

namespace tavrel::host {

namespace {

constexpr const char* kLogTag = "fdsan";
// Room for the longest reaction name and then some.
constexpr unsigned long kReactionValueSize = 32;
// Room for one error message.
constexpr size_t kMessageSize = 256;

constexpr unsigned kTypeShift = 56;
constexpr uint64_t kOwnerMask = (uint64_t{1} << kTypeShift) - 1;
constexpr uint64_t kTypeMask = 0xff;

// 4096 chunks of 4096 entries: descriptors 0 to 16M-1, beyond any usual fs.nr_open.
// Descriptors past the table are not tracked: closing them is a plain close.
constexpr int kChunkBits = 12;
constexpr int kChunkSize = 1 << kChunkBits;
constexpr int kChunkCount = 4096;
constexpr long kTrackedFds = static_cast<long>(kChunkSize) * kChunkCount;

using Entry = std::atomic<uint64_t>;

// Chunk pointers, each installed once by compare-and-swap and never freed.
std::array<std::atomic<Entry*>, kChunkCount> sChunks{};

// Stored as an int so that "not read yet" can be told apart from the three reactions.
constexpr int kReactionUnread = -1;
std::atomic<int> sReaction{kReactionUnread};

// The entry of `fd`, or null when it is out of range, or (without `create`) when its chunk
// does not exist yet, which means the descriptor carries no tag.
Entry* entryOf(int fd, bool create) {
    if (fd < 0 || fd >= kTrackedFds) return nullptr;
    std::atomic<Entry*>& slot = sChunks[static_cast<size_t>(fd) >> kChunkBits];
    Entry* chunk = slot.load(std::memory_order_acquire);
    if (chunk == nullptr && create) {
        Entry* fresh = new (std::nothrow) Entry[kChunkSize]{};
        if (fresh == nullptr) return nullptr;
        if (slot.compare_exchange_strong(chunk, fresh, std::memory_order_acq_rel)) {
            chunk = fresh;
        } else {
            delete[] fresh;  // another thread installed it first; `chunk` holds that one
        }
    }
    return chunk == nullptr ? nullptr : &chunk[fd & (kChunkSize - 1)];
}

FdsanReaction parseReaction(const char* value) {
    if (strcmp(value, "fatal") == 0) return FdsanReaction::kFatal;
    if (strcmp(value, "off") == 0) return FdsanReaction::kOff;
    if (strcmp(value, "warn_once") != 0)
        reportBadValue(kFdsanKey, value, "fatal, warn_once or off");
    return FdsanReaction::kWarnOnce;
}

FdsanReaction loadReaction() {
    char value[kReactionValueSize]{};
    const FdsanReaction fromProperty = property_get(kFdsanKey, value, sizeof(value))
                                           ? parseReaction(value)
                                           : FdsanReaction::kWarnOnce;
    int expected = kReactionUnread;
    // A reaction set meanwhile by setFdsanReaction() wins over the property.
    sReaction.compare_exchange_strong(expected, static_cast<int>(fromProperty));
    return static_cast<FdsanReaction>(sReaction.load());
}

// The C library's calls that this library's close, dup2 and dup3 stand in front of.
struct LibcCalls {
    int (*close)(int fd);
    int (*dup2)(int oldFd, int newFd);
    int (*dup3)(int oldFd, int newFd, int flags);
};

// The next definition after this library's own, which is the C library's (or that of a
// tool's interceptor loaded after us); the first one in the process when this library
// came after the C library, in which case its own definitions are never called anyway.
template <typename Call>
Call nextCall(const char* name) {
    void* call = dlsym(RTLD_NEXT, name);
    if (call == nullptr) call = dlsym(RTLD_DEFAULT, name);
    return reinterpret_cast<Call>(call);
}

const LibcCalls& libcCalls() {
    static const LibcCalls sCalls{nextCall<decltype(LibcCalls::close)>("close"),
                                  nextCall<decltype(LibcCalls::dup2)>("dup2"),
                                  nextCall<decltype(LibcCalls::dup3)>("dup3")};
    return sCalls;
}

// Looks the calls up at load, so that no close() has to, not even one in a signal handler.
__attribute__((constructor(101))) void lookUpLibcCalls() {
    libcCalls();
}

// Reports an ownership error with the reaction in force. Returns only when it is not
// fatal; warn_once turns the checks off after its one warning, as Android's fdsan does.
__attribute__((format(printf, 1, 2))) void reportError(const char* format, ...) {
    const FdsanReaction reaction = fdsanReaction();
    if (reaction == FdsanReaction::kOff) return;
    char message[kMessageSize];
    va_list args;
    va_start(args, format);
    vsnprintf(message, sizeof(message), format, args);
    va_end(args);
    if (reaction == FdsanReaction::kFatal) __android_log_assert(nullptr, kLogTag, "%s", message);
    int expected = static_cast<int>(FdsanReaction::kWarnOnce);
    if (!sReaction.compare_exchange_strong(expected, static_cast<int>(FdsanReaction::kOff))) {
        return;  // another thread's error took the one warning
    }
    __android_log_write(ANDROID_LOG_WARN, kLogTag, message);
}

}  // namespace

void setFdsanReaction(FdsanReaction reaction) {
    sReaction.store(static_cast<int>(reaction));
}

FdsanReaction fdsanReaction() {
    const int reaction = sReaction.load();
    if (reaction == kReactionUnread) return loadReaction();
    return static_cast<FdsanReaction>(reaction);
}

uint64_t fdsanGetTag(int fd) {
    const Entry* entry = entryOf(fd, false);
    return entry == nullptr ? 0 : entry->load();
}

}  // namespace tavrel::host

using tavrel::host::entryOf;
using tavrel::host::libcCalls;
using tavrel::host::reportError;

namespace {

// Tag type of the plain C library calls, which carry no tag.
constexpr int kUntagged = 0;

// `fd` is about to be closed by a dup2() or dup3() onto it, named by `call`: an owned
// descriptor is an ownership error, and loses its tag when the reaction lets it go on.
void releaseReplaced(int fd, const char* call) {
    tavrel::host::Entry* entry = entryOf(fd, false);
    if (entry == nullptr) return;
    const uint64_t current = entry->load(std::memory_order_relaxed);
    if (current == 0) return;
    reportError("fdsan: attempted to %s onto fd %d but it is owned by 0x%" PRIx64, call, fd,
                current);
    entry->store(0);
}

}  // namespace

extern "C" {

uint64_t zelcam_fdsan_create_tag(unsigned long owner, int type) {
    using namespace tavrel::host;
    if (owner == 0) return 0;
    return (static_cast<uint64_t>(type) & kTypeMask) << kTypeShift |
           (static_cast<uint64_t>(owner) & kOwnerMask);
}

// `type` travels inside the tags; the argument is accepted for the platform's signature.
int zelcam_fdsan_exchange_tag(int fd, uint64_t expectedTag, uint64_t newTag, int /*type*/) {
    tavrel::host::Entry* entry = entryOf(fd, newTag != 0);
    uint64_t current = expectedTag;
    if (entry == nullptr) {
        current = 0;  // untracked descriptors count as unowned
        if (expectedTag == 0) return 0;
    } else if (entry->compare_exchange_strong(current, newTag)) {
        return 0;
    }
    reportError("fdsan: attempted to exchange tag of fd %d from 0x%" PRIx64 " to 0x%" PRIx64
                " but it is owned by 0x%" PRIx64,
                fd, expectedTag, newTag, current);
    return -1;
}

int zelcam_fdsan_close_with_tag(int fd, uint64_t tag, int /*type*/) {
    tavrel::host::Entry* entry = entryOf(fd, false);
    if (entry == nullptr) {
        if (tag != 0) {
            reportError("fdsan: attempted to close fd %d with tag 0x%" PRIx64 " owned by 0x0", fd,
                        tag);
        }
        return libcCalls().close(fd);
    }
    // The entry is cleared before the close: once close() returns, the number may already
    // belong to a new descriptor whose owner must not lose its tag. The C library's close
    // follows directly, since this library's own would only find the entry clear.
    uint64_t current = tag;
    if (!entry->compare_exchange_strong(current, 0)) {
        reportError("fdsan: attempted to close fd %d with tag 0x%" PRIx64 " owned by 0x%" PRIx64,
                    fd, tag, current);
        entry->store(0);
    }
    return libcCalls().close(fd);
}

// A close() without a tag: the same as closing with tag 0, so an owned descriptor meets
// the reaction before it is closed.
TAVREL_PLATFORM_API int close(int fd) {
    const tavrel::host::Entry* entry = entryOf(fd, false);
    if (entry != nullptr && entry->load(std::memory_order_relaxed) != 0) {
        return zelcam_fdsan_close_with_tag(fd, 0, kUntagged);
    }
    return libcCalls().close(fd);
}

// Moving a descriptor onto its own number closes nothing, and neither does dup3's refusal
// of it.
TAVREL_PLATFORM_API int dup2(int oldFd, int newFd) noexcept {
    if (oldFd != newFd) releaseReplaced(newFd, "dup2");
    return libcCalls().dup2(oldFd, newFd);
}

TAVREL_PLATFORM_API int dup3(int oldFd, int newFd, int flags) noexcept {
    if (oldFd != newFd) releaseReplaced(newFd, "dup3");
    return libcCalls().dup3(oldFd, newFd, flags);
}

}  // extern "C"
