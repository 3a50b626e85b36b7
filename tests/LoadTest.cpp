#include "host/program/DayList.h"
#include "host/program/FailureLog.h"
#include "host/program/LoadGenerator.h"
#include "host/program/ScratchFile.h"
#include "host/services/Clock.h"
#include "host/testing/RecordingLog.h"
#include "tests/support/RefuseCall.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
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
    static std::ptrdiff_t descriptors() {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    }

    const std::string folder = testing::TempDir();
};

TEST_F(ScratchFileTest, IsFilledFromItsStartToItsEnd) {
    std::vector<u64> progress;
    const ScratchFile file(folder, size, [&](u64 filled) {
        progress.push_back(filled);
        return true;
    });
    EXPECT_EQ(progress, (std::vector<u64>{0, 1U << 20U, 2U << 20U, 3U << 20U}));
    expectWhole(file);
    EXPECT_NO_THROW(file.checkBlockSize(4096));
}

// Each row is a system call that is refused where an argument has these bits, and the failure.
TEST_F(ScratchFileTest, WhatAFileSystemLacksIsDoneWithout) {
    constexpr u32 unnamed = O_TMPFILE & ~O_DIRECTORY;
    const std::tuple<std::vector<std::array<u32, 4>>, const char*> rows[] = {
        {{{SYS_openat, EOPNOTSUPP, 2, unnamed}}, ""},
        {{{SYS_openat, EINVAL, 2, O_DIRECT}}, ""},
        {{{SYS_openat, EINVAL, 2, O_DIRECT}, {SYS_openat, EOPNOTSUPP, 2, unnamed}}, ""},
        {{{SYS_fallocate, EOPNOTSUPP, 0, 0}}, ""},
        {{{SYS_fallocate, ENOSYS, 0, 0}}, ""},
        {{{SYS_fallocate, ENOSPC, 0, 0}}, "cannot reserve the scratch file"},
        {{{SYS_pwrite64, EIO, 0, 0}}, "cannot fill the scratch file"},
        {{{SYS_openat, EOPNOTSUPP, 2, unnamed}, {SYS_unlink, EPERM, 0, 0}}, "cannot remove the n"}};
    for (const auto& [refusals, failure] : rows) {
        const std::string before = std::to_string(descriptors());
        std::thread([&, calls = refusals, expected = std::string(failure)] {
            for (const auto& [call, error, argument, bits] : calls) {
                ASSERT_TRUE(refuseCall(call, error, argument, bits));
            }
            std::string failed;
            try {
                expectWhole(ScratchFile(folder, size));
            } catch (const std::runtime_error& error) {
                failed = error.what();
            }
            EXPECT_EQ(failed.substr(0, expected.size()), expected) << failed;
            EXPECT_EQ(failed.empty(), expected.empty()) << failed;
        }).join();
        EXPECT_EQ(std::to_string(descriptors()), before) << failure;
    }
    for (const auto& each : std::filesystem::directory_iterator(folder)) {
        if (each.path().filename().string().rfind("analytics-host.", 0) == 0) {
            std::filesystem::remove(each); // what could not be unlinked above
        }
    }
}

TEST_F(ScratchFileTest, FillingIsGivenUpWhenProgressSaysSo) {
    int chunks = 0;
    const ScratchFile file(folder, u64{64} << 20U, [&](u64) { return ++chunks < 3; });
    EXPECT_EQ(chunks, 3);
}

TEST_F(ScratchFileTest, MemoryIsNoDisk) {
    const ScratchFile file("/dev/shm", 4096);
    EXPECT_TRUE(file.isInMemory());
    EXPECT_EQ(file.fileSystem().type, "tmpfs");
}

TEST_F(ScratchFileTest, TheDeviceIsThatOfItsFolder) {
    const std::unique_ptr<FILE, int (*)(FILE*)> df(
        popen(("df --output=fstype,source " + folder + " | tail -n 1").c_str(), "r"), pclose);
    char type[64], device[1024];
    ASSERT_EQ(fscanf(df.get(), "%63s %1023s", type, device), 2);
    const FileSystem found = ScratchFile(folder, 4096).fileSystem();
    EXPECT_EQ(found.type, type);
    EXPECT_EQ(found.device, device);
}

