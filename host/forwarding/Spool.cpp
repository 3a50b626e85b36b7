#include "host/forwarding/Spool.h"

#include "common/infra/Log.h"
#include "host/forwarding/Sqlite.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <map>
#include <system_error>

namespace {

constexpr u64 applicationId = 0x616e6c79; // marks the file as a spool
constexpr u64 formatVersion = 1;
constexpr u64 rowBytes = 64; // what a record takes beside its line, about

u64 costOf(u64 lineBytes) {
    return lineBytes + rowBytes;
}

// `told` is the ticket of the record that tells of a range, 0 if there is none.
constexpr const char* tables = R"(
    CREATE TABLE IF NOT EXISTS origins(id INTEGER PRIMARY KEY, host TEXT NOT NULL, boot TEXT NOT NULL,
                                       UNIQUE(host, boot));
    CREATE TABLE IF NOT EXISTS records(ticket INTEGER PRIMARY KEY, origin INTEGER NOT NULL,
                                       sequence INTEGER NOT NULL, line BLOB NOT NULL);
    CREATE TABLE IF NOT EXISTS evicted(id INTEGER PRIMARY KEY, origin INTEGER NOT NULL,
                                       first INTEGER NOT NULL, last INTEGER NOT NULL,
                                       count INTEGER NOT NULL, told INTEGER NOT NULL DEFAULT 0);
    DELETE FROM origins WHERE id NOT IN (SELECT origin FROM records UNION SELECT origin FROM evicted);
)";

[[noreturn]] void passOn(const std::string& path, const SqliteError& error) {
    const std::string text = "the spool '" + path + "': " + error.what();
    if (error.isDamage()) {
        throw SpoolDamage(text);
    }
    throw SpoolError(error.isBusy() ? "the spool '" + path + "' is in use by another process"
                                    : text);
}

bool exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

SqliteDatabase openDatabase(const SpoolOptions& options) {
    SqliteDatabase database(options.path);
    database.run("PRAGMA locking_mode=EXCLUSIVE");
    const u64 present = database.number("PRAGMA application_id");
    const bool isNew = database.number("SELECT COUNT(*) FROM sqlite_master") == 0;
    if (!isNew &&
        (present != applicationId || database.number("PRAGMA user_version") != formatVersion)) {
        throw SpoolError("'" + options.path + "' is a database, but no spool of this version");
    }
    database.run("PRAGMA journal_mode=WAL");
    database.run(options.isDurable ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=NORMAL");
    database.run("PRAGMA journal_size_limit=0"); // the log of changes is cut after its peaks
    const std::string verdict = database.text("PRAGMA quick_check(1)");
    if (verdict != "ok") {
        throw SpoolDamage(verdict);
    }
    SqliteTransaction transaction(database); // takes the lock, and keeps it
    database.run("PRAGMA application_id=" + std::to_string(applicationId));
    database.run("PRAGMA user_version=" + std::to_string(formatVersion));
    database.run(tables);
    transaction.commit();
    return database;
}

} // namespace

struct Spool::Totals {
    u64 count;
    u64 bytes;
    u64 lastTicket;
    bool hasUntold;
};

// The connection and its statements.
struct Spool::Tables {
    explicit Tables(const SpoolOptions& options) : database(openDatabase(options)) {}

    SqliteDatabase database;

    SqliteStatement insert{
        database, "INSERT INTO records(ticket, origin, sequence, line) VALUES(?, ?, ?, ?)"};
    SqliteStatement remove{
        database, "DELETE FROM records WHERE ticket BETWEEN ? AND ? RETURNING LENGTH(line)"};
    SqliteStatement oldest{
        database, "SELECT ticket, origin, sequence, LENGTH(line) FROM records ORDER BY ticket"};
    SqliteStatement after{database, "SELECT ticket, origin, sequence, line FROM records "
                                    "WHERE ticket > ? ORDER BY ticket LIMIT ?"};
    SqliteStatement addOrigin{database, "INSERT OR IGNORE INTO origins(host, boot) VALUES(?, ?)"};
    SqliteStatement findOrigin{database, "SELECT id FROM origins WHERE host = ? AND boot = ?"};
    SqliteStatement readOrigin{database, "SELECT host, boot FROM origins WHERE id = ?"};

