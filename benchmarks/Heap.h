#pragma once

#include "common/infra/Defs.h"

// The heap blocks that the calling thread has taken so far: with operator new, and from the memory
// ledger, which takes them from malloc.
u64 heapBlocksTaken();
