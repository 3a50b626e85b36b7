#include "tests/support/FailingMemory.h"

#include <cstdlib>
#include <new>

thread_local int allocationsLeft = unlimitedAllocations;

void* operator new(std::size_t size) {
    const bool fails = allocationsLeft != unlimitedAllocations && allocationsLeft-- == 0;
    void* block = fails ? nullptr : std::malloc(size);
    return block != nullptr ? block : throw std::bad_alloc();
}

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    try {
        return operator new(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void operator delete(void* block) noexcept {
    std::free(block);
}

void operator delete(void* block, std::size_t /*size*/) noexcept {
    std::free(block);
}