    SqliteStatement growRange{database,
                              "UPDATE evicted SET last = ?, count = count + 1 WHERE id = "
                              "(SELECT MAX(id) FROM evicted WHERE origin = ? AND told = 0) "
                              "RETURNING id"};
    SqliteStatement addRange{database,
                             "INSERT INTO evicted(origin, first, last, count) VALUES(?, ?, ?, 1)"};
    SqliteStatement tell{database, "UPDATE evicted SET told = ? WHERE id = ?"};
    SqliteStatement untell{database, "UPDATE evicted SET told = 0 WHERE told = ? RETURNING id"};
    SqliteStatement forget{database, "DELETE FROM evicted WHERE told BETWEEN ? AND ?"};
    SqliteStatement untold{database, "SELECT id, origin, first, last, count FROM evicted "
                                     "WHERE told = 0 ORDER BY id"};

    // The origin of the record that was added last, with its id; and those that were read, by id.
    std::shared_ptr<const Origin> lastAdded;
    u64 lastAddedId = 0;
    std::map<u64, std::shared_ptr<const Origin>> origins;

    u64 idOf(const std::shared_ptr<const Origin>& origin);
    std::shared_ptr<const Origin> origin(u64 id);
    bool hasUntold() { return database.number("SELECT COUNT(*) FROM evicted WHERE told = 0") > 0; }
};

u64 Spool::Tables::idOf(const std::shared_ptr<const Origin>& origin) {
    if (origin == lastAdded) {
        return lastAddedId;
    }
    for (SqliteStatement* each : {&addOrigin, &findOrigin}) {
        each->bind(1, origin->host);
        each->bind(2, origin->boot);
    }
    addOrigin.run();
    while (findOrigin.next()) {
        lastAddedId = findOrigin.number(0);
    }
    lastAdded = origin;
    return lastAddedId;
}

std::shared_ptr<const Origin> Spool::Tables::origin(u64 id) {
    std::shared_ptr<const Origin>& known = origins[id];
    if (known == nullptr) {
        for (readOrigin.bind(1, id); readOrigin.next();) {
            known = std::make_shared<Origin>(Origin{readOrigin.text(0), readOrigin.text(1)});
        }
    }
    if (known == nullptr) {
        throw SqliteError::ofDamage("a record's process is missing");
    }
    return known;
}

Spool::Spool(const SpoolOptions& options) : m_options(options) {
    openOrPutAside();
}

Spool::~Spool() = default;

void Spool::openOrPutAside() {
    try {
        open();
    } catch (const SpoolDamage& damage) {
        LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3) << damage.what() << std::endl;
        startAnew();
    }
}

void Spool::open() {
    try {
        m_tables = std::make_unique<Tables>(m_options);
        SqliteDatabase& database = m_tables->database;
        m_count = database.number("SELECT COUNT(*) FROM records");
        m_bytes = database.number("SELECT SUM(LENGTH(line)) FROM records") + m_count * rowBytes;
        m_lastTicket = database.number("SELECT MAX(ticket) FROM records");
        m_hasUntold = m_tables->hasUntold();
    } catch (const SqliteError& error) {
        m_tables.reset();
        passOn(m_options.path, error);
    }
}

void Spool::startAnew() {
    m_tables.reset();
    if (exists(m_options.path)) {
        putAside();
    }
    open();
}

// With the log of changes that belongs to it.
void Spool::putAside() const {
    const std::string& path = m_options.path;
    u64 number = 1;
    while (exists(path + ".damaged-" + std::to_string(number))) {
        ++number;
    }
    const std::string aside = path + ".damaged-" + std::to_string(number);
    if (std::rename(path.c_str(), aside.c_str()) != 0) {
        throw SpoolError("cannot put the damaged spool '" + path +
                         "' aside: " + std::generic_category().message(errno));
    }
    static_cast<void>(std::rename((path + "-wal").c_str(), (aside + "-wal").c_str()));
    LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
        << "the damaged spool '" << path << "' is put aside as '" << aside << "'" << std::endl;
}

std::vector<u64> Spool::commit(const SpoolChange& change) {
    Totals totals{m_count, m_bytes, m_lastTicket, m_hasUntold};
    std::vector<u64> evicted;
    m_tables->lastAdded = nullptr; // a transaction that failed may have added it
    try {
        SqliteTransaction transaction(m_tables->database);
        evicted = this->change(change, totals);
        transaction.commit();
    } catch (const SqliteError& error) {
        passOn(m_options.path, error);
    }
    m_count = totals.count;
    m_bytes = totals.bytes;
    m_lastTicket = totals.lastTicket;
    m_hasUntold = totals.hasUntold;
    return evicted;
}

