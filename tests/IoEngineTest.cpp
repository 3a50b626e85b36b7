#include "host/io/IoEngine.h"

#include "common/infra/AIO.h"
#include "common/infra/DynamicTweaks.h"
#include "host/io/AlignedBuffer.h"
#include "host/services/Clock.h"
#include "host/services/StorageLatency.h"
#include "host/testing/Installed.h"
#include "host/testing/RecordingLog.h"
#include "tests/support/RefuseCall.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <future>
#include <iterator>
#include <numeric>
#include <string>
#include <system_error>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

namespace {

constexpr u32 block = 4096;

class IoEngineTest : public testing::TestWithParam<IoEngine::Kind> {
protected:
    struct Io : IoRequest {
        IoEngineTest* test = nullptr;
        u32 resubmits = 0; // from inside its completions
        std::promise<int> promise;
        std::future<int> result = promise.get_future();
    };

    Io makeIo(IoRequest::Operation what, u64 offset, char* buffer) {
        Io io;
        io.operation = what;
        io.length = block;
        io.offset = offset;
        io.buffer = buffer;
        io.completed = ioCompleted;
        io.test = this;
        return io;
    }
    static void ioCompleted(IoRequest& request, int result) {
        auto& io = static_cast<Io&>(request);
        EXPECT_EQ(io.test->reporting++, 0);
        ++io.test->completions;
        --io.test->reporting;
        if (io.resubmits-- == 0 || !io.test->submit(io)) {
            auto done = std::move(io.promise); // outlives the request
            done.set_value(result);
        }
    }
    bool submit(Io& io) { return engine.submit(io) == RC_SUCCESS && ++taken > 0; }
    // Whether an I/O that goes the whole way was taken; then it is also complete.
    bool run(u32 resubmits = 0) {
        Io io = makeIo(IoRequest::NoOp, 0, nullptr);
        io.resubmits = resubmits;
        return submit(io) && io.result.get() >= 0;
    }
    // The same with more I/Os at once than any queue here is deep, each made again twice.
    bool runMany() {
        std::vector<Io> ios;
        std::vector<IoRequest*> batch;
        std::generate_n(std::back_inserter(ios), 50,
                        [this] { return makeIo(IoRequest::NoOp, 0, nullptr); });
        for (Io& io : ios) {
            io.resubmits = 2;
            batch.push_back(&io);
        }
        if (engine.submit(batch.data(), batch.size()) != RC_SUCCESS) {
            return false;
        }
        taken += batch.size();
        return std::all_of(ios.begin(), ios.end(), [](Io& io) { return io.result.get() >= 0; });
    }
    u64 counted() {
        const StoragePeriod period = aio.latency().closePeriod();
        return std::accumulate(std::begin(period.counters.storageLatency),
                               std::end(period.counters.storageLatency), period.failedIos);
    }
    void SetUp() override {
        try {
            IoEngine::available(GetParam(), 20);
        } catch (const std::system_error& refused) {
            GTEST_SKIP() << refused.what();
        }
    }
    void open(int onFile, u32 depth, void* buffers = nullptr, std::size_t bytes = 0) {
        engine.open({onFile, depth, buffers, bytes, GetParam()});
    }
    void TearDown() override { engine.close(), std::fclose(scratch); }

