#pragma once

#include "common/infra/Export.h"
#include "common/infra/Mutex.h"

#include <atomic>

// The process-wide instance of a service, reached through its interface I and created on first use
// as a T. Services are asked for on every use and never cached, so that a host can install its own.
//
//     Singleton<ITimer, Timer>::instance()->getTimestampMs();
//
// There is one instance for each pair in the whole process, also across shared objects: the
// template and the types of a pair must have default visibility, and an executable that loads
// plugins must export its symbols (ENABLE_EXPORTS in CMake, -rdynamic). (g++ marks the statics as
// unique in the process, so this holds even for objects loaded with RTLD_LOCAL; with clang++ the
// pair must then also be used by the executable or by a library that is loaded globally.)
//
// Every operation may be called from any thread, before main() and after it: an instance is never
// destroyed, nor is the mutex that guards its creation.
template <typename I, typename T>
class ANALYTICS_EXPORT Singleton {
public:
    // The instance, created if there is none yet; never null. Throws what T's constructor throws
    // and leaves the singleton empty then. T's constructor must not ask for its own pair.
    static I* instance() {
        if (I* existing = singleInstance.load(std::memory_order_acquire)) {
            return existing;
        }
        return create();
    }

    // The current instance, or null; never creates one.
    static I* getInstance() { return singleInstance.load(std::memory_order_acquire); }

    // Installs the given instance and returns the previous one; null empties the singleton again.
    // Deletes nothing: both stay with the caller.
    static I* setInstance(I* instance) {
        Guard guard(m_singletonMutex.mutex);
        return singleInstance.exchange(instance, std::memory_order_acq_rel);
    }

protected:
    Singleton() = default;
    ~Singleton() = default;

private:
    // Out of the way, so that instance() inlines to one load and one test.
    __attribute__((noinline, cold)) static I* create() {
        Guard guard(m_singletonMutex.mutex);
        I* current = singleInstance.load(std::memory_order_relaxed);
        if (current == nullptr) {
            current = new T();
            singleInstance.store(current, std::memory_order_release);
        }
        return current;
    }

    inline static std::atomic<I*> singleInstance{nullptr};

    // Constant-initialised, and left alone when the process exits.
    union CreationMutex {
        constexpr CreationMutex() : mutex() {}
        ~CreationMutex() {} // NOLINT(modernize-use-equals-default): the default one is deleted

        Mutex mutex;
    };
    inline static CreationMutex m_singletonMutex;
};
