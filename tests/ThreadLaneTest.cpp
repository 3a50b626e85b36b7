#include "host/services/ThreadLane.h"

#include <gtest/gtest.h>

#include <future>

namespace {

TEST(ThreadLaneTest, IsOneThreadsUntilItEnds) {
    const unsigned int mine = ThreadLane::mine();
    EXPECT_LT(mine, ThreadLane::count);
    for (unsigned int i = 0; i < 2 * ThreadLane::count; ++i) {
        const unsigned int others = std::async(std::launch::async, ThreadLane::mine).get();
        EXPECT_LT(others, ThreadLane::count);
        EXPECT_NE(others, mine);
    }
    EXPECT_EQ(ThreadLane::mine(), mine);
}

} // namespace
