#include "host/services/MemLedger.h"

#include "common/infra/TrackedAllocation.h"
#include "host/services/BlockTable.h"
#include "host/testing/RecordingLog.h"

#include <gtest/gtest.h>

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

// The table never reads what an address points to, so the races of threads, some of them without a
// slot of their own, can be provoked with addresses of no memory: enough to make the table grow.
TEST(BlockTableTest, ABlockIsRemovedByOneOfManyAndAVisitorSeesWholeRecords) {
    static BlockTable table;
    constexpr unsigned int blocks = 12'000, rounds = 12, workers = 10;
    const std::array<const char*, 2> names = {"even", "odd"};
    std::atomic<unsigned int> started{0}, running{workers};
    const auto work = [&](unsigned int number) { // adds its own blocks and removes all it finds
        u64 removed = 0;
        ThreadLane::mine();
        for (++started; started < workers;) {
            std::this_thread::yield();
        }
        for (unsigned int round = 0; round < rounds; ++round) {
            for (unsigned int i = number, tag = i + round; i < blocks; i += workers, ++tag) {
                table.add(reinterpret_cast<void*>(32UL * (i + 1)),
                          {tag, names[tag % 2], names[tag % 2], tag});
            }
            for (unsigned int i = 0; i < blocks; ++i) {
                removed += table.remove(reinterpret_cast<void*>(32UL * (i + 1))) ? 1 : 0;
            }
        }
        --running;
        return removed;
    };
    std::vector<std::future<u64>> removals;
    for (unsigned int number = 0; number < workers; ++number) {
        removals.push_back(std::async(std::launch::async, work, number));
    }
    while (running > 0) {
        table.visit([&](std::uintptr_t, const BlockInfo& info) {
            EXPECT_TRUE(info.size == info.line && info.typeName == info.file &&
                        info.file == names[info.line % 2]);
        });
    }
    u64 removed = 0;
    std::for_each(removals.begin(), removals.end(), [&](auto& each) { removed += each.get(); });
    EXPECT_EQ(removed, u64{rounds} * blocks);
}

} // namespace
