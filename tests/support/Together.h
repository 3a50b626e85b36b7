#pragma once

#include "tests/support/Test.h"

// Starts so many threads, which call the function at the same time as far as there are processors.
// Clearing the result waits for their end.
inline std::vector<std::future<void>> startTogether(unsigned int count,
                                                    const std::function<void()>& function) {
    const auto waiting = std::make_shared<std::atomic<unsigned int>>(count);
    std::vector<std::future<void>> threads(count);
    for (auto& thread : threads) {
        thread = std::async(std::launch::async, [function, waiting] {
            for (--*waiting; *waiting > 0;) {
                std::this_thread::yield();
            }
            function();
        });
    }
    return threads;
}