    std::FILE* const scratch = std::tmpfile();
    const int file = fileno(scratch);
    std::atomic<u64> taken{0};
    std::atomic<u64> completions{0};
    std::atomic<int> reporting{0}; // completions
    DynamicTweaks tweaks;
    Installed<DynamicTweaks, DynamicTweaks> installedTweaks{tweaks};
    AIO aio; // counts this test's I/Os alone
    Installed<AIO, AIO> installedAio{aio};
    IoEngine engine;
};

TEST_P(IoEngineTest, DataMovesInsideTheRegisteredMemoryAsOutside) {
    std::string registered(block, 'r');
    std::string outside(block, 'o');
    open(file, 3, registered.data(), block);
    std::vector<Io> ios; // more than the queue is deep, as one batch
    ios.push_back(makeIo(IoRequest::Write, 0, registered.data()));
    ios.push_back(makeIo(IoRequest::Write, 3 * block, outside.data()));
    ios.push_back(makeIo(IoRequest::Read, ~u64{0} - block, outside.data()));
    ios.push_back(makeIo(IoRequest::NoOp, 0, nullptr));
    std::vector<IoRequest*> batch;
    std::for_each(ios.rbegin(), ios.rend(), [&](Io& io) { batch.push_back(&io); });
    ASSERT_EQ(engine.submit(batch.data(), batch.size()), RC_SUCCESS);
    for (const auto& [io, expected] : {std::pair(0, 4096), {1, 4096}, {2, -EINVAL}, {3, 0}}) {
        EXPECT_EQ(ios[io].result.get(), expected) << io;
    }
    ios[0] = makeIo(IoRequest::Read, 3 * block, registered.data());
    ios[1] = makeIo(IoRequest::Read, 0, outside.data());
    ASSERT_TRUE(submit(ios[0]) && submit(ios[1]));
    engine.close();
    EXPECT_EQ(registered + outside, std::string(block, 'o') + std::string(block, 'r'));
    EXPECT_EQ(counted(), 6U);
}

TEST_P(IoEngineTest, WhatCannotBeOpenedIsRefused) {
    EXPECT_THROW(open(-1, 1), std::system_error);
    EXPECT_THROW(open(file, 0), std::invalid_argument);
    EXPECT_THROW(open(file, 1U << 15U), std::invalid_argument);
    EXPECT_THROW(IoEngine::available(GetParam(), 1U << 15U), std::invalid_argument);
    EXPECT_NO_THROW(IoEngine::available(IoEngine::Kind::Threads, (1U << 15U) - 1));
    EXPECT_EQ(engine.kind(), IoEngine::Kind::Automatic);
    std::thread([this] {
        ASSERT_TRUE(refuseCall(SYS_clone3, EAGAIN));
        EXPECT_THROW(open(file, 5), std::system_error);
    }).join();
    open(file, 5);
    EXPECT_TRUE(run());
}

TEST_P(IoEngineTest, AnIoIsCountedBeforeItsCompletionIsSeen) {
    const int locked = ::open(("/proc/self/fd/" + std::to_string(file)).c_str(), O_RDWR);
    ASSERT_EQ(flock(locked, LOCK_EX), 0);
    open(locked, 8);
    EXPECT_THROW(open(file, 8), std::logic_error);
    for (u64 round = 1; round <= 200; ++round) {
        ASSERT_TRUE(run());
        ASSERT_EQ(counted(), 1U) << "round " << round;
    }
    engine.close();
    EXPECT_FALSE(run());
    ::close(locked);
    EXPECT_EQ(flock(file, LOCK_EX | LOCK_NB), 0) << "the service still holds the file";
}

TEST_P(IoEngineTest, ClosingWaitsForWhatWasSubmitted) {
    for (const u32 depth : {1U, 2U}) {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        open(ends[0], depth);
        char buffer[2][block];
        Io ios[] = {makeIo(IoRequest::Read, 0, buffer[0]), makeIo(IoRequest::Read, 0, buffer[1])};
        ASSERT_TRUE(submit(ios[0]) && submit(ios[1]));
        auto closing = std::async(std::launch::async, [this] { engine.close(); });
        EXPECT_EQ(closing.wait_for(std::chrono::milliseconds(10)), std::future_status::timeout);
        EXPECT_EQ(write(ends[1], "x", 1), 1);
        ::close(ends[1]);
        closing.get();
        ::close(ends[0]);
        ASSERT_EQ(completions, 2 * depth);
        EXPECT_EQ(ios[0].result.get() + ios[1].result.get(), 1) << "one byte, then the end";
        EXPECT_EQ(counted(), 2U) << depth;
    }
}

TEST_P(IoEngineTest, WhatManyThreadsSubmitCompletesWhenTheEngineClosesToo) {
    std::atomic<bool> over{false};
    std::vector<std::thread> threads;
    for (const u32 resubmits : {0, 0, 0, 1, 1, 2}) {
        threads.emplace_back([this, &over, resubmits] {
            while (!over) {
                run(resubmits) && runMany();
            }
        });
    }
    for (int round = 0; round < 600; ++round) {
        if (round % 20 == 0) {
            engine.close();
            open(file, round % 40 == 0 ? 2U : 20U);
        }
        EXPECT_TRUE(run() && runMany());
    }
    over = true;
    std::for_each(threads.begin(), threads.end(), [](std::thread& each) { each.join(); });
    EXPECT_EQ(completions, taken);
    EXPECT_EQ(counted(), taken);
}

TEST_P(IoEngineTest, AStallShowsAsLongAsItLasts) {
    tweaks.t_StorageAnalyticsLatencyThreshold = 1'000;
    counted(); // the limits are those of the next period
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    open(ends[0], 2);
    EXPECT_EQ(engine.kind(), GetParam());
    char buffer[2][block];
    Io ios[] = {makeIo(IoRequest::Read, 0, buffer[0]), makeIo(IoRequest::Read, 0, buffer[1])};
    ASSERT_TRUE(submit(ios[0]) && submit(ios[1]));
    const auto awaitEpisode = [this] {
        while (aio.latency().closePeriod().episodes == 0) { // none is slow yet
            std::this_thread::yield();
        }
    };
    awaitEpisode();
    EXPECT_EQ(write(ends[1], "x", 1), 1);
    while (completions == 0) {
        std::this_thread::yield();
    }
    aio.latency().closePeriod(); // has what has completed, and the next one has the other I/O
    awaitEpisode();
    ::close(ends[1]);
    engine.close();
    aio.latency().closePeriod();
    EXPECT_EQ(aio.latency().closePeriod().episodes, 0U);
    ::close(ends[0]);
}

TEST_P(IoEngineTest, AnIoThatMovesLessHasFailed) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
    std::string buffer(block, ' ');
    // io_uring waits for data all the same.
    const auto [there, answer] =
        GetParam() == IoEngine::Kind::Threads ? std::pair(0, -EAGAIN) : std::pair(1, 1);
    for (const auto& [descriptor, operation, sent, expected] :
         {std::tuple(ends[0], IoRequest::Read, there, answer),
          {ends[0], IoRequest::Read, 3, 3},
          {file, IoRequest::Read, 0, 0},
          {ends[0], IoRequest::Write, 0, -EBADF}}) {
        open(descriptor, 1);
        ASSERT_EQ(write(ends[1], "abc", sent), sent);
        Io io = makeIo(operation, 0, buffer.data());
        ASSERT_TRUE(submit(io));
        EXPECT_EQ(io.result.get(), expected);
        engine.close();
        EXPECT_TRUE(io.failed);
        EXPECT_EQ(aio.latency().closePeriod().failedIos, 1U) << expected;
    }
    ::close(ends[0]), ::close(ends[1]);
}

