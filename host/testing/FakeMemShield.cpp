// The memory tracker's base operations, for a test whose host links none: blocks of the heap, not
// tracked. RecordingMemShield and whatever else derives from MemShield needs them to link.

#include "common/infra/MemShield.h"

#include <new>

bool MemShield::bMemshieldActive = false;

MemShield::MemShield() = default;

bool MemShield::isMemshieldActive() {
    return bMemshieldActive;
}

void* MemShield::allocAndRegister(unsigned long size, unsigned long /*reserved*/,
                                  const char* /*typeName*/, const char* /*file*/,
                                  unsigned int /*line*/) {
    return ::operator new(size);
}

void MemShield::verifyPtr(void* /*block*/, const char* /*file*/, unsigned int /*line*/) {}

void MemShield::freeAndUnregister(void* block, const char* /*file*/, unsigned int /*line*/) {
    ::operator delete(block);
}

void MemShield::freeAndCount(void* block) {
    ::operator delete(block);
}
