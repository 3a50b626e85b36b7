#pragma once

#include "common/infra/Export.h"

#include <mutex>

// A mutex behind an interface. The destructor comes after the operations: the slot order is part of
// the interface.
class ANALYTICS_EXPORT IMutex {
public:
    // Acquires the mutex, blocking. Throws std::system_error if the lock fails.
    virtual void get() = 0;
    // Releases the mutex, which the calling thread must hold.
    virtual void give() = 0;
    virtual ~IMutex() = default;
};

// A standard, non-recursive mutex.
class ANALYTICS_EXPORT Mutex : public IMutex {
public:
    constexpr Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void get() override { m_handle.lock(); }
    void give() override { m_handle.unlock(); }

private:
    std::mutex m_handle;
};

// Holds a mutex for the lifetime of a scope, however the scope is left.
class ANALYTICS_EXPORT Guard {
public:
    Guard(IMutex& mutex) : m_mutex(mutex) { m_mutex.get(); }
    ~Guard() { m_mutex.give(); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

private:
    IMutex& m_mutex;
};
