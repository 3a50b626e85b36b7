#pragma once

// Makes one allocation by `new` fail: of those that the calling thread makes while the object
// lives, the one after `successes` others. A program that links this gets its operator new from it.
class FailingMemory {
public:
    explicit FailingMemory(int successes);
    ~FailingMemory();
    FailingMemory(const FailingMemory&) = delete;
    FailingMemory& operator=(const FailingMemory&) = delete;

    bool hasFailed() const;
};
