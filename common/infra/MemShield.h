#pragma once

#include "common/infra/Export.h"
#include "common/infra/IParcel.h"
#include "common/infra/Singleton.h"

#include <type_traits>

// The host's memory tracker, reached as Singleton<MemShield, MemShield>. This header declares it,
// the host defines it, the switch and the constructor included.
//
// Every operation may be called from any thread, concurrently. `file` is a base name, `line` the
// line of the call site; both texts live as long as the process.
class ANALYTICS_EXPORT MemShield {
public:
    MemShield();
    MemShield(const MemShield&) = delete;
    MemShield& operator=(const MemShield&) = delete;

    // Whether releases are tracked. The base version answers bMemshieldActive.
    virtual bool isMemshieldActive();

    // A block of at least `size` bytes, aligned for std::max_align_t; never null: throws
    // std::bad_alloc. The second argument is reserved and 0.
    virtual void* allocAndRegister(unsigned long size, unsigned long reserved, const char* typeName,
                                   const char* file, unsigned int line);
    // Checks a block that is about to be released, and reports what is wrong with it.
    virtual void verifyPtr(void* block, const char* file, unsigned int line);
    // Releases a block and drops its registration.
    virtual void freeAndUnregister(void* block, const char* file, unsigned int line);
    // Releases a block while tracking is off.
    virtual void freeAndCount(void* block);

    // The process-wide tracking switch.
    static bool bMemshieldActive;

protected:
    ~MemShield() = default;
};

// Destroys an object made by tracked allocation and gives its block back to the tracker. `ptr` is
// not null; it may point to any base of the object that has a virtual destructor. `file` and `line`
// name the call site.
template <typename T>
void internal_delete_helper(T* ptr, const char* file, int line) {
    static_assert(!std::is_same_v<std::remove_cv_t<T>, IParcel>,
                  "a parcel is destroyed as what it is: cast the pointer to its class first");
    static_assert(!std::is_polymorphic_v<T> || std::has_virtual_destructor_v<T> ||
                      std::is_final_v<T>,
                  "the destructor would not be that of the object's class");
    void* block = ptr;
    if constexpr (std::is_polymorphic_v<T>) {
        // The block is the most-derived object, and can only be found while that object lives.
        block = dynamic_cast<void*>(ptr);
    }
    ptr->~T();

    MemShield* memShield = Singleton<MemShield, MemShield>::instance();
    if (memShield->isMemshieldActive()) {
        const auto callLine = static_cast<unsigned int>(line);
        memShield->verifyPtr(block, file, callLine);
        memShield->freeAndUnregister(block, file, callLine);
    } else {
        memShield->freeAndCount(block);
    }
}