std::vector<u64> Spool::change(const SpoolChange& change, Totals& totals) {
    remove(change.done, totals);
    for (const Record* record : change.added) {
        insert(*record, totals);
    }
    for (const auto& [range, ticket] : change.told) {
        m_tables->tell.bind(1, ticket);
        m_tables->tell.bind(2, range);
        m_tables->tell.run();
    }
    if (!change.told.empty()) {
        totals.hasUntold = m_tables->hasUntold();
    }
    return evict(totals);
}

// In runs of consecutive tickets, of which there are few.
void Spool::remove(const std::vector<u64>& tickets, Totals& totals) {
    for (auto first = tickets.begin(); first != tickets.end();) {
        auto last = first;
        while (last + 1 != tickets.end() && *(last + 1) == *last + 1) {
            ++last;
        }
        m_tables->remove.bind(1, *first);
        m_tables->remove.bind(2, *last);
        while (m_tables->remove.next()) {
            --totals.count;
            totals.bytes -= costOf(m_tables->remove.number(0));
        }
        m_tables->forget.bind(1, *first);
        m_tables->forget.bind(2, *last);
        m_tables->forget.run();
        first = last + 1;
    }
}

void Spool::insert(const Record& record, Totals& totals) {
    SqliteStatement& insert = m_tables->insert;
    insert.bind(1, record.ticket);
    insert.bind(2, m_tables->idOf(record.origin));
    insert.bind(3, record.sequence);
    insert.bindBytes(4, record.line);
    insert.run();
    ++totals.count;
    totals.bytes += costOf(record.line.size());
    totals.lastTicket = record.ticket;
}

std::vector<u64> Spool::evict(Totals& totals) {
    struct Row {
        u64 ticket, origin, sequence, cost;
    };
    std::vector<Row> rows;
    u64 bytes = totals.bytes;
    m_tables->oldest.reset();
    while (bytes > m_options.limitBytes && m_tables->oldest.next()) {
        const SqliteStatement& row = m_tables->oldest;
        rows.push_back({row.number(0), row.number(1), row.number(2), costOf(row.number(3))});
        bytes -= rows.back().cost;
    }
    m_tables->oldest.reset();
    std::vector<u64> tickets;
    for (const Row& row : rows) {
        tickets.push_back(row.ticket);
        m_tables->untell.bind(1, row.ticket); // before its removal forgets the range
        m_tables->untell.run();
        m_tables->growRange.bind(1, row.sequence);
        m_tables->growRange.bind(2, row.origin);
        bool grown = false;
        while (m_tables->growRange.next()) {
            grown = true;
        }
        if (!grown) {
            m_tables->addRange.bind(1, row.origin);
            m_tables->addRange.bind(2, row.sequence);
            m_tables->addRange.bind(3, row.sequence);
            m_tables->addRange.run();
        }
    }
    remove(tickets, totals);
    totals.hasUntold = totals.hasUntold || !rows.empty();
    return tickets;
}

std::vector<Record> Spool::read(u64 ticket, std::size_t maxRecords, std::size_t maxBytes) {
    std::vector<Record> records;
    try {
        SqliteStatement& rows = m_tables->after;
        rows.bind(1, ticket);
        rows.bind(2, u64{maxRecords});
        std::size_t bytes = 0;
        while (bytes < maxBytes && rows.next()) {
            Record record;
            record.ticket = rows.number(0);
            record.origin = m_tables->origin(rows.number(1));
            record.sequence = rows.number(2);
            record.line = rows.text(3);
            bytes += record.line.size();
            records.push_back(std::move(record));
        }
        rows.reset();
    } catch (const SqliteError& error) {
        passOn(m_options.path, error);
    }
    return records;
}

std::vector<EvictedRange> Spool::untold() {
    std::vector<EvictedRange> ranges;
    try {
        SqliteStatement& rows = m_tables->untold;
        rows.reset();
        while (m_hasUntold && rows.next()) {
            ranges.push_back({rows.number(0), *m_tables->origin(rows.number(1)), rows.number(2),
                              rows.number(3), rows.number(4)});
        }
    } catch (const SqliteError& error) {
        passOn(m_options.path, error);
    }
    return ranges;
}
