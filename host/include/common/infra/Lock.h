#pragma once

#include "common/infra/Export.h"

#include <mutex>

// Locks that clang checks (-Wthread-safety); another compiler sees the standard ones alone. To use
// them, replace std::mutex and std::unique_lock or std::lock_guard by the two classes below, mark
// each guarded member and each function that is called with the mutex held, and build the `clang`
// preset:
//
//     void push(int value) ANALYTICS_REQUIRES(m_mutex); // the caller holds the mutex
//
//     CheckedMutex m_mutex;
//     std::vector<int> m_values ANALYTICS_GUARDED_BY(m_mutex);
#ifdef __clang__
#define ANALYTICS_LOCK_ATTRIBUTE(...) __attribute__((__VA_ARGS__))
#else
#define ANALYTICS_LOCK_ATTRIBUTE(...)
#endif

#define ANALYTICS_GUARDED_BY(mutex) ANALYTICS_LOCK_ATTRIBUTE(guarded_by(mutex))
#define ANALYTICS_REQUIRES(mutex) ANALYTICS_LOCK_ATTRIBUTE(requires_capability(mutex))
// For what the analysis cannot follow, such as a function that leaves with a mutex held.
#define ANALYTICS_UNCHECKED_LOCKS ANALYTICS_LOCK_ATTRIBUTE(no_thread_safety_analysis)

class ANALYTICS_TAG ANALYTICS_LOCK_ATTRIBUTE(capability("mutex")) CheckedMutex : public std::mutex {
public:
    void lock() ANALYTICS_LOCK_ATTRIBUTE(acquire_capability()) ANALYTICS_UNCHECKED_LOCKS {
        std::mutex::lock();
    }
    void unlock() ANALYTICS_LOCK_ATTRIBUTE(release_capability()) ANALYTICS_UNCHECKED_LOCKS {
        std::mutex::unlock();
    }
    // Tells the compiler that this thread holds the mutex, where the code does not show it.
    void assumeHeld() const ANALYTICS_LOCK_ATTRIBUTE(assert_capability(this)) {}
};

// Holds a mutex until its end or its unlock(). A std::condition_variable can wait with it.
class ANALYTICS_TAG ANALYTICS_LOCK_ATTRIBUTE(scoped_lockable) CheckedLock
    : public std::unique_lock<std::mutex> {
public:
    explicit CheckedLock(CheckedMutex& mutex) ANALYTICS_LOCK_ATTRIBUTE(acquire_capability(mutex))
        : std::unique_lock<std::mutex>(mutex) {}
    ~CheckedLock() ANALYTICS_LOCK_ATTRIBUTE(release_capability()) = default;
    CheckedLock(const CheckedLock&) = delete;
    CheckedLock& operator=(const CheckedLock&) = delete;

    void unlock() ANALYTICS_LOCK_ATTRIBUTE(release_capability()) ANALYTICS_UNCHECKED_LOCKS {
        std::unique_lock<std::mutex>::unlock();
    }
};
