#include "host/io/IoEngine.h"

#include "common/infra/AIO.h"
#include "host/io/AlignedBuffer.h"
#include "host/services/Clock.h"
#include "host/services/FileDescriptor.h"
#include "host/services/StorageLatency.h"
#include "host/testing/Installed.h"
#include "host/testing/RecordingLog.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/Process.h"
#include "tests/support/RefuseCall.h"
#include "tests/support/Together.h"

#include <sys/file.h>

namespace {

using Kind = IoEngine::Kind;

constexpr u32 block = 4096;

struct Pipe {
    Pipe() {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        reader = FileDescriptor(ends[0]);
        writer = FileDescriptor(ends[1]);
    }
    void put(const std::string& text) const {
        EXPECT_EQ(write(writer.get(), text.data(), text.size()), ssize_t(text.size()));
    }
    FileDescriptor reader, writer;
};

std::string blocks(char first, char second, char third) {
    return std::string(block, first) + std::string(block, second) + std::string(block, third);
}

struct IoEngineTest : testing::TestWithParam<Kind> {
    struct Io : IoRequest {
        Io(Operation what, u64 at = 0, void* memory = nullptr, u32 size = block, u32 times = 0)
            : resubmits(times) {
            operation = what;
            offset = at;
            buffer = memory;
            length = size;
            completed = ioCompleted;
        }
        u32 resubmits; // from inside its completions
        std::shared_ptr<std::promise<int>> result = std::make_shared<std::promise<int>>();
    };

    static void ioCompleted(IoRequest& request, int result) {
        auto& io = static_cast<Io&>(request);
        EXPECT_EQ(test->reporting++, 0);
        ++test->completions;
        --test->reporting;
        if (io.resubmits-- == 0 || test->engine.submit(io) != RC_SUCCESS) {
            const auto done = io.result; // outlives the request
            done->set_value(result);
        }
    }
    bool submitAll(std::vector<Io>& ios) {
        std::vector<IoRequest*> batch;
        std::for_each(ios.begin(), ios.end(), [&](Io& io) { batch.push_back(&io); });
        return engine.submit(batch.data(), batch.size()) == RC_SUCCESS;
    }
    // The results of I/Os that are submitted as one batch; none if they are refused.
    std::vector<int> resultsOf(std::vector<Io> ios) {
        std::vector<int> results;
        if (submitAll(ios)) {
            for (const Io& io : ios) {
                results.push_back(io.result->get_future().get());
            }
        }
        return results;
    }
    // Whether so many I/Os that go the whole way, each made again `resubmits` times, were taken;
    // then they are also complete.
    bool run(std::size_t count = 1, u32 resubmits = 0) {
        std::vector<Io> ios;
        while (ios.size() < count) {
            ios.emplace_back(IoRequest::NoOp, 0, nullptr, 0, resubmits);
        }
        return resultsOf(std::move(ios)) == std::vector<int>(count);
    }
    u64 counted() {
        const StoragePeriod period = aio.latency().closePeriod();
        return std::accumulate(std::begin(period.counters.storageLatency),
                               std::end(period.counters.storageLatency), period.failedIos);
    }
    void SetUp() override {
        test = this;
        const std::ptrdiff_t descriptors = entriesOf("/proc/self/fd");
        if (GetParam() == Kind::IoUring && IoEngine::available({}, 20) == Kind::Threads) {
            GTEST_SKIP() << "io_uring is not to be had here";
        }
        EXPECT_EQ(entriesOf("/proc/self/fd"), descriptors);
    }
    void open(int onFile, u32 depth, void* buffers = nullptr, std::size_t bytes = 0) {
        engine.open({onFile, depth, buffers, bytes, GetParam()});
    }
    void TearDown() override { engine.close(), std::fclose(scratch); }

