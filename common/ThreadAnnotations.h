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

namespace probemond {

class PM_CAPABILITY("mutex") Mutex {
public:
    void lock() PM_ACQUIRE() { m_.lock(); }
    void unlock() PM_RELEASE() { m_.unlock(); }

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

// A mutex that one path may leave locked for good, on purpose. A std::mutex
// still owned when its thread ends is undefined behaviour; a POSIX mutex with
// default attributes just stays locked, and whoever takes it next waits for
// ever. Only an AbandonableLock takes it.
class PM_CAPABILITY("mutex") AbandonableMutex {
public:
    AbandonableMutex() { pthread_mutex_init(&m_, nullptr); }
    ~AbandonableMutex() { pthread_mutex_destroy(&m_); }
    AbandonableMutex(const AbandonableMutex&) = delete;
    AbandonableMutex& operator=(const AbandonableMutex&) = delete;

private:
    friend class AbandonableLock;
    void lock() PM_ACQUIRE() { pthread_mutex_lock(&m_); }
    void unlock() PM_RELEASE() { pthread_mutex_unlock(&m_); }

    pthread_mutex_t m_;
};

class PM_SCOPED_CAPABILITY AbandonableLock {
public:
    explicit AbandonableLock(AbandonableMutex& m) PM_ACQUIRE(m) : m_(&m) { m.lock(); }
    ~AbandonableLock() PM_RELEASE() {
        if (m_ != nullptr) m_->unlock();
    }
    AbandonableLock(const AbandonableLock&) = delete;
    AbandonableLock& operator=(const AbandonableLock&) = delete;

    // The scope ends with the mutex still locked, and nothing ever unlocks it.
    void keepHeldForever() PM_RELEASE() { m_ = nullptr; }

private:
    AbandonableMutex* m_;
};

}  // namespace probemond
