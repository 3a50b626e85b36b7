#include "host/services/ThreadLane.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <future>
#include <thread>

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

TEST(ThreadLaneTest, IsGivenBackThoughItWasTakenInAThreadsLastDestructors) {
    pthread_key_t key{};
    ASSERT_EQ(pthread_key_create(&key, [](void*) { ThreadLane::mine(); }), 0);
    for (unsigned int i = 0; i < 2 * ThreadLane::count; ++i) {
        std::thread([&] { EXPECT_EQ(pthread_setspecific(key, &key), 0); }).join();
    }
    EXPECT_LT(std::async(std::launch::async, ThreadLane::mine).get(), ThreadLane::count);
    pthread_key_delete(key);
}

} // namespace