// The bounds are such that each of its reads, of more than 10 us, belongs into one class.
TEST_P(IoEngineTest, AnIoIsInTheClassOfItsLatency) {
    tweaks.t_StorageAnalyticsLatencyThreshold = 1;
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    for (u32 expected = 0; expected < 5; ++expected) {
        u32 bounds[4];
        for (u32 i = 0; i < 4; ++i) {
            bounds[i] = i < expected ? i : 4'000'000'000U + i;
        }
        tweaks.t_StorageAnalyticsLatencyFast = bounds[0];
        tweaks.t_StorageAnalyticsLatencyModerate = bounds[1];
        tweaks.t_StorageAnalyticsLatencySlow = bounds[2];
        tweaks.t_StorageAnalyticsLatencyVerySlow = bounds[3];
        counted();
        open(ends[0], 1);
        char buffer = 0;
        Io io = makeIo(IoRequest::Read, 0, &buffer);
        io.length = 1;
        const u64 beforeNs = monotonicNs();
        ASSERT_TRUE(submit(io));
        while (!aio.latency().inFlight().oldestStartNs()) {
            std::this_thread::yield();
        }
        const u64 heldNs = monotonicNs();
        while (monotonicNs() < heldNs + 2 * nsPerMs) {
        }
        EXPECT_EQ(write(ends[1], "x", 1), 1);
        engine.close();
        EXPECT_GE(io.latencyNs, 2 * nsPerMs);
        EXPECT_LE(io.latencyNs, monotonicNs() - beforeNs);
        const StoragePeriod period = aio.latency().closePeriod();
        EXPECT_EQ(period.counters.storageLatency[expected], 1U) << expected;
        EXPECT_EQ(period.maxUs, (io.latencyNs + nsPerUs - 1) / nsPerUs);
        EXPECT_EQ(period.episodes, 1U);
        EXPECT_GE(period.episodeSumMs, 2U);
    }
    ::close(ends[0]), ::close(ends[1]);
}

