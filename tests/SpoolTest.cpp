#include "host/forwarding/Spool.h"

#include "host/forwarding/Sqlite.h"
#include "host/testing/RecordingLog.h"
#include "tests/support/Examples.h"
#include "tests/support/Files.h"

#include <sys/syscall.h>

// SQLite's call comes here, so it is exported: how often a file was brought to the disk.
static std::atomic<int> syncs{0};
extern "C" __attribute__((visibility("default"))) int fdatasync(int fildes) {
    ++syncs;
    return static_cast<int>(syscall(SYS_fdatasync, fildes));
}

namespace {

class SpoolTest : public testing::Test {
protected:
    void open(u64 limitBytes = 1U << 20U, bool isDurable = false) {
        spool.emplace(SpoolOptions{path, limitBytes, isDurable});
    }
    // Adds the tickets `first` to `last`; the first may tell what was evicted.
    std::string add(u64 first, u64 last, bool tells = false) {
        std::map<u64, Record> records;
        SpoolChange change;
        for (u64 ticket = first; ticket <= last; ++ticket) {
            change.added.push_back(&(records[ticket] = makeRecord(ticket, "boot", line)));
        }
        for (const EvictedRange& range : tells ? spool->untold() : std::vector<EvictedRange>()) {
            change.told.emplace_back(range.id, first);
        }
        spool->commit(change);
        return state();
    }
    // The tickets, what the spool says of itself, and "boot first-last: count" of what was evicted.
    std::string state() {
        std::ostringstream text;
        for (const Record& each : spool->read(0, 100, 1U << 20U)) {
            text << each.ticket << " ";
        }
        text << "(" << spool->count() << ", " << spool->bytes() << " bytes, last "
             << spool->lastTicket() << (spool->hasRoom() ? ")" : ", full)");
        for (const EvictedRange& range : spool->untold()) {
            text << " " << range.origin.boot << " " << range.first << "-" << range.last << ": "
                 << range.count;
        }
        EXPECT_EQ(spool->hasUntold(), !spool->untold().empty());
        return text.str();
    }

    const std::string line = std::string(98, 'a') + "\xc3\xa9"; // a record takes 64 more
    RecordingLog log;
    const TempFolder folder;
    const std::string path = folder / "spool";
    std::optional<Spool> spool;
};

TEST_F(SpoolTest, ARangeIsForgottenWhenARecordHasToldIt) {
    open(2 * 164);
    add(1, 3);
    EXPECT_EQ(add(4, 4, true), "3 4 (2, 328 bytes, last 4, full) boot 1002-1002: 1")
        << "evicted by the teller";
    spool->commit({{4}, {}, {}});
    open(2 * 164);
    EXPECT_EQ(state(), "3 (1, 164 bytes, last 3) boot 1002-1002: 1");
    add(4, 4, true); // the same ticket as the forgotten one's
    EXPECT_EQ(add(6, 7), "6 7 (2, 328 bytes, last 7, full) boot 1002-1002: 1 "
                         "boot 1003-1004: 2")
        << "the teller is evicted";
}

TEST_F(SpoolTest, ADurableCommitIsBroughtToTheDisk) {
    for (const bool isDurable : {false, true}) {
        open(1U << 20U, isDurable);
        const int before = syncs;
        add(1 + isDurable, 1 + isDurable);
        EXPECT_EQ(syncs > before, isDurable);
    }
}

TEST_F(SpoolTest, DamageIsFoundAndTheFilePutAsideUnderAFreeName) {
    open();
    add(1, 100);
    spool.reset();
    std::string bytes = folder.read("spool"); // the third page, an index, is not read by itself
    for (const auto& [suffix, damaged] :
         {std::pair(".damaged-1", std::string(10'000, 'x')),
          {".damaged-2", bytes.replace(8'192, 4'096, 4'096, 'x')}}) {
        spool.reset();
        folder.write("spool", damaged);
        open();
        EXPECT_EQ(state(), "(0, 0 bytes, last 0)");
        EXPECT_EQ(readFile(path + suffix), damaged);
        EXPECT_EQ(log.texts(ErrorLevel).back(),
                  "the damaged spool '" + path + "' is put aside as '" + path + suffix + "'\n");
    }
    add(1, 1);
    spool.reset();
    SqliteDatabase(path).run("DELETE FROM origins");
    open();
    EXPECT_THROW(spool->read(0, 1, 1), SpoolDamage) << "a record of an unknown process";
}

TEST_F(SpoolTest, WhatIsNotOursIsRefusedWithTheReason) {
    const auto refusal = [this] {
        return messageOf([this] { const Spool second(SpoolOptions{path}); });
    };
    open();
    EXPECT_EQ(refusal(), "the spool '" + path + "' is in use by another process");
    spool.reset();
    for (const char* sql :
         {"PRAGMA user_version=2", "PRAGMA user_version=1; PRAGMA application_id=2"}) {
        SqliteDatabase(path).run(sql);
        EXPECT_EQ(refusal(), "'" + path + "' is a database, but no spool of this version");
    }
    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
    EXPECT_EQ(refusal(), "the spool '" + path + "': unable to open database file");
}

} // namespace
