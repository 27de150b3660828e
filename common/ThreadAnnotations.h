// Clang thread-safety attributes and the lock types that carry them; other
// compilers see plain locks. Prefixed so they never clash with libutils'
// own GUARDED_BY and friends.
#pragma once

#include <pthread.h>

#include <mutex>

#if defined(__clang__)
#define PM_TSA(x) __attribute__((x))
#else
#define PM_TSA(x)
#endif

#define PM_CAPABILITY(x) PM_TSA(capability(x))
#define PM_SCOPED_CAPABILITY PM_TSA(scoped_lockable)
#define PM_GUARDED_BY(x) PM_TSA(guarded_by(x))
#define PM_REQUIRES(...) PM_TSA(requires_capability(__VA_ARGS__))
#define PM_EXCLUDES(...) PM_TSA(locks_excluded(__VA_ARGS__))
#define PM_ACQUIRE(...) PM_TSA(acquire_capability(__VA_ARGS__))
#define PM_RELEASE(...) PM_TSA(release_capability(__VA_ARGS__))
#define PM_TRY_ACQUIRE(...) PM_TSA(try_acquire_capability(__VA_ARGS__))
#define PM_RETURN_CAPABILITY(x) PM_TSA(lock_returned(x))
#define PM_NO_THREAD_SAFETY_ANALYSIS PM_TSA(no_thread_safety_analysis)

namespace probemond {

class PM_CAPABILITY("mutex") Mutex {
public:
    void lock() PM_ACQUIRE() { m_.lock(); }
    void unlock() PM_RELEASE() { m_.unlock(); }
    bool try_lock() PM_TRY_ACQUIRE(true) { return m_.try_lock(); }
    // Leaves the mutex locked for good while the analysis sees it released,
    // so a path that abandons it on purpose reads as intended.
    void keepHeldForever() PM_RELEASE() {}

private:
    std::mutex m_;
};

class PM_SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& m) PM_ACQUIRE(m) : m_(m) { m_.lock(); }
    ~MutexLock() PM_RELEASE() { m_.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& m_;
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
    void keepHeldForever() PM_RELEASE() {}

private:
    pthread_mutex_t m_;
};

}  // namespace probemond
