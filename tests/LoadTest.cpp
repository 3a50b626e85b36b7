#include "host/program/DayList.h"
#include "host/program/FailureLog.h"
#include "host/program/LoadGenerator.h"
#include "host/program/ScratchFile.h"
#include "host/services/Clock.h"
#include "host/services/FileDescriptor.h"
#include "host/testing/LogText.h"
#include "tests/support/Files.h"
#include "tests/support/RefuseCall.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>

namespace {

// Each row is a list and its days, or what of it is refused.
TEST(DayListTest, NamesDigitsAndRangesAreDaysAndNothingElse) {
    for (const std::string row :
         {"mon,wed=13", "1,3=13", "Thursday=4", "mon-fri=12345", "1-5=12345", "fri-Mon=5601",
          "sat-sat=6", "sun,sunday,0=000", "mon-sunday=1234560", "mon,monkey='monkey'",
          "mon;tue='mon;tue'", "=''", "mon,,tue=''", "7='7'", "mo='mo'", " mon=' mon'",
          "mon-='mon-'", "1-2-3='1-2-3'", "10='10'"}) {
        std::string days;
        const std::string error = messageOf([&] {
            for (const auto day : parseDayList(row.substr(0, row.find('=')))) {
                days += std::to_string(day);
            }
        });
        EXPECT_EQ(days.empty() ? error.substr(0, error.find(" is no day; expected")) : days,
                  row.substr(row.find('=') + 1));
    }
}

// Each row is a second of I/Os, one each 100 ms: x failed, . did not.
TEST(FailureLogTest, FailuresAreALineASecondAndOneAtTheirEnd) {
    const RecordingLog log;
    FailureLog failures;
    u64 nowNs = nsPerSecond;
    for (const char* second :
         {"..x..x....", "..........", "xxxxxxxxxx", "xxxxx.....", ".........."}) {
        for (const char* io = second; *io != '\0'; ++io, nowNs += nsPerSecond / 10) {
            const bool isRead = nowNs % 3 == 0;
            *io == 'x' ? failures.failed({isRead, nowNs / nsPerMs, isRead ? -EIO : 5, 7}, nowNs)
                       : failures.succeeded(nowNs);
        }
    }
    EXPECT_EQ("\n" + toBriefText(log), R"(
common error failed "read failed at offset=1200: Input/output error\n"
common warn succeeded "no I/O has failed for a second; failed in all=2\n"
common error failed "read failed at offset=3000: Input/output error\n"
common error failed "further I/Os failed=10, the last: write failed at offset=4000: moved 5 bytes of 7\n"
common warn succeeded "no I/O has failed for a second; failed in all=15\n"
)");
}

class ScratchFileTest : public testing::Test {
protected:
    static constexpr u64 size = (u64{3} << 20U) + 4096;

    void expectWhole(const ScratchFile& file) const {
        struct stat status {};
        ASSERT_EQ(fstat(file.descriptor(), &status), 0);
        EXPECT_EQ(status.st_nlink, 0U);
        EXPECT_EQ(status.st_size, static_cast<off_t>(size));
        EXPECT_EQ(fcntl(file.descriptor(), F_GETFD), FD_CLOEXEC);
        const AlignedBuffer last(4096);
        ASSERT_EQ(pread(file.descriptor(), last.data(), 4096, size - 4096), 4096);
        EXPECT_EQ(last.data()[4095], std::byte{0xa5});
        EXPECT_EQ(file.isDirect(), (fcntl(file.descriptor(), F_GETFL) & O_DIRECT) != 0);
    }

