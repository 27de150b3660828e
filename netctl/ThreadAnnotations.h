// Clang thread-safety annotations and a mutex that carries them; other
// compilers see plain code.
#pragma once

#include <mutex>

#if defined(__clang__)
#define NETCTL_TSA(x) __attribute__((x))
#else
#define NETCTL_TSA(x)
#endif

#define NETCTL_CAPABILITY(x) NETCTL_TSA(capability(x))
#define NETCTL_SCOPED_CAPABILITY NETCTL_TSA(scoped_lockable)
#define NETCTL_GUARDED_BY(x) NETCTL_TSA(guarded_by(x))
#define NETCTL_REQUIRES(...) NETCTL_TSA(requires_capability(__VA_ARGS__))
#define NETCTL_EXCLUDES(...) NETCTL_TSA(locks_excluded(__VA_ARGS__))
#define NETCTL_ACQUIRE(...) NETCTL_TSA(acquire_capability(__VA_ARGS__))
#define NETCTL_RELEASE(...) NETCTL_TSA(release_capability(__VA_ARGS__))
#define NETCTL_TRY_ACQUIRE(...) NETCTL_TSA(try_acquire_capability(__VA_ARGS__))
#define NETCTL_NO_THREAD_SAFETY_ANALYSIS NETCTL_TSA(no_thread_safety_analysis)

namespace probemond::netctl {

class NETCTL_CAPABILITY("mutex") Mutex {
public:
    void lock() NETCTL_ACQUIRE() { m_.lock(); }
    void unlock() NETCTL_RELEASE() { m_.unlock(); }
    bool try_lock() NETCTL_TRY_ACQUIRE(true) { return m_.try_lock(); }
    // Leaves the mutex locked for good while the analysis sees it released,
    // so a path that abandons it on purpose reads as intended.
    void abandonLocked() NETCTL_RELEASE() {}

private:
    std::mutex m_;
};

class NETCTL_SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& m) NETCTL_ACQUIRE(m) : m_(m) { m_.lock(); }
    ~MutexLock() NETCTL_RELEASE() { m_.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& m_;
};

}  // namespace probemond::netctl