// A load of so many I/Os, run to its end.
class LoadGeneratorTest : public testing::Test {
protected:
    static constexpr u64 ios = 600;
    static constexpr u64 fileSize = 8 * 4096;

    LoadGenerator::Counts run(u32 readPercent, u32 rate, int descriptor) {
        LoadGenerator load({4096, 4, readPercent, rate, ios, IoEngine::Kind::Automatic});
        load.start(descriptor, fileSize);
        load.waitUntilIdle();
        EXPECT_EQ(load.inFlight(), 0U);
        load.stop();
        load.stop();
        deepestQueue = load.maxima().deepestQueue;
        return load.counts();
    }

    const ScratchFile file{testing::TempDir(), fileSize};
    u64 deepestQueue = 0;
};

TEST_F(LoadGeneratorTest, ReadsAreTheShareThatWasAskedFor) {
    for (const auto& [percent, fewest, most] :
         {std::tuple(0U, u64{0}, u64{0}), {100U, ios, ios}, {25U, u64{90}, u64{210}}}) {
        const LoadGenerator::Counts counts = run(percent, 0, file.descriptor());
        EXPECT_EQ(counts.completed(), ios);
        EXPECT_GE(counts.reads, fewest);
        EXPECT_LE(counts.reads, most);
        EXPECT_EQ(counts.failed, 0U);
        EXPECT_EQ(deepestQueue, 4U);
    }
}

TEST_F(LoadGeneratorTest, EachBlockOfTheFileIsWritten) {
    run(0, 0, file.descriptor());
    const AlignedBuffer all(fileSize);
    ASSERT_EQ(pread(file.descriptor(), all.data(), fileSize, 0), fileSize);
    EXPECT_EQ(std::count(all.data(), all.data() + fileSize, std::byte{0}), fileSize);
    struct stat status {};
    fstat(file.descriptor(), &status);
    EXPECT_EQ(status.st_size, fileSize);
}

TEST_F(LoadGeneratorTest, ARateIsKept) {
    for (const u32 rate : {500U, 2'000U}) {
        const u64 startNs = monotonicNs();
        EXPECT_EQ(run(50, rate, file.descriptor()).completed(), ios);
        const double seconds = static_cast<double>(monotonicNs() - startNs) / nsPerSecond;
        EXPECT_GE(seconds, 0.9 * ios / rate);
        EXPECT_LE(seconds, 3.0 * ios / rate);
    }
}

TEST_F(LoadGeneratorTest, FailuresAreCounted) {
    const RecordingLog log;
    const std::string self = "/proc/self/fd/" + std::to_string(file.descriptor());
    const int readOnly = open(self.c_str(), O_RDONLY);
    const LoadGenerator::Counts counts = run(50, 0, readOnly);
    close(readOnly);
    EXPECT_EQ(counts.failed, counts.writes);
    EXPECT_GT(counts.reads, 0U);
    const std::vector<std::string> lines = log.texts(ErrorLevel);
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].substr(0, 23), "write failed at offset=") << lines[0];
    EXPECT_NE(lines[0].find(": Bad file descriptor\n"), std::string::npos) << lines[0];
}

TEST_F(LoadGeneratorTest, AnIoThatMovesLessHasFailed) {
    const RecordingLog log;
    ASSERT_EQ(ftruncate(file.descriptor(), 0), 0);
    EXPECT_EQ(run(100, 0, file.descriptor()).failed, ios);
    EXPECT_NE(log.texts(ErrorLevel).at(0).find(": moved 0 bytes of 4096\n"), std::string::npos);
}

TEST_F(LoadGeneratorTest, BuffersThatCannotBeHadAreNamed) {
    try {
        const LoadGenerator load({~511U, ~0U, 0, 0, 0, IoEngine::Kind::Automatic});
        ADD_FAILURE();
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(std::string(error.what()).find("no memory for 4294967295 buffers of 4294966784"),
                  0U);
    }
}

} // namespace
