#include "host/services/MemLedger.h"

#include "common/infra/TrackedAllocation.h"
#include "host/testing/RecordingLog.h"
#include "tests/support/FailingMemory.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <future>
#include <sstream>

namespace {

class MemLedgerTest : public testing::Test {
protected:
    RecordingLog log;
    MemShield& memShield = *Singleton<MemShield, MemShield>::instance();
    const MemReport before = MemLedger::report();

    void* allocate(unsigned long size = 32, const char* type = "Thing", unsigned int line = 7) {
        return memShield.allocAndRegister(size, 0, type, "Maker.cpp", line);
    }
    void release(void* block) {
        if (memShield.isMemshieldActive()) {
            memShield.verifyPtr(block, "User.cpp", 12);
            memShield.freeAndUnregister(block, "User.cpp", 12);
        } else {
            memShield.freeAndCount(block);
        }
    }
    u64 live() const { return MemLedger::report().liveBlocks - before.liveBlocks; }
    u64 bad() const { return MemLedger::report().badReleases - before.badReleases; }

    void TearDown() override {
        MemLedger::setTracking(true);
        const MemReport after = MemLedger::report();
        EXPECT_EQ(after.liveBytes, before.liveBytes);
        EXPECT_EQ(after.allocations - before.allocations, after.releases - before.releases);
    }
};

TEST_F(MemLedgerTest, RefusesAndReportsBadReleases) {
    void* block = allocate();
    void* released = allocate();
    release(released);
    u64 reported = 0;
    const auto start = reinterpret_cast<std::uintptr_t>(block);
    const auto old = reinterpret_cast<std::uintptr_t>(released);
    for (const std::uintptr_t address : {old, start + 16, start + 31, 0UL, 1UL, ~0UL}) {
        void* pointer = reinterpret_cast<void*>(address);
        for (const bool tracking : {true, false}) {
            MemLedger::setTracking(tracking);
            log.clear();
            release(pointer);
            const std::string error = log.lines().at(0).text;
            std::ostringstream told;
            told << " Bad release of block=" << pointer
                 << (tracking ? " at User.cpp:12," : " (place");
            EXPECT_EQ(error.find(told.str()), 0U) << error;
            const bool isInside = address - start - 1 < 31;
            EXPECT_EQ(error.find("points into the Thing at ") != std::string::npos, isInside)
                << error;
            EXPECT_EQ(bad(), ++reported) << error;
            EXPECT_EQ(live(), 1U) << error;
        }
    }
    // A check that is not followed by its release leaves nothing behind.
    memShield.verifyPtr(released, "User.cpp", 12);
    memShield.freeAndUnregister(block, "User.cpp", 12);
    memShield.freeAndUnregister(block, "User.cpp", 13);
    EXPECT_EQ(bad(), reported + 2);
}

TEST_F(MemLedgerTest, TrackingCanBeSwitchedBetweenAllocationAndRelease) {
    for (int row = 0; row < 4; ++row) {
        MemLedger::setTracking(row % 2 == 0);
        auto* held = TRACKED_NEW(std::string)("held");
        EXPECT_EQ(live(), 1U) << row;
        MemLedger::setTracking(row / 2 == 0);
        TRACKED_DELETE(held);
        EXPECT_EQ(live(), 0U) << row;
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(MemLedgerTest, ReportsLiveBlocksByTypeAndPlaceMostBytesFirst) {
    const std::string otherLiteral = "Small";
    void* const blocks[] = {allocate(500, "Small", 1), allocate(500, otherLiteral.c_str(), 1),
                            allocate(300, "Small", 2), allocate(70'000, "Big", 1)};
    std::ostringstream text;
    text << MemLedger::report();
    EXPECT_NE(text.str().find("       70000 bytes in        1 blocks of Big from Maker.cpp:1\n"
                              "        1000 bytes in        2 blocks of Small from Maker.cpp:1\n"
                              "         300 bytes in        1 blocks of Small from Maker.cpp:2\n"),
              std::string::npos)
        << text.str();
    EXPECT_EQ(MemLedger::report().allocations - before.allocations, 4U);
    std::for_each(std::begin(blocks), std::end(blocks), [this](void* block) { release(block); });
}

TEST_F(MemLedgerTest, ABadReleaseNeedsNeitherMemoryNorALog) {
    struct : ILogSink {
        void write(const LogRecord& /*record*/) override { throw std::bad_alloc(); }
    } refusing;
    ILogSink* const usual = LogService::setSink(&refusing);
    const u64 dropped = LogService::droppedCount();
    for (const bool tracking : {true, false}) {
        MemLedger::setTracking(tracking);
        allocationsLeft = 0;
        EXPECT_NO_THROW(release(&refusing));
        allocationsLeft = unlimitedAllocations;
    }
    LogService::setSink(usual);
    EXPECT_EQ(bad(), 2U);
    EXPECT_EQ(LogService::droppedCount(), dropped + 2);
}

TEST_F(MemLedgerTest, AReportedBlockIsLeftAloneThoughItsAddressIsInUseAgain) {
    void* block = allocate();
    release(block);
    memShield.verifyPtr(block, "User.cpp", 12);
    void* another = allocate();
    memShield.freeAndUnregister(block, "User.cpp", 12);
    EXPECT_EQ(bad(), 1U);
    EXPECT_EQ(live(), 1U) << "where " << another << " is the one at " << block << " again";
    release(another);
}

TEST_F(MemLedgerTest, ABlockIsReleasedByOneOfManyThreads) {
    constexpr u64 threads = 4, blocks = 300;
    for (int round = 0; round < 5; ++round) {
        std::vector<std::future<void>> running;
        std::vector<void*> made(blocks);
        std::generate(made.begin(), made.end(), [&] { return allocate(); });
        const u64 badBefore = bad();
        std::atomic<u64> started{0};
        const auto releaseAll = [&] {
            for (++started; started < threads;) {
                std::this_thread::yield();
            }
            for (void* block : made) {
                memShield.freeAndCount(block);
            }
        };
        for (u64 i = 0; i < threads; ++i) {
            running.push_back(std::async(std::launch::async, releaseAll));
        }
        while (live() > 0) {
            std::this_thread::yield();
        }
        running.clear();
        EXPECT_EQ(bad() - badBefore, (threads - 1) * blocks);
    }
}

TEST_F(MemLedgerTest, AForkedChildFindsNothingLocked) {
    std::atomic<bool> over{false};
    std::array<void*, 200> blocks{}; // enough to lie all over the ledger
    std::generate(blocks.begin(), blocks.end(), [&] { return allocate(); });
    auto busy = std::async(std::launch::async, [&] {
        while (!over) {
            release(allocate());
        }
    });
    for (int round = 0; round < 50 && !HasFailure(); ++round) {
        const pid_t child = fork();
        if (child == 0) {
            alarm(10); // ends a child that is stuck
            std::for_each(blocks.begin(), blocks.end(),
                          [&](void* each) { memShield.verifyPtr(each, "User.cpp", 12); });
            _exit(0);
        }
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0) << round;
    }
    over = true;
    busy.get();
    std::for_each(blocks.begin(), blocks.end(), [&](void* each) { release(each); });
}

} // namespace