TEST_P(IoEngineTest, ThereAreSoManyThreads) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer starts a thread of its own with the first of the process";
#endif
    const auto threads = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
    };
    for (const auto& [depth, most] : {std::pair(1U, 1), {3U, 3}, {64U, 64}, {100U, 64}}) {
        const std::ptrdiff_t before = threads();
        open(file, depth);
        EXPECT_EQ(threads() - before, GetParam() == IoEngine::Kind::Threads ? most : 1);
        engine.close();
    }
}

TEST(AlignedBufferTest, IsForDirectIo) {
    const AlignedBuffer buffer(100);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(buffer.data()) % 4096, 0U);
    EXPECT_EQ(std::count(buffer.data(), buffer.data() + buffer.size(), std::byte{0}), 100);
}

TEST_P(IoEngineTest, OneAtATimeTheOrderIsThatOfSubmission) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    open(ends[0], 1);
    char buffer[10] = {};
    std::vector<Io> ios;
    std::vector<IoRequest*> batch;
    ios.reserve(10);
    for (char& each : buffer) {
        ios.push_back(makeIo(IoRequest::Read, 0, &each));
        ios.back().length = 1;
        batch.push_back(&ios.back());
    }
    ASSERT_EQ(engine.submit(batch.data(), batch.size()), RC_SUCCESS);
    ASSERT_EQ(write(ends[1], "0123456789", 10), 10);
    engine.close();
    EXPECT_EQ(std::string(buffer, 10), "0123456789");
    ::close(ends[0]), ::close(ends[1]);
}

TEST_P(IoEngineTest, WhatIsRefusedAtTheOpeningIsLeftToThreadsWhereThatIsAllowed) {
    std::thread([this] { // and no other thread is refused anything
        ASSERT_TRUE(refuseCall(SYS_io_uring_setup, EPERM));
        if (GetParam() == IoEngine::Kind::IoUring) {
            EXPECT_THROW(open(file, 1), std::system_error);
        }
        engine.open({file, 1});
    })
        .join();
    EXPECT_EQ(engine.kind(), IoEngine::Kind::Threads);
    EXPECT_TRUE(run());
    engine.close();
    open(file, 1);
    EXPECT_EQ(engine.kind(), GetParam());
    EXPECT_TRUE(run());
}

TEST(AvailableEngineTest, WhereIoUringIsRefusedThreadsServe) {
    const std::tuple<long, int, const char*, const char*> rows[] = {
        {SYS_io_uring_setup, EPERM, "Operation not permitted", "kernel.io_uring_disabled=0"},
        {SYS_io_uring_setup, ENOSYS, "Function not implemented", "a kernel that has it"},
        {SYS_io_uring_setup, ENOMEM, "Cannot allocate memory", "ulimit -l"},
        {SYS_io_uring_register, EACCES, "Permission denied", "admits io_uring_setup"},
        {SYS_io_uring_enter, EBUSY, "Device or resource busy", "at another time"},
        {SYS_io_uring_enter, EAGAIN, "temporarily unavailable", "at another time"}};
    for (const auto& row : rows) {
        std::thread([&row] {
            const auto& [call, error, message, remedy] = row;
            const RecordingLog log;
            ASSERT_TRUE(refuseCall(static_cast<u32>(call), static_cast<u32>(error)));
            EXPECT_EQ(IoEngine::available(IoEngine::Kind::Threads, 8), IoEngine::Kind::Threads);
            EXPECT_THROW(IoEngine::available(IoEngine::Kind::IoUring, 8), std::system_error);
            EXPECT_EQ(log.lines().size(), 0U);
            EXPECT_EQ(IoEngine::available(IoEngine::Kind::Automatic, 8), IoEngine::Kind::Threads);
            ASSERT_EQ(log.texts(WarnLevel).size(), 1U);
            for (const char* part :
                 {"threads make the I/Os: io_uring is refused", message, remedy}) {
                EXPECT_NE(log.texts(WarnLevel)[0].find(part), std::string::npos) << part;
            }
        }).join();
    }
}

INSTANTIATE_TEST_SUITE_P(, IoEngineTest,
                         testing::Values(IoEngine::Kind::IoUring, IoEngine::Kind::Threads),
                         [](const auto& kind) {
                             return kind.param == IoEngine::Kind::IoUring ? "IoUring" : "Threads";
                         });

} // namespace
