#include "common/infra/AIO.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr u32 block = 4096;

// Requests that report back to the test.
class AioTest : public testing::Test {
protected:
    struct Io : AioRequest {
        AioTest* test = nullptr;
        int result = 0;
        u32 resubmits = 0;
        bool isCompleted = false;
    };

    void SetUp() override {
        std::string name = testing::TempDir() + "aio.XXXXXX";
        file = mkostemp(name.data(), O_CLOEXEC);
        ASSERT_GE(file, 0);
        unlink(name.c_str());
        ASSERT_EQ(ftruncate(file, 64 * block), 0);
    }

    void TearDown() override {
        aio.close();
        ::close(file);
    }

    Io makeIo(AioRequest::Operation operation, u64 offset, std::string& buffer) {
        Io io;
        io.operation = operation;
        io.offset = offset;
        io.length = static_cast<u32>(buffer.size());
        io.buffer = buffer.data();
        io.completed = ioCompleted;
        io.test = this;
        return io;
    }

    static void ioCompleted(AioRequest& request, int result) {
        auto& io = static_cast<Io&>(request);
        io.result = result;
        if (io.resubmits > 0) {
            --io.resubmits;
            ASSERT_EQ(io.test->aio.submit(io), RC_SUCCESS);
        }
        AioTest& test = *io.test;
        const std::lock_guard<std::mutex> lock(test.mutex);
        io.isCompleted = true;
        ++test.completions;
        test.changed.notify_all();
    }

    void await(const Io& io) {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return io.isCompleted; });
    }

    void awaitCompletions(u64 count) {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return completions >= count; });
    }

    u64 counted() {
        StorageAnalyticsCounters counters;
        aio.mabeStorageLatencyAnalytics(counters);
        return std::accumulate(std::begin(counters.storageLatency),
                               std::end(counters.storageLatency), u64{0});
    }

    int file = -1;
    AIO aio;
    std::mutex mutex;
    std::condition_variable changed;
    u64 completions = 0;
};

TEST_F(AioTest, ReadsWhatWasWritten) {
    aio.open({file, 4});
    std::string written(block, 'w');
    Io write = makeIo(AioRequest::Write, 3 * block, written);
    ASSERT_EQ(aio.submit(write), RC_SUCCESS);
    awaitCompletions(1);
    EXPECT_EQ(write.result, static_cast<int>(block));

    std::string read(block, ' ');
    Io again = makeIo(AioRequest::Read, 3 * block, read);
    ASSERT_EQ(aio.submit(again), RC_SUCCESS);
    awaitCompletions(2);
    EXPECT_EQ(read, written);
    EXPECT_GT(again.latencyNs, 0U);
    EXPECT_EQ(counted(), 2U);
}

TEST_F(AioTest, AnIoThatIsSeenToCompleteIsInTheCounters) {
    aio.open({file, 8});
    std::string buffer(block, ' ');
    for (u64 round = 1; round <= 200; ++round) {
        Io io = makeIo(AioRequest::NoOp, 0, buffer);
        ASSERT_EQ(aio.submit(io), RC_SUCCESS);
        awaitCompletions(round);
        ASSERT_EQ(counted(), 1U) << "round " << round;
    }
}

TEST_F(AioTest, RegisteredBuffersAndMoreRequestsThanTheQueueIsDeep) {
    constexpr std::size_t requests = 50;
    std::vector<std::string> buffers(requests, std::string(block, ' '));
    std::string registered(block, 'r');
    aio.open({file, 3, registered.data(), registered.size()});
    // Only the first lies in the registered memory.
    Io first = makeIo(AioRequest::Write, 0, registered);
    Io outside = makeIo(AioRequest::Write, 0, buffers[0]);
    std::vector<Io> noOps(requests, makeIo(AioRequest::NoOp, 0, registered));
    std::vector<AioRequest*> batch{&first, &outside};
    for (Io& io : noOps) {
        batch.push_back(&io);
    }
    ASSERT_EQ(aio.submit(batch.data(), batch.size()), RC_SUCCESS);
    awaitCompletions(batch.size());
    EXPECT_EQ(first.result, static_cast<int>(block));
    EXPECT_EQ(outside.result, static_cast<int>(block));
    EXPECT_EQ(counted(), batch.size());
}

TEST_F(AioTest, AFailingIoReportsItsErrorAndIsCounted) {
    aio.open({file, 1});
    std::string buffer(block, ' ');
    Io io = makeIo(AioRequest::Read, ~u64{0} - block, buffer);
    ASSERT_EQ(aio.submit(io), RC_SUCCESS);
    awaitCompletions(1);
    EXPECT_EQ(io.result, -EINVAL);
    EXPECT_EQ(counted(), 1U);
}

TEST_F(AioTest, ManyThreadsSubmitAndClosingWaitsForAllThatWasTaken) {
    constexpr std::size_t perThread = 300;
    constexpr u32 resubmits = 2;
    aio.open({file, 16});
    std::string buffer(block, ' ');
    Io model = makeIo(AioRequest::NoOp, 0, buffer);
    model.resubmits = resubmits;
    std::vector<Io> ios(2 * perThread, model);
    std::vector<std::thread> threads;
    for (std::size_t first : {std::size_t{0}, perThread}) {
        threads.emplace_back([&, first] {
            for (std::size_t i = first; i < first + perThread; ++i) {
                ASSERT_EQ(aio.submit(ios[i]), RC_SUCCESS);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    awaitCompletions(ios.size() * (resubmits + 1));
    std::vector<Io> last(20, makeIo(AioRequest::NoOp, 0, buffer));
    for (Io& io : last) {
        ASSERT_EQ(aio.submit(io), RC_SUCCESS);
    }
    aio.close();
    EXPECT_EQ(completions, ios.size() * (resubmits + 1) + last.size());
    EXPECT_EQ(counted(), completions);
}

TEST_F(AioTest, WhatIsTakenWhileTheServiceOpensAndClosesCompletes) {
    std::string buffer(block, ' ');
    std::atomic<bool> over{false};
    std::atomic<u64> taken{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&] {
            while (!over) {
                Io io = makeIo(AioRequest::NoOp, 0, buffer);
                if (aio.submit(io) == RC_SUCCESS) {
                    ++taken;
                    await(io);
                }
            }
        });
    }
    for (u64 round = 1; round <= 30; ++round) {
        aio.open({file, 1});
        awaitCompletions(100 * round);
        aio.close();
    }
    over = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(completions, taken);
    EXPECT_EQ(counted(), taken);
}

TEST_F(AioTest, OnlyAnOpenServiceTakesRequests) {
    std::string buffer(block, ' ');
    Io io = makeIo(AioRequest::NoOp, 0, buffer);
    EXPECT_EQ(aio.submit(io), RC_WRONG_OBJECT_STATE);
    EXPECT_THROW(aio.open({-1, 1}), std::system_error);
    EXPECT_THROW(aio.open({file, 0}), std::invalid_argument);
    EXPECT_THROW(aio.open({file, 1U << 15U}), std::invalid_argument);
    aio.open({file, 1});
    EXPECT_THROW(aio.open({file, 1}), std::logic_error);
    aio.close();
    EXPECT_EQ(aio.submit(io), RC_WRONG_OBJECT_STATE);
    aio.open({file, 1});
    EXPECT_EQ(aio.submit(io), RC_SUCCESS);
    awaitCompletions(1);
}

} // namespace
