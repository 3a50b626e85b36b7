#include "host/services/MemLedger.h"

#include "common/infra/TrackedAllocation.h"
#include "host/services/BlockTable.h"
#include "tests/support/RecordingLog.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <future>
#include <locale>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Base {
    virtual ~Base() = default;
    int unused = 0;
};
struct OtherBase {
    virtual ~OtherBase() = default;
};
// Its OtherBase lies behind the beginning of its block.
struct Derived : Base, OtherBase {};

struct Throws {
    Throws() { throw std::runtime_error("not today"); }
};

class MemLedgerTest : public testing::Test {
protected:
    RecordingLog log;
    MemShield& memShield = *Singleton<MemShield, MemShield>::instance();
    const MemReport before = MemLedger::report();

    void* allocate(unsigned long size = 32) {
        return memShield.allocAndRegister(size, 0, "Thing", "Maker.cpp", 7);
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
        EXPECT_EQ(live(), 0u);
        const MemReport after = MemLedger::report();
        EXPECT_EQ(after.liveBytes, before.liveBytes);
        EXPECT_EQ(after.allocations - before.allocations, after.releases - before.releases);
    }
};

TEST_F(MemLedgerTest, RefusesAndReportsBadReleases) {
    void* block = allocate();
    void* released = allocate();
    release(released);
    const auto at = [](std::uintptr_t address) { return reinterpret_cast<void*>(address); };
    const std::string inside = "points into the Thing at ";
    const struct {
        std::string name;
        void* pointer;
        std::string told;
    } rows[] = {
        {"released before", released, "expected the start of a block"},
        {"interior", static_cast<char*>(block) + 16, inside},
        {"last byte", static_cast<char*>(block) + 31, inside},
        {"no memory there", at(0x1230), "expected the start of a block"},
        {"null", nullptr, "block=0"},
        {"one", at(1), "block=0x1"},
        {"the top", at(UINTPTR_MAX), "block=0xffffffffffffffff"},
    };
    u64 reported = 0;
    for (const auto& row : rows) {
        for (const bool tracking : {true, false}) {
            SCOPED_TRACE(row.name + (tracking ? ", tracking" : ", not tracking"));
            MemLedger::setTracking(tracking);
            log.clear();
            release(row.pointer);
            const std::vector<RecordingLog::Line> lines = log.lines();
            ASSERT_EQ(lines.size(), 1u);
            EXPECT_EQ(lines[0].module, LogModuleCommon);
            EXPECT_EQ(lines[0].level, ErrorLevel);
            EXPECT_EQ(lines[0].detail, 3);
            std::ostringstream pointer;
            pointer << "block=" << row.pointer;
            for (const std::string& part :
                 {pointer.str(), row.told, std::string(tracking ? "User.cpp:12" : "unknown")}) {
                EXPECT_NE(lines[0].text.find(part), std::string::npos)
                    << part << " is not in " << lines[0].text;
            }
            EXPECT_EQ(bad(), ++reported);
            EXPECT_EQ(live(), 1u);
        }
    }
    // A check that is not followed by its release leaves nothing behind.
    MemLedger::setTracking(true);
    memShield.verifyPtr(released, "User.cpp", 12);
    memShield.freeAndUnregister(block, "User.cpp", 12);
    EXPECT_EQ(bad(), ++reported);
    memShield.freeAndUnregister(block, "User.cpp", 13);
    EXPECT_EQ(bad(), ++reported);
}

