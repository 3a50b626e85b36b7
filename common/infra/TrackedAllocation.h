#pragma once

#include "common/infra/Export.h"
#include "common/infra/FileName.h"
#include "common/infra/MemShield.h"

#include <cstddef>
#include <memory>
#include <new>
#include <utility>

// Objects that one part of the program creates and another releases live on blocks of the memory
// tracker. It knows the type of each and the place that created it:
//
//     auto* policy = TRACKED_NEW(FixedFrequencySchedulingPolicy)(3600);
//     TRACKED_DELETE(policy);
//
//     TrackedPtr<AnalyticsParcel> parcel(TRACKED_NEW(AnalyticsParcel)(), TRACKED_DELETE);

// Creates a T on a tracked block. If T's constructor throws, the block is given back the way a
// deletion does it, and the failure passes on.
#define TRACKED_NEW(...)                                                                           \
    (TrackedAllocation<__VA_ARGS__>{#__VA_ARGS__, ANALYTICS_FILE_NAME, __LINE__})

// Destroys an object made by TRACKED_NEW, which must not be null, naming this line to the tracker.
#define TRACKED_DELETE (TrackedDelete{ANALYTICS_FILE_NAME, __LINE__})

// Has no default: each deletion names its place.
class ANALYTICS_TAG TrackedDelete {
public:
    TrackedDelete(const char* file, int line) : m_file(file), m_line(line) {}

    template <typename T>
    void operator()(T* ptr) const {
        internal_delete_helper(ptr, m_file, m_line);
    }

private:
    const char* m_file;
    int m_line;
};

// Owns a tracked object until it is released to its next owner.
template <typename T>
using TrackedPtr = std::unique_ptr<T, TrackedDelete>;

template <typename T>
struct ANALYTICS_TAG TrackedAllocation {
    template <typename... Args>
    T* operator()(Args&&... args) const {
        static_assert(alignof(T) <= alignof(std::max_align_t), "the tracker aligns no further");
        struct Unconstructed {};
        void* block = Singleton<MemShield, MemShield>::instance()->allocAndRegister(
            sizeof(T), 0, typeName, file, static_cast<unsigned int>(line));
        TrackedPtr<Unconstructed> guard(::new (block) Unconstructed, TrackedDelete{file, line});
// A literal such as 5 is no longer a constant here, so compilers would warn of its conversion.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion"
#pragma GCC diagnostic ignored "-Wsign-conversion"
        T* object = ::new (block) T(std::forward<Args>(args)...);
#pragma GCC diagnostic pop
        static_cast<void>(guard.release());
        return object;
    }

    const char* typeName;
    const char* file;
    int line;
};
