#include "benchmarks/Heap.h"

#include "host/services/MemLedger.h"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

thread_local u64 taken = 0;

} // namespace

// Replaces that of the whole process, shared objects included. The forms for arrays and those that
// do not throw call this one.
void* operator new(std::size_t size) {
    ++taken;
    if (void* block = std::malloc(size)) {
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

u64 heapBlocksTaken() {
    const u64 withNew = taken;
    const u64 fromLedger = MemLedger::report().allocations;
    taken = withNew; // what the ledger's report itself took does not count
    return withNew + fromLedger;
}
