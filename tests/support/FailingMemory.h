#pragma once

// How often `new` still succeeds on this thread before it fails once. A program that links this
// gets its operator new from it.
constexpr int unlimitedAllocations = -1;
extern thread_local int allocationsLeft;
