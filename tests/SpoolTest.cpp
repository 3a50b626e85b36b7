#include "host/forwarding/Spool.h"

#include "host/forwarding/Sqlite.h"
#include "host/testing/RecordingLog.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>

// SQLite's calls come here, so they are exported: how often a file was brought to the disk.
static std::atomic<int> syncs{0};
extern "C" __attribute__((visibility("default"))) int fsync(int fd) {
    ++syncs;
    return static_cast<int>(syscall(SYS_fsync, fd));
}
extern "C" __attribute__((visibility("default"))) int fdatasync(int fildes) {
    ++syncs;
    return static_cast<int>(syscall(SYS_fdatasync, fildes));
}

namespace {

using Tickets = std::vector<u64>;

class SpoolTest : public testing::Test {
protected:
    void SetUp() override { std::filesystem::create_directory(folder); }
    void TearDown() override {
        spool.reset();
        std::filesystem::remove_all(folder);
    }
    void open(u64 limitBytes = 1U << 20U, bool isDurable = false) {
        spool.reset();
        spool.emplace(SpoolOptions{path, limitBytes, isDurable});
    }
    // Why not.
    std::string refusal() const {
        try {
            const Spool second(SpoolOptions{path});
            return "";
        } catch (const std::runtime_error& error) {
            return error.what();
        }
    }
    // Records of 100 bytes, which take 164.
    static Record record(u64 ticket, const std::shared_ptr<const Origin>& origin) {
        Record record;
        record.ticket = ticket;
        record.sequence = ticket + 1'000;
        record.origin = origin;
        record.line = std::string(98, 'a') + "\xc3\xa9";
        return record;
    }
    Tickets add(u64 first, u64 last) {
        std::vector<Record> records;
        for (u64 ticket = first; ticket <= last; ++ticket) {
            records.push_back(record(ticket, origin));
        }
        SpoolChange change;
        for (const Record& each : records) {
            change.added.push_back(&each);
        }
        return spool->commit(change);
    }
    void finish(const Tickets& tickets) {
        SpoolChange change;
        change.done = tickets;
        spool->commit(change);
    }
    Tickets tickets(u64 after = 0, std::size_t most = 100, std::size_t bytes = 1U << 20U) {
        Tickets result;
        for (const Record& each : spool->read(after, most, bytes)) {
            result.push_back(each.ticket);
        }
        return result;
    }
    // "boot first-last count" of each.
    std::string untold() {
        std::string text;
        for (const EvictedRange& range : spool->untold()) {
            text += (text.empty() ? "" : ", ") + range.origin.boot + " " +
                    std::to_string(range.first) + "-" + std::to_string(range.last) + " " +
                    std::to_string(range.count);
        }
        return text;
    }
    void tell(u64 ticket) {
        const Record teller = record(ticket, origin);
        SpoolChange change;
        change.added = {&teller};
        for (const EvictedRange& range : spool->untold()) {
            change.told.emplace_back(range.id, ticket);
        }
        spool->commit(change);
    }