    inline static IoEngineTest* test = nullptr;
    std::FILE* const scratch = std::tmpfile();
    const int file = fileno(scratch);
    std::atomic<u64> completions{0};
    std::atomic<int> reporting{0}; // completions
    AIO aio;                       // counts this test's I/Os alone
    Installed<AIO, AIO> installedAio{aio};
    IoEngine engine;
};

// The registered memory ends inside the block above; the second size cannot be registered.
TEST_P(IoEngineTest, DataMovesInsideTheRegisteredMemoryAsOutside) {
    for (const std::size_t bytes : {std::size_t{block + 512}, std::size_t{1} << 50U}) {
        std::string memory = blocks('b', 'r', 'a');
        char* const below = memory.data();
        char* const registered = below + block;
        char* const above = registered + block;
        const bool isRefused = GetParam() == Kind::IoUring && bytes > memory.size();
        const RecordingLog log;
        open(file, 3, registered, bytes);
        EXPECT_EQ(log.texts(InfoLevel).size(), isRefused ? 1U : 0U);
        // More than the queue is deep.
        EXPECT_EQ(resultsOf({{IoRequest::Write, 3 * block, above},
                             {IoRequest::Write, 5 * block, below},
                             {IoRequest::Write, block, registered},
                             {IoRequest::Read, ~u64{0} - block, above},
                             {IoRequest::NoOp}}),
                  (std::vector<int>{block, block, block, -EINVAL, 0}));
        EXPECT_EQ(resultsOf({{IoRequest::Read, 3 * block, registered},
                             {IoRequest::Read, 5 * block, above},
                             {IoRequest::Read, block, below}}),
                  std::vector<int>(3, block));
        engine.close();
        EXPECT_EQ(memory, blocks('r', 'a', 'b'));
        EXPECT_EQ(counted(), 8U);
        EXPECT_EQ(aio.latency().closedPeriod().failedIos, 1U);
    }
}

TEST_P(IoEngineTest, WhatCannotBeOpenedIsRefused) {
    EXPECT_THROW(open(-1, 1), std::system_error);
    EXPECT_THROW(open(file, 0), std::invalid_argument);
    EXPECT_THROW(open(file, 1U << 15U), std::invalid_argument);
    EXPECT_THROW(IoEngine::available(GetParam(), 1U << 15U), std::invalid_argument);
    EXPECT_NO_THROW(IoEngine::available(Kind::Threads, (1U << 15U) - 1));
}

TEST_P(IoEngineTest, AnIoIsCountedBeforeItsCompletionIsSeen) {
    FileDescriptor locked(::open(("/proc/self/fd/" + std::to_string(file)).c_str(), O_RDWR));
    ASSERT_EQ(flock(locked.get(), LOCK_EX), 0);
    open(locked.get(), 8);
    EXPECT_THROW(open(file, 8), std::logic_error);
    for (u64 round = 1; round <= 200; ++round) {
        ASSERT_TRUE(run());
        ASSERT_EQ(counted(), 1U) << "round " << round;
    }
    engine.close();
    EXPECT_FALSE(run());
    locked = {};
    EXPECT_EQ(flock(file, LOCK_EX | LOCK_NB), 0) << "the service still holds the file";
}

TEST_P(IoEngineTest, ClosingWaitsForWhatWasSubmittedAndRefusesMore) {
    const Pipe pipe;
    open(pipe.reader.get(), 1); // so they are made in their order
    std::string read(10, ' ');
    std::vector<Io> ios;
    for (char& each : read) {
        ios.emplace_back(IoRequest::Read, 0, &each, 1, 1);
    }
    ios.emplace_back(IoRequest::NoOp);
    ASSERT_TRUE(submitAll(ios));
    auto closing = std::async(std::launch::async, [this] { engine.close(); });
    EXPECT_TRUE(waitUntil([this] { return engine.submit(nullptr, 0) != RC_SUCCESS; }));
    EXPECT_EQ(completions, 0U);
    pipe.put("0123456789");
    closing.get();
    EXPECT_EQ(read, "0123456789");
    EXPECT_EQ(counted(), 11U);
}

TEST_P(IoEngineTest, WhatManyThreadsSubmitCompletesWhenTheEngineClosesToo) {
    std::atomic<bool> over{false};
    auto threads = startTogether(6, [&, this] {
        while (!over) {
            run(1, 1) && run(50, 2);
        }
    });
    for (int round = 0; round < 600; ++round) {
        if (round % 20 == 0) {
            engine.close();
            open(file, round % 40 == 0 ? 2U : 20U);
        }
        EXPECT_TRUE(run() && run(50, 2));
    }
    over = true;
    threads.clear();
    EXPECT_EQ(counted(), completions);
}

// Signals change nothing.
TEST_P(IoEngineTest, AStallShowsAsLongAsItLasts) {
    const auto oldestNs = [this] { return aio.latency().inFlight().oldestStartNs(); };
    const Pipe pipe;
    open(pipe.reader.get(), 2);
    EXPECT_EQ(engine.kind(), GetParam());
    const u64 beforeNs = monotonicNs();
    char buffer[2];
    std::vector<Io> ios{{IoRequest::Read, 0, buffer, 1}, {IoRequest::Read, 0, buffer + 1, 1}};
    ASSERT_TRUE(submitAll(ios));
    ASSERT_TRUE(waitUntil([&] { return oldestNs().has_value(); }));
    EXPECT_GE(*oldestNs(), beforeNs);
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    ASSERT_TRUE(waitUntil([rounds = 0]() mutable {
        for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
            tgkill(getpid(), std::stoi(task.path().filename()), SIGUSR1);
        }
        return ++rounds == 3; // with a pause between two
    }));
    pipe.put("x");
    ASSERT_TRUE(waitUntil([this] { return completions == 1; }));
    EXPECT_TRUE(oldestNs());
    pipe.put("y");
    for (const Io& io : ios) {
        EXPECT_EQ(io.result->get_future().get(), 1);
    }
    EXPECT_FALSE(oldestNs());
    const u64 longestNs = std::max(ios[0].latencyNs, ios[1].latencyNs);
    EXPECT_GE(longestNs, 2 * nsPerMs);
    EXPECT_LE(longestNs, monotonicNs() - beforeNs);
    EXPECT_EQ(aio.latency().closePeriod().maxUs, (longestNs + nsPerUs - 1) / nsPerUs);
}

