#include "common/infra/MemShield.h"

#include <new>

// This service does not track its memory.
bool MemShield::bMemshieldActive = false;

MemShield::MemShield() = default;

bool MemShield::isMemshieldActive() {
    return bMemshieldActive;
}

void* MemShield::allocAndRegister(unsigned long size, unsigned long, const char*, const char*,
                                  unsigned int) {
    return ::operator new(size);
}

void MemShield::verifyPtr(void*, const char*, unsigned int) {}

void MemShield::freeAndUnregister(void* block, const char*, unsigned int) {
    ::operator delete(block);
}

void MemShield::freeAndCount(void* block) {
    ::operator delete(block);
}
