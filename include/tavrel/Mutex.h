// A mutex the compiler can reason about: Clang's -Wthread-safety checks that members
// marked TAVREL_GUARDED_BY are only touched with their mutex held. The monitor and the
// Timer lock with it.
#pragma once

#include <mutex>

#if defined(__clang__)
#define TAVREL_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define TAVREL_THREAD_ANNOTATION(x)
#endif

#define TAVREL_CAPABILITY(x) TAVREL_THREAD_ANNOTATION(capability(x))
#define TAVREL_SCOPED_CAPABILITY TAVREL_THREAD_ANNOTATION(scoped_lockable)
#define TAVREL_GUARDED_BY(x) TAVREL_THREAD_ANNOTATION(guarded_by(x))
#define TAVREL_REQUIRES(...) TAVREL_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define TAVREL_EXCLUDES(...) TAVREL_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define TAVREL_ACQUIRE(...) TAVREL_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define TAVREL_RELEASE(...) TAVREL_THREAD_ANNOTATION(release_capability(__VA_ARGS__))

namespace NSCam::NSTavrel {

class TAVREL_CAPABILITY("mutex") Mutex {
public:
    void lock() TAVREL_ACQUIRE() { mMutex.lock(); }
    void unlock() TAVREL_RELEASE() { mMutex.unlock(); }

private:
    std::mutex mMutex;  // the real lock; this class only adds the annotations
};

class TAVREL_SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) TAVREL_ACQUIRE(mutex) : mMutex(mutex) { mMutex.lock(); }
    ~MutexLock() TAVREL_RELEASE() { mMutex.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& mMutex;  // held for this object's lifetime
};

}  // namespace NSCam::NSTavrel
