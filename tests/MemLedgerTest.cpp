#include "host/services/MemLedger.h"

#include "common/infra/MemShield.h"
#include "host/testing/LogText.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/Together.h"

#include <malloc.h>
#include <sys/wait.h>

namespace {

class MemLedgerTest : public testing::Test {
protected:
    RecordingLog log;
    MemShield& memShield = *Singleton<MemShield, MemShield>::instance();
    const MemReport before = MemLedger::report();

    void* allocate(unsigned long size = 32, const char* type = "Thing", unsigned int line = 7) {
        return memShield.allocAndRegister(size, 0, type, "Maker.cc", line);
    }
    static void release(void* block) {
        internal_delete_helper(static_cast<char*>(block), "User.cc", 12);
    }
    static void releaseAll(const std::vector<void*>& blocks) {
        std::for_each(blocks.begin(), blocks.end(), release);
    }
    u64 bad() const { return MemLedger::report().badReleases - before.badReleases; }

    void TearDown() override {
        MemLedger::setTracking(true);
        EXPECT_EQ(MemLedger::report().liveBlocks, before.liveBlocks);
    }
};

TEST_F(MemLedgerTest, ABadReleaseIsRefused) {
    void* block = allocate();
    void* released = allocate();
    release(released);
    const auto start = reinterpret_cast<std::uintptr_t>(block);
    std::string told = "\n";
    for (const auto& [address, tracking] :
         {std::pair(0UL, true), {start + 1, false}, {start + 31, true}, {start + 32, false}}) {
        void* const pointer = reinterpret_cast<void*>(address);
        MemLedger::setTracking(tracking);
        release(pointer);
        told += withName(withName(toBriefText(log), pointer, "POINTER"), block, "BLOCK");
        log.clear();
    }
    MemLedger::setTracking(true);
    EXPECT_EQ(told, R"(
common error verifyPtr " Bad release of block=POINTER at User.cc:12, which is left alone: expected the start of a block that is allocated and not yet released\n"
common error freeAndCount " Bad release of block=POINTER (place unknown: tracking is off), which is left alone: expected the start of a block that is allocated and not yet released, and this one points into the Thing at BLOCK, allocated at Maker.cc:7\n"
common error verifyPtr " Bad release of block=POINTER at User.cc:12, which is left alone: expected the start of a block that is allocated and not yet released, and this one points into the Thing at BLOCK, allocated at Maker.cc:7\n"
common error freeAndCount " Bad release of block=POINTER (place unknown: tracking is off), which is left alone: expected the start of a block that is allocated and not yet released\n"
)");
    // A check without its release leaves nothing behind, and nothing for another thread.
    memShield.verifyPtr(released, "User.cc", 12);
    std::thread([&] { memShield.freeAndUnregister(released, "User.cc", 12); }).join();
    memShield.verifyPtr(released, "User.cc", 12);
    memShield.verifyPtr(block, "User.cc", 12);
    memShield.freeAndUnregister(released, "User.cc", 12);
    memShield.freeAndUnregister(block, "User.cc", 13);
    EXPECT_EQ(bad(), 8U);
}

TEST_F(MemLedgerTest, ReportsLiveBlocksByTypeAndPlaceMostBytesFirst) {
    EXPECT_TRUE(memShield.isMemshieldActive()) << "from the start";
    const std::string otherLiteral = "Small";
    const std::vector<void*> blocks = {allocate(500, "Small", 1),
                                       allocate(501, otherLiteral.c_str(), 1),
                                       allocate(300, "Small", 2), allocate(70'000, "Big", 1)};
    release(allocate());
    std::ostringstream text;
    text << MemLedger::report();
    EXPECT_EQ(text.str(),
              R"(live: 4 blocks, 71301 bytes; allocations: 5, releases: 1, bad releases: 0
       70000 bytes in        1 blocks of Big from Maker.cc:1
        1001 bytes in        2 blocks of Small from Maker.cc:1
         300 bytes in        1 blocks of Small from Maker.cc:2
)");
    releaseAll(blocks);
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

TEST_F(MemLedgerTest, AForkedChildFindsNothingLockedAndOneOfManyThreadsReleasesABlock) {
    std::vector<void*> blocks(1'000); // enough to lie all over the ledger
    std::generate(blocks.begin(), blocks.end(), [this] { return allocate(); });
    std::atomic<bool> over{false};
    auto busy = startTogether(1, [&] {
        while (!over) {
            release(allocate());
        }
    });
    for (int round = 0; round < 50 && !HasFailure(); ++round) {
        const pid_t child = fork();
        if (child == 0) {
            alarm(10); // ends a child that is stuck
            releaseAll(blocks);
            _exit(0);
        }
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0) << round;
    }
    over = true;
    busy.clear();
    MemLedger::setTracking(false);
    startTogether(4, [&] { releaseAll(blocks); });
    EXPECT_EQ(bad(), 3 * blocks.size());
}

} // namespace
