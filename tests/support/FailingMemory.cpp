#include "tests/support/FailingMemory.h"

#include <cstdlib>
#include <new>

namespace {

thread_local int successesLeft = -1; // -1: no allocation fails

} // namespace

FailingMemory::FailingMemory(int successes) {
    successesLeft = successes;
}

FailingMemory::~FailingMemory() {
    successesLeft = -1;
}

bool FailingMemory::hasFailed() const {
    return successesLeft < 0;
}

void* operator new(std::size_t size) {
    if (successesLeft >= 0 && successesLeft-- == 0) {
        throw std::bad_alloc();
    }
    if (void* block = std::malloc(size == 0 ? 1 : size)) {
        return block;
    }
    throw std::bad_alloc();
}

void operator delete(void* block) noexcept {
    std::free(block);
}

void operator delete(void* block, std::size_t /*size*/) noexcept {
    std::free(block);
}
