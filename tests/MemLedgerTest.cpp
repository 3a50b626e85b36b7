#include "host/services/MemLedger.h"

#include "common/infra/MemShield.h"
#include "host/testing/RecordingLog.h"
#include "tests/support/FailingMemory.h"

#include <gtest/gtest.h>
#include <malloc.h>
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
        EXPECT_EQ(live(), 0U);
    }
};

TEST_F(MemLedgerTest, ABadReleaseIsRefused) {
    void* block = allocate();
    void* released = allocate();
    release(released);
    const auto start = reinterpret_cast<std::uintptr_t>(block);
    std::ostringstream expected;
    u64 reported = 0;
    for (const std::uintptr_t address : {0UL, start + 1, start + 31, start + 32}) {
        void* pointer = reinterpret_cast<void*>(address);
        for (const bool tracking : {true, false}) {
            MemLedger::setTracking(tracking);
            release(pointer);
            EXPECT_EQ(bad(), ++reported);
            expected << " Bad release of block=" << pointer
                     << (tracking ? " at User.cpp:12" : " (place unknown: tracking is off)")
                     << ", which is left alone: expected the start of a block that is allocated "
                        "and not yet released";
            if (address == start + 1 || address == start + 31) {
                expected << ", and this one points into the Thing at " << block
                         << ", allocated at Maker.cpp:7";
            }
            expected << "\n";
        }
    }
    std::string told;
    for (const std::string& line : log.texts(ErrorLevel)) {
        told += line;
    }
    EXPECT_EQ(told, expected.str());
    // A check that is not followed by its release leaves nothing behind.
    memShield.verifyPtr(released, "User.cpp", 12);
    memShield.verifyPtr(block, "User.cpp", 12);
    memShield.freeAndUnregister(released, "User.cpp", 12);
    memShield.freeAndUnregister(block, "User.cpp", 13);
    EXPECT_EQ(bad(), reported + 2);
}

TEST_F(MemLedgerTest, ReportsLiveBlocksByTypeAndPlaceMostBytesFirst) {
    EXPECT_TRUE(memShield.isMemshieldActive()) << "from the start";
    const std::string otherLiteral = "Small";
    void* const blocks[] = {allocate(500, "Small", 1), allocate(501, otherLiteral.c_str(), 1),
                            allocate(300, "Small", 2), allocate(70'000, "Big", 1), allocate()};
    release(blocks[4]);
    std::ostringstream text;
    text << MemLedger::report();
    EXPECT_EQ(text.str(), "live: 4 blocks, 71301 bytes; allocations: 5, releases: 1, bad "
                          "releases: 0\n"
                          "       70000 bytes in        1 blocks of Big from Maker.cpp:1\n"
                          "        1001 bytes in        2 blocks of Small from Maker.cpp:1\n"
                          "         300 bytes in        1 blocks of Small from Maker.cpp:2\n");
    std::for_each(std::begin(blocks), blocks + 4, [this](void* block) { release(block); });
}

// A block of this size is a mapping of its own.
TEST_F(MemLedgerTest, EveryBlockIsGivenBack) {
    const auto expectNoMapping = [bytes = mallinfo2().hblkhd] {
        EXPECT_EQ(mallinfo2().hblkhd, bytes);
    };
    for (const bool tracking : {true, false}) {
        MemLedger::setTracking(tracking);
        void* block = nullptr;
        EXPECT_GE(failEachAllocation([&] { block = allocate(64U << 20U); }, expectNoMapping), 1);
        release(block);
        expectNoMapping();
    }
}

TEST_F(MemLedgerTest, ABlockIsReleasedByOneOfManyThreads) {
    constexpr u64 threads = 4;
    std::vector<void*> made(1'500);
    std::generate(made.begin(), made.end(), [&] { return allocate(); });
    std::atomic<u64> waiting{threads};
    const auto releaseAll = [&] {
        for (--waiting; waiting > 0;) {
            std::this_thread::yield();
        }
        for (void* block : made) {
            memShield.freeAndCount(block);
        }
    };
    std::vector<std::future<void>> running;
    for (u64 i = 0; i < threads; ++i) {
        running.push_back(std::async(std::launch::async, releaseAll));
    }
    running.clear();
    EXPECT_EQ(bad(), (threads - 1) * made.size());
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