    const TempFolder temporary;
    const std::string folder = temporary / "";
};

TEST_F(ScratchFileTest, IsFilledFromItsStartToItsEndUnlessProgressSaysNo) {
    std::vector<u64> progress;
    const auto keep = [&](u64 filled) {
        progress.push_back(filled);
        return progress.size() != 7;
    };
    const ScratchFile file(folder, size, keep);
    expectWhole(file);
    const ScratchFile half(folder, u64{64} << 20U, keep);
    EXPECT_EQ(progress,
              (std::vector<u64>{0, 1U << 20U, 2U << 20U, 3U << 20U, 0, 1U << 20U, 2U << 20U}));
}

// Each row is a system call that is refused where an argument has these bits, and the failure.
TEST_F(ScratchFileTest, WhatAFileSystemLacksIsDoneWithout) {
    constexpr u32 unnamed = O_TMPFILE & ~O_DIRECTORY;
    const std::tuple<std::vector<std::array<u32, 4>>, const char*> rows[] = {
        {{{SYS_openat, EOPNOTSUPP, 2, unnamed}}, "no error"},
        {{{SYS_openat, EINVAL, 2, O_DIRECT}}, "no error"},
        {{{SYS_openat, EINVAL, 2, O_DIRECT}, {SYS_openat, EOPNOTSUPP, 2, unnamed}}, "no error"},
        {{{SYS_fallocate, EOPNOTSUPP, 0, 0}}, "no error"},
        {{{SYS_fallocate, ENOSYS, 0, 0}}, "no error"},
        {{{SYS_fallocate, ENOSPC, 0, 0}}, "cannot reserve the scratch file"},
        {{{SYS_pwrite64, EIO, 0, 0}}, "(expected room for 3149824 bytes, see --size)"},
        {{{SYS_pread64, EINVAL, 2, 4096}, {SYS_pwrite64, EIO, 3, 1U << 20U}}, "cannot read 4096 "},
        {{{SYS_openat, EOPNOTSUPP, 2, unnamed}, {SYS_unlink, EPERM, 0, 0}},
         "cannot remove the name"}};
    for (const auto& [refusals, failure] : rows) {
        const int next = dup(0); // the lowest number that is free
        close(next);
        std::thread([&, calls = refusals, expected = std::string(failure)] {
            for (const auto& [call, error, argument, bits] : calls) {
                ASSERT_TRUE(refuseCall(call, error, argument, bits));
            }
            EXPECT_TRUE(
                holds(messageOf([&] { expectWhole(ScratchFile(folder, size)); }), expected));
        }).join();
        EXPECT_EQ(fcntl(next, F_GETFD), -1) << "left open: " << failure;
    }
}

TEST_F(ScratchFileTest, TheDeviceIsThatOfItsFolder) {
    const FileSystem found = ScratchFile(folder, 4096).fileSystem();
    const std::string df =
        "test \"$(df --output=fstype,source " + folder + " | tail -n 1 | tr -s ' ')\"";
    EXPECT_EQ(std::system((df + " = '" + found.type + " " + found.device + "'").c_str()), 0);
}

// A load of so many I/Os, run to its end.
class LoadGeneratorTest : public testing::Test {
protected:
    static constexpr u64 ios = 600;
    static constexpr u64 fileSize = 8 * 4096;

    LoadGenerator::Counts run(u32 readPercent, u32 rate, int descriptor, u32 queueDepth = 4) {
        LoadGenerator load({4096, queueDepth, readPercent, rate, ios, IoEngine::Kind::Automatic});
        load.start(descriptor, fileSize);
        load.waitUntilIdle();
        EXPECT_EQ(load.inFlight(), 0U);
        load.stop();
        load.stop();
        deepestQueue = load.maxima().deepestQueue;
        return load.counts();
    }

    const ScratchFile file{testing::TempDir(), fileSize};
    const std::string self = "/proc/self/fd/" + std::to_string(file.descriptor());
    u64 deepestQueue = 0;
};

TEST_F(LoadGeneratorTest, ReadsAreTheShareThatWasAskedForAndWritesCoverTheFile) {
    const AlignedBuffer all(fileSize);
    const auto zeros = [&] {
        EXPECT_EQ(pread(file.descriptor(), all.data(), fileSize, 0), fileSize);
        return std::count(all.data(), all.data() + fileSize, std::byte{0});
    };
    for (const auto& [percent, fewest, most] :
         {std::tuple(100U, ios, ios), {0U, u64{0}, u64{0}}, {25U, u64{90}, u64{210}}}) {
        const LoadGenerator::Counts counts = run(percent, 0, file.descriptor());
        EXPECT_EQ(counts.completed(), ios);
        EXPECT_GE(counts.reads, fewest);
        EXPECT_LE(counts.reads, most);
        EXPECT_EQ(counts.failed, 0U);
        EXPECT_EQ(deepestQueue, 4U);
        EXPECT_EQ(zeros(), percent == 100 ? 0 : fileSize);
        EXPECT_EQ(std::filesystem::file_size(self), fileSize);
    }
}

// Each row is a queue depth, a rate, and the most seconds it may take, as the machine may be busy.
// The first row has more places than I/Os, so that its queue is never full.
// The last rate is out of reach: each I/O has to follow the one before at once.
TEST_F(LoadGeneratorTest, ARateIsKept) {
    const FileDescriptor cached(open(self.c_str(), O_RDWR));
    for (const auto& [depth, rate, most] :
         {std::tuple(1'000U, 500U, 9.6), {4U, 2'000U, 2.4}, {1U, 100'000U, 0.5}}) {
        const u64 startNs = monotonicNs();
        EXPECT_EQ(run(50, rate, cached.get(), depth).completed(), ios);
        EXPECT_LE(deepestQueue, ios);
        const double seconds = static_cast<double>(monotonicNs() - startNs) / nsPerSecond;
        EXPECT_GE(seconds, 0.9 * ios / rate);
        EXPECT_LE(seconds, most) << rate;
    }
}

TEST_F(LoadGeneratorTest, BuffersThatCannotBeHadAreNamed) {
    EXPECT_EQ(messageOf([] {
                  LoadGenerator({~511U, ~0U, 0, 0, 0, IoEngine::Kind::Automatic});
              }),
              "no memory for 4294967295 buffers of 4294966784 bytes (expected fewer or smaller "
              "ones, see --queue-depth and --block-size)");
}

} // namespace