TEST_P(IoEngineTest, AnIoThatMovesLessHasFailed) {
    const Pipe pipe;
    std::string buffer(block, ' ');
    for (const auto& [descriptor, operation, sent, expected] :
         {std::tuple(pipe.reader.get(), IoRequest::Read, "abc", 3),
          {file, IoRequest::Read, "", 0},
          {pipe.reader.get(), IoRequest::Write, "", -EBADF}}) {
        open(descriptor, 1);
        pipe.put(sent);
        EXPECT_EQ(resultsOf({{operation, 0, buffer.data()}}), std::vector<int>{expected});
        engine.close();
        EXPECT_EQ(aio.latency().closePeriod().failedIos, 1U) << expected;
    }
}

TEST_P(IoEngineTest, ThereAreSoManyThreads) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer starts a thread of its own with the first of the process";
#endif
    const auto become = [](std::ptrdiff_t expected) {
        return waitUntil([=] { return entriesOf("/proc/self/task") == expected + 1; });
    };
    for (const auto& [depth, most] : {std::pair(1U, 1), {3U, 3}, {64U, 64}, {100U, 64}}) {
        failEachAllocation([&, depth = depth] { open(file, depth); },
                           [&] { EXPECT_TRUE(become(0)); });
        EXPECT_TRUE(become(GetParam() == Kind::Threads ? most : 1)) << depth;
        engine.close();
    }
}

TEST(AlignedBufferTest, IsForDirectIo) {
    const AlignedBuffer buffer(100);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(buffer.data()) % 4096, 0U);
    EXPECT_EQ(std::count(buffer.data(), buffer.data() + buffer.size(), std::byte{0}), 100);
}

TEST(AvailableEngineTest, WhereIoUringIsRefusedThreadsServe) {
    const std::tuple<u32, u32, const char*, const char*> rows[] = {
        {SYS_io_uring_setup, EPERM, "Operation not permitted", "kernel.io_uring_disabled=0"},
        {SYS_io_uring_setup, ENOSYS, "Function not implemented", "a kernel that has it"},
        {SYS_io_uring_setup, ENOMEM, "Cannot allocate memory", "ulimit -l"},
        {SYS_io_uring_register, EACCES, "Permission denied", "kernel.io_uring_disabled=0"},
        {SYS_io_uring_enter, EBUSY, "Device or resource busy", "at another time"},
        {SYS_io_uring_enter, EAGAIN, "temporarily unavailable", "at another time"}};
    const std::ptrdiff_t descriptors = entriesOf("/proc/self/fd");
    for (const auto& row : rows) {
        std::thread([&row] {
            const auto& [call, error, message, remedy] = row;
            const RecordingLog log;
            IoEngine engine;
            ASSERT_TRUE(refuseCall(call, error));
            EXPECT_EQ(IoEngine::available(Kind::Threads, 8), Kind::Threads);
            EXPECT_THROW(IoEngine::available(Kind::IoUring, 8), std::system_error);
            EXPECT_THROW(engine.open({0, 8, nullptr, 0, Kind::IoUring}), std::system_error);
            EXPECT_EQ(engine.kind(), Kind::Automatic);
            EXPECT_EQ(log.lines().size(), 0U);
            EXPECT_EQ(IoEngine::available(Kind::Automatic, 8), Kind::Threads);
            engine.open({0, 8});
            EXPECT_EQ(engine.kind(), Kind::Threads);
            const std::vector<std::string> lines = log.texts(WarnLevel);
            ASSERT_EQ(lines.size(), 2U);
            EXPECT_EQ(lines[0], lines[1]);
            for (const char* part : {"threads make the I/Os: io_uring is", message, remedy}) {
                EXPECT_TRUE(holds(lines[0], part)) << part;
            }
        }).join();
        EXPECT_EQ(entriesOf("/proc/self/fd"), descriptors);
    }
}

// It refuses to take more than one I/O at a time, which is what a start tries.
TEST_P(IoEngineTest, AKernelThatStaysShortOfResourcesIsAskedAgainWithPauses) {
    if (GetParam() == Kind::Threads) {
        GTEST_SKIP() << "threads ask for none";
    }
    const auto awaitLine = [this] {
        const RecordingLog log;
        const u64 startNs = monotonicNs();
        std::vector<Io> ios{{IoRequest::NoOp}, {IoRequest::NoOp}};
        refuseCall(SYS_io_uring_enter, EAGAIN, 1, ~1U);
        open(file, 2);
        const bool isTaken = submitAll(ios);
        const bool isSaid = log.waitFor("lacks the resources for I/O and is asked again");
        _exit(isTaken && isSaid && monotonicNs() - startNs > 100 * nsPerMs ? 7 : 1);
    };
    EXPECT_EXIT(awaitLine(), testing::ExitedWithCode(7), "");
}

INSTANTIATE_TEST_SUITE_P(, IoEngineTest, testing::Values(Kind::IoUring, Kind::Threads),
                         [](const auto& kind) {
                             return kind.param == Kind::IoUring ? "IoUring" : "Threads";
                         });

} // namespace
