#include "host/program/DayList.h"
#include "host/program/FailureLog.h"
#include "host/program/LoadGenerator.h"
#include "host/program/ScratchFile.h"
#include "host/services/Clock.h"
#include "host/testing/RecordingLog.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

TEST(DayListTest, NamesDigitsAndRangesAreDays) {
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"mon,wed", "13"},    {"1,3", "13"},           {"Thursday", "4"},
        {"mon-fri", "12345"}, {"1-5", "12345"},        {"fri-Mon", "5601"},
        {"sat-sat", "6"},     {"sun,sunday,0", "000"}, {"mon-sunday", "1234560"}};
    for (const auto& [list, days] : rows) {
        std::string got;
        for (const auto day : parseDayList(list)) {
            got += std::to_string(day);
        }
        EXPECT_EQ(got, days) << list;
    }
}

TEST(DayListTest, AllElseIsRefusedByItsToken) {
    const std::vector<std::pair<std::string, std::string>> rows = {{"mon,monkey", "'monkey'"},
                                                                   {"mon;tue", "'mon;tue'"},
                                                                   {"", "''"},
                                                                   {"mon,,tue", "''"},
                                                                   {"7", "'7'"},
                                                                   {"mo", "'mo'"},
                                                                   {" mon", "' mon'"},
                                                                   {"mon-", "'mon-'"},
                                                                   {"1-2-3", "'1-2-3'"},
                                                                   {"10", "'10'"}};
    for (const auto& [list, token] : rows) {
        try {
            parseDayList(list);
            ADD_FAILURE() << list;
        } catch (const std::invalid_argument& error) {
            EXPECT_EQ(std::string(error.what()).find(token + " is no day"), 0U) << error.what();
        }
    }
}

// Each row is a second of I/Os, one each 100 ms: x failed, . did not.
TEST(FailureLogTest, FailuresAreALineASecondAndOneAtTheirEnd) {
    const RecordingLog log;
    FailureLog failures;
    u64 nowNs = nsPerSecond;
    for (const char* second :
         {"..x.......", "..........", "xxxxxxxxxx", "xxxxx.....", ".........."}) {
        for (const char* io = second; *io != '\0'; ++io, nowNs += nsPerSecond / 10) {
            *io == 'x' ? failures.failed("read " + std::to_string(nowNs / nsPerMs), nowNs)
                       : failures.succeeded(nowNs);
        }
    }
    EXPECT_EQ(log.texts(ErrorLevel),
              (std::vector<std::string>{"read 1200\n", "read 3000\n",
                                        "further I/Os failed=10, the last: read 4000\n"}));
    EXPECT_EQ(log.texts(WarnLevel),
              (std::vector<std::string>{"no I/O has failed for a second; failed in all=1\n",
                                        "no I/O has failed for a second; failed in all=15\n"}));
}

class ScratchFileTest : public testing::Test {
protected:
    const std::string folder = testing::TempDir();
};

TEST_F(ScratchFileTest, IsFilledAndHasNoName) {
    constexpr u64 size = (u64{3} << 20U) + 4096;
    std::vector<u64> progress;
    const auto namesBefore = std::distance(std::filesystem::directory_iterator(folder), {});
    const ScratchFile file(folder, size, [&](u64 filled) {
        progress.push_back(filled);
        return true;
    });
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), namesBefore);
    EXPECT_EQ(progress, (std::vector<u64>{0, 1U << 20U, 2U << 20U, 3U << 20U}));
    struct stat status {};
    ASSERT_EQ(fstat(file.descriptor(), &status), 0);
    EXPECT_EQ(status.st_nlink, 0U);
    EXPECT_EQ(status.st_size, static_cast<off_t>(size));
    const AlignedBuffer last(4096);
    ASSERT_EQ(pread(file.descriptor(), last.data(), 4096, size - 4096), 4096);
    EXPECT_EQ(last.data()[4095], std::byte{0xa5});
    EXPECT_NO_THROW(file.checkBlockSize(4096));
}

TEST_F(ScratchFileTest, FillingIsGivenUpWhenProgressSaysSo) {
    int chunks = 0;
    const ScratchFile file(folder, u64{64} << 20U, [&](u64) { return ++chunks < 3; });
    EXPECT_EQ(chunks, 3);
}

TEST_F(ScratchFileTest, ABlockThatIsNoMultipleOfTheDisksIsRefused) {
    const ScratchFile file(folder, 1U << 20U);
    if (file.isDirect()) {
        EXPECT_THROW(file.checkBlockSize(100), std::runtime_error);
    }
}

TEST_F(ScratchFileTest, MemoryIsNoDisk) {
    EXPECT_TRUE(ScratchFile("/dev/shm", 4096).isInMemory());
}

// A load of so many I/Os, run to its end.
class LoadGeneratorTest : public testing::Test {
protected:
    static constexpr u64 ios = 300;

    LoadGenerator::Counts run(u32 readPercent, u32 rate, int descriptor) {
        LoadGenerator load({4096, 4, readPercent, rate, ios, IoEngine::Kind::Automatic});
        load.start(descriptor, 1U << 20U);
        load.waitUntilIdle();
        load.stop();
        deepestQueue = load.maxima().deepestQueue;
        return load.counts();
    }

    const ScratchFile file{testing::TempDir(), 1U << 20U};
    u64 deepestQueue = 0;
};

TEST_F(LoadGeneratorTest, ReadsAreTheShareThatWasAskedFor) {
    struct Row {
        u32 percent;
        u64 fewest, most;
    };
    for (const Row& row : {Row{0, 0, 0}, {100, ios, ios}, {50, 90, 210}}) {
        const LoadGenerator::Counts counts = run(row.percent, 0, file.descriptor());
        EXPECT_EQ(counts.completed(), ios);
        EXPECT_GE(counts.reads, row.fewest);
        EXPECT_LE(counts.reads, row.most);
        EXPECT_EQ(counts.failed, 0U);
        EXPECT_EQ(deepestQueue, 4U);
    }
}

TEST_F(LoadGeneratorTest, ARateIsKept) {
    const u64 startNs = monotonicNs();
    EXPECT_EQ(run(50, 1'000, file.descriptor()).completed(), ios);
    EXPECT_GE(monotonicNs() - startNs, 290 * nsPerMs);
}

TEST_F(LoadGeneratorTest, FailuresAreCounted) {
    const RecordingLog log;
    const std::string self = "/proc/self/fd/" + std::to_string(file.descriptor());
    const int readOnly = open(self.c_str(), O_RDONLY);
    const LoadGenerator::Counts counts = run(50, 0, readOnly);
    close(readOnly);
    EXPECT_EQ(counts.failed, counts.writes);
    EXPECT_GT(counts.reads, 0U);
    EXPECT_EQ(log.texts(ErrorLevel).size(), 1U);
}

} // namespace
