// Clang thread-safety attributes and the small lock types that carry them.
// Other compilers see plain locks.
#pragma once

#include <pthread.h>

#include <mutex>

#if defined(__clang__)
#define PROBEMOND_TSA(x) __attribute__((x))
#else
#define PROBEMOND_TSA(x)
#endif

#define PM_CAPABILITY(x) PROBEMOND_TSA(capability(x))
#define PM_SCOPED_CAPABILITY PROBEMOND_TSA(scoped_lockable)
#define PM_GUARDED_BY(x) PROBEMOND_TSA(guarded_by(x))
#define PM_REQUIRES(...) PROBEMOND_TSA(requires_capability(__VA_ARGS__))
#define PM_EXCLUDES(...) PROBEMOND_TSA(locks_excluded(__VA_ARGS__))
#define PM_ACQUIRE(...) PROBEMOND_TSA(acquire_capability(__VA_ARGS__))
#define PM_RELEASE(...) PROBEMOND_TSA(release_capability(__VA_ARGS__))
#define PM_NO_THREAD_SAFETY_ANALYSIS PROBEMOND_TSA(no_thread_safety_analysis)

namespace probemond::ifaces {

// A short private lock (never held across a probe, command, callback or sleep).
class PM_CAPABILITY("mutex") ShortLock {
public:
    void lock() PM_ACQUIRE() { m_.lock(); }
    void unlock() PM_RELEASE() { m_.unlock(); }

private:
    std::mutex m_;
};

class PM_SCOPED_CAPABILITY ShortLockGuard {
public:
    explicit ShortLockGuard(ShortLock& l) PM_ACQUIRE(l) : l_(l) { l_.lock(); }
    ~ShortLockGuard() PM_RELEASE() { l_.unlock(); }
    ShortLockGuard(const ShortLockGuard&) = delete;
    ShortLockGuard& operator=(const ShortLockGuard&) = delete;

private:
    ShortLock& l_;
};

// A POSIX mutex with default attributes. It may stay locked on purpose (see
// keepHeldForever), which a std::mutex would not allow to outlive its owner.
class PM_CAPABILITY("mutex") PosixMutex {
public:
    PosixMutex() { pthread_mutex_init(&m_, nullptr); }
    ~PosixMutex() { pthread_mutex_destroy(&m_); }
    PosixMutex(const PosixMutex&) = delete;
    PosixMutex& operator=(const PosixMutex&) = delete;

    void lock() PM_ACQUIRE() { pthread_mutex_lock(&m_); }
    void unlock() PM_RELEASE() { pthread_mutex_unlock(&m_); }
    // Leaves the mutex locked for good; ends the caller's hold as far as the
    // analysis is concerned, so that paths that abandon it read as intended.
    void keepHeldForever() PM_RELEASE() {}

private:
    pthread_mutex_t m_;
};

}  // namespace probemond::ifaces