TEST_F(MemLedgerTest, TrackingCanBeSwitchedBetweenAllocationAndRelease) {
    for (const bool atAllocation : {true, false}) {
        for (const bool atRelease : {true, false}) {
            MemLedger::setTracking(atAllocation);
            OtherBase* held = TRACKED_NEW(Derived)();
            EXPECT_THROW(TRACKED_NEW(Throws)(), std::runtime_error);
            EXPECT_EQ(live(), 1u);
            MemLedger::setTracking(atRelease);
            TRACKED_DELETE(held);
            EXPECT_EQ(live(), 0u);
        }
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(MemLedgerTest, ReportsLiveBlocksByTypeAndPlaceMostBytesFirst) {
    std::string otherLiteral = "Small";
    std::vector<void*> blocks;
    const auto add = [&](unsigned long size, const char* typeName, unsigned int line) {
        blocks.push_back(memShield.allocAndRegister(size, 0, typeName, "Maker.cpp", line));
    };
    add(500, "Small", 1);
    add(500, otherLiteral.c_str(), 1);
    add(300, "Small", 2);
    add(70000, "Big", 1);
    {
        const MemReport report = MemLedger::report();
        std::ostringstream text;
        struct Grouping : std::numpunct<char> {
            char do_thousands_sep() const override { return '.'; }
            std::string do_grouping() const override { return "\3"; }
        };
        text.imbue(std::locale(std::locale::classic(), new Grouping));
        text << report;
        for (const char* line : {"70000 bytes in        1 blocks of Big from Maker.cpp:1\n",
                                 "1000 bytes in        2 blocks of Small from Maker.cpp:1\n",
                                 "300 bytes in        1 blocks of Small from Maker.cpp:2\n"}) {
            const auto found = text.str().find(line);
            EXPECT_NE(found, std::string::npos) << line << "is not, or not here, in " << text.str();
            text.str(text.str().substr(found == std::string::npos ? 0 : found));
        }
        EXPECT_EQ(report.liveBytes - before.liveBytes, 71300u);
        EXPECT_EQ(report.allocations - before.allocations, 4u);
    }
    for (void* block : blocks) {
        release(block);
    }
}

TEST_F(MemLedgerTest, GrowsWithTheLiveBlocks) {
    std::vector<void*> blocks(100'000);
    for (void*& block : blocks) {
        block = allocate(24);
        ASSERT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignof(std::max_align_t), 0u);
    }
    EXPECT_EQ(live(), blocks.size());
    for (void* block : blocks) {
        release(block);
    }
    EXPECT_TRUE(log.lines().empty());
    release(blocks.front());
    release(blocks.back());
    EXPECT_EQ(bad(), 2u);
}

// Blocks travel over a shared shelf, so most are released by another thread than the one that
// allocated them, while reports are made and the switch is thrown.
TEST_F(MemLedgerTest, ManyThreadsAllocateAndRelease) {
    std::array<std::atomic<void*>, 64> shelf{};
    std::atomic<unsigned int> running{3};
    const auto work = [&](unsigned int number) {
        for (unsigned int i = 0; i < 10'000; ++i) {
            void* taken = shelf[i * number % shelf.size()].exchange(allocate());
            if (taken != nullptr) {
                release(taken);
            }
        }
        --running;
    };
    std::vector<std::thread> threads;
    for (const unsigned int number : {1, 3, 5}) {
        threads.emplace_back(work, number);
    }
    for (bool tracking = false; running != 0; tracking = !tracking) {
        MemLedger::setTracking(tracking);
        EXPECT_LE(live(), shelf.size() + 3);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (std::atomic<void*>& block : shelf) {
        release(block);
    }
    EXPECT_EQ(bad(), 0u);
}

// The table never reads what an address points to, so the races of two threads can be provoked with
// addresses of no memory.
class BlockTableTest : public testing::Test {
protected:
    static constexpr unsigned int count = 4000;
    static BlockTable table;

    static void* address(unsigned int i) { return reinterpret_cast<void*>(32UL * (i + 1)); }

    // Runs the work with 0 and with 1 at the same time, and returns the sum of its results.
    static u64 sumOfTwo(const std::function<u64(unsigned int)>& work) {
        std::atomic<unsigned int> arrivals{0};
        const auto together = [&](unsigned int number) {
            ++arrivals;
            while (arrivals < 2) {
            }
            return work(number);
        };
        std::future<u64> other = std::async(std::launch::async, together, 1);
        return together(0) + other.get();
    }
    static u64 live() {
        u64 blocks = 0;
        table.visit([&](std::uintptr_t, const BlockInfo&) { ++blocks; });
        return blocks;
    }
};
BlockTable BlockTableTest::table;

TEST_F(BlockTableTest, EachSlotIsClaimedByOneAndEachBlockRemovedByOne) {
    for (unsigned int round = 0; round < 50; ++round) {
        sumOfTwo([](unsigned int number) {
            for (unsigned int i = number; i < count; i += 2) {
                table.add(address(i), {1, "", "", 0});
            }
            return 0;
        });
        ASSERT_EQ(live(), count);
        const u64 removed = sumOfTwo([](unsigned int) {
            u64 mine = 0;
            for (unsigned int i = 0; i < count; ++i) {
                mine += table.remove(address(i)) ? 1 : 0;
            }
            return mine;
        });
        ASSERT_EQ(removed, count);
        ASSERT_EQ(live(), 0u);
    }
}

TEST_F(BlockTableTest, AVisitorSeesWholeRecords) {
    constexpr unsigned int rounds = 2'000'000;
    const std::array<const char*, 2> names = {"even", "odd"};
    std::atomic<bool> done{false};
    sumOfTwo([&](unsigned int number) {
        for (unsigned int i = 0; number == 0 && i < rounds; ++i) {
            table.add(address(i % 64), {i, names[i % 2], names[i % 2], i});
            table.remove(address((i + 1) % 64));
        }
        done = done || number == 0;
        while (!done) {
            const u64 added = table.visit([&](std::uintptr_t, const BlockInfo& info) {
                EXPECT_EQ(info.size, info.line);
                EXPECT_EQ(info.typeName, names[info.line % 2]);
                EXPECT_EQ(info.file, info.typeName);
            });
            EXPECT_GE(added, live());
        }
        return 0;
    });
    for (unsigned int i = 0; i < 64; ++i) {
        table.remove(address(i));
    }
}

} // namespace