    RecordingLog log;
    const std::string folder = testing::TempDir() + "spool." + std::to_string(getpid());
    const std::string path = folder + "/spool";
    std::shared_ptr<const Origin> origin = std::make_shared<Origin>(Origin{"host", "boot"});
    std::optional<Spool> spool;
};

TEST_F(SpoolTest, AnotherProcessFindsWhatWasNotDone) {
    open();
    EXPECT_EQ(spool->lastTicket(), 0U);
    add(1, 5);
    finish({2, 3, 5});
    open();
    EXPECT_EQ(spool->count(), 2U);
    EXPECT_EQ(spool->bytes(), 2 * 164U);
    EXPECT_EQ(spool->lastTicket(), 4U);
    EXPECT_EQ(tickets(), (Tickets{1, 4}));
    const Record found = spool->read(3, 1, 1)[0];
    const Record expected = record(4, origin);
    EXPECT_EQ(found.id(), "host-boot-1004");
    EXPECT_EQ(found.line, expected.line);
}

TEST_F(SpoolTest, ReadingStopsAtItsLimits) {
    open();
    add(1, 5);
    EXPECT_EQ(tickets(2), (Tickets{3, 4, 5}));
    EXPECT_EQ(tickets(0, 2), (Tickets{1, 2}));
    EXPECT_EQ(tickets(0, 100, 200), (Tickets{1, 2}));
    EXPECT_EQ(tickets(0, 100, 201), (Tickets{1, 2, 3}));
}

TEST_F(SpoolTest, TheOldestGoBeyondTheLimit) {
    open(3 * 164);
    EXPECT_EQ(add(1, 3), Tickets{});
    EXPECT_EQ(add(4, 5), (Tickets{1, 2}));
    EXPECT_EQ(spool->bytes(), 3 * 164U);
    finish({3});
    EXPECT_EQ(add(6, 6), Tickets{});
    EXPECT_EQ(spool->count(), 3U);
    EXPECT_EQ(untold(), "boot 1001-1002 2");
}

TEST_F(SpoolTest, EvictedRangesAreKeptForEachBoot) {
    open(164);
    add(1, 3);
    origin = std::make_shared<Origin>(Origin{"host", "later"});
    add(4, 6);
    EXPECT_EQ(untold(), "boot 1001-1003 3, later 1004-1005 2");
    open(164);
    EXPECT_EQ(untold(), "boot 1001-1003 3, later 1004-1005 2");
}

TEST_F(SpoolTest, ARangeIsForgottenWhenARecordHasToldIt) {
    open(2 * 164);
    add(1, 3);
    tell(4);
    EXPECT_EQ(untold(), "boot 1002-1002 1") << "the record that tells has evicted one";
    finish({4});
    open(2 * 164);
    EXPECT_EQ(untold(), "boot 1002-1002 1");
}

TEST_F(SpoolTest, ARangeWhoseTellerIsEvictedIsUntoldAgain) {
    open(2 * 164);
    add(1, 3);
    tell(4);
    add(5, 6);
    EXPECT_EQ(tickets(), (Tickets{5, 6}));
    EXPECT_EQ(untold(), "boot 1001-1001 1, boot 1002-1004 3");
}

TEST_F(SpoolTest, AChangeThatFailsLeavesEverythingAsItWas) {
    open();
    add(1, 2);
    const Record fresh = record(3, std::make_shared<Origin>(Origin{"host", "other"}));
    const Record again = record(2, fresh.origin);
    SpoolChange change;
    change.done = {1};
    change.added = {&fresh, &again}; // a ticket that is there
    EXPECT_THROW(spool->commit(change), SpoolError);
    EXPECT_EQ(tickets(), (Tickets{1, 2}));
    EXPECT_EQ(spool->count(), 2U);
    EXPECT_EQ(spool->bytes(), 2 * 164U);
    EXPECT_EQ(spool->lastTicket(), 2U);
    change.added = {&fresh};
    spool->commit(change);
    EXPECT_EQ(spool->read(2, 1, 1)[0].origin->boot, "other");
}

TEST_F(SpoolTest, ADurableCommitIsBroughtToTheDisk) {
    for (const bool isDurable : {false, true}) {
        open(1U << 20U, isDurable);
        const int before = syncs;
        add(spool->lastTicket() + 1, spool->lastTicket() + 1);
        EXPECT_EQ(syncs > before, isDurable);
    }
}

TEST_F(SpoolTest, ADamagedFileIsPutAsideUnderAFreeName) {
    std::ofstream(path + ".damaged-1") << "earlier";
    std::ofstream(path) << std::string(10'000, 'x');
    open();
    EXPECT_EQ(spool->count(), 0U);
    EXPECT_EQ(std::filesystem::file_size(path + ".damaged-1"), 7U);
    EXPECT_EQ(std::filesystem::file_size(path + ".damaged-2"), 10'000U);
    EXPECT_EQ(log.texts(ErrorLevel).back(),
              "the damaged spool '" + path + "' is put aside as '" + path + ".damaged-2'\n");
}

TEST_F(SpoolTest, DamageWithinTheFileIsFoundAtTheStart) {
    open();
    add(1, 100);
    spool.reset();
    std::fstream file(path, std::ios::in | std::ios::out);
    file.seekp(5 * 4096);
    file << std::string(2 * 4096, 'x');
    file.close();
    open();
    EXPECT_EQ(spool->count(), 0U);
    EXPECT_TRUE(std::filesystem::exists(path + ".damaged-1"));
}

TEST_F(SpoolTest, WhatIsNotOursIsRefusedWithTheReason) {
    open();
    EXPECT_EQ(refusal(), "the spool '" + path + "' is in use by another process");
    spool.reset();
    std::filesystem::remove(path);
    SqliteDatabase(path).run("CREATE TABLE other(a)");
    EXPECT_EQ(refusal(), "'" + path + "' is a database, but no spool of this version");
    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
    EXPECT_EQ(refusal(), "the spool '" + path + "': unable to open database file");
}

} // namespace
