#pragma once

#include "tests/support/Test.h"

// How often `new` still succeeds on this thread before it fails once. A program that links this
// gets its operator new from it.
constexpr int unlimitedAllocations = -1;
extern thread_local int allocationsLeft;

// Runs the operation again and again: with its first allocation failing, its second, and so on,
// until all succeed. Checks the state after each failure, and returns how many there were. A
// failure that the operation does not pass on fails the test.
template <typename Operation, typename Check>
int failEachAllocation(Operation operation, Check afterFailure) {
    for (int failures = 0;; ++failures) {
        allocationsLeft = failures;
        try {
            operation();
            EXPECT_GE(std::exchange(allocationsLeft, unlimitedAllocations), 0) << "swallowed";
            return failures;
        } catch (const std::bad_alloc&) {
            allocationsLeft = unlimitedAllocations;
            afterFailure();
        }
    }
}
