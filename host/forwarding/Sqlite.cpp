#include "host/forwarding/Sqlite.h"

#include <sqlite3.h>

namespace {

[[noreturn]] void fail(sqlite3* database) {
    throw SqliteError(sqlite3_errmsg(database), sqlite3_errcode(database));
}

} // namespace

SqliteError SqliteError::ofDamage(const std::string& text) {
    return {text, SQLITE_CORRUPT};
}

bool SqliteError::isDamage() const {
    return m_code == SQLITE_CORRUPT || m_code == SQLITE_NOTADB;
}

bool SqliteError::isBusy() const {
    return m_code == SQLITE_BUSY || m_code == SQLITE_LOCKED;
}

SqliteDatabase::SqliteDatabase(const std::string& path) {
    sqlite3* database = nullptr;
    constexpr int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
    const int status = sqlite3_open_v2(path.c_str(), &database, flags, nullptr);
    m_database.reset(database);
    if (status != SQLITE_OK) {
        throw SqliteError(database == nullptr ? sqlite3_errstr(status) : sqlite3_errmsg(database),
                          status);
    }
}

void SqliteDatabase::Close::operator()(sqlite3* database) const {
    sqlite3_close_v2(database);
}

void SqliteDatabase::run(const std::string& sql) {
    if (sqlite3_exec(m_database.get(), sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
        fail(m_database.get());
    }
}

u64 SqliteDatabase::number(const std::string& sql) {
    SqliteStatement statement(*this, sql);
    return statement.next() ? statement.number(0) : 0;
}

std::string SqliteDatabase::text(const std::string& sql) {
    SqliteStatement statement(*this, sql);
    return statement.next() ? statement.text(0) : std::string();
}

SqliteStatement::SqliteStatement(SqliteDatabase& database, std::string_view sql) {
    sqlite3_stmt* statement = nullptr;
    sqlite3* connection = database.m_database.get();
    if (sqlite3_prepare_v2(connection, sql.data(), static_cast<int>(sql.size()), &statement,
                           nullptr) != SQLITE_OK) {
        fail(connection);
    }
    m_statement.reset(statement);
}

void SqliteStatement::Finalize::operator()(sqlite3_stmt* statement) const {
    sqlite3_finalize(statement);
}

void SqliteStatement::bind(int parameter, u64 value) {
    reset();
    sqlite3_bind_int64(m_statement.get(), parameter, static_cast<sqlite3_int64>(value));
}

void SqliteStatement::bind(int parameter, std::string_view value) {
    reset();
    sqlite3_bind_text64(m_statement.get(), parameter, value.data(), value.size(), SQLITE_STATIC,
                        SQLITE_UTF8);
}

void SqliteStatement::bindBytes(int parameter, std::string_view value) {
    reset();
    sqlite3_bind_blob64(m_statement.get(), parameter, value.data(), value.size(), SQLITE_STATIC);
}

bool SqliteStatement::next() {
    const int status = sqlite3_step(m_statement.get());
    if (status == SQLITE_ROW) {
        return true;
    }
    sqlite3* connection = sqlite3_db_handle(m_statement.get());
    const std::string message = sqlite3_errmsg(connection); // before the reset changes it
    sqlite3_reset(m_statement.get());
    if (status != SQLITE_DONE) {
        throw SqliteError(message, status & 0xff);
    }
    return false;
}

void SqliteStatement::run() {
    while (next()) {
    }
}

void SqliteStatement::reset() {
    sqlite3_reset(m_statement.get());
}

u64 SqliteStatement::number(int column) const {
    return static_cast<u64>(sqlite3_column_int64(m_statement.get(), column));
}

std::string SqliteStatement::text(int column) const {
    const auto* bytes = static_cast<const char*>(sqlite3_column_blob(m_statement.get(), column));
    const int size = sqlite3_column_bytes(m_statement.get(), column);
    return bytes == nullptr ? std::string() : std::string(bytes, static_cast<std::size_t>(size));
}

SqliteTransaction::SqliteTransaction(SqliteDatabase& database) : m_database(database) {
    m_database.run("BEGIN IMMEDIATE");
}

SqliteTransaction::~SqliteTransaction() {
    if (m_isOpen) {
        // It fails where SQLite has rolled it back already.
        sqlite3_exec(m_database.m_database.get(), "ROLLBACK", nullptr, nullptr, nullptr);
    }
}

void SqliteTransaction::commit() {
    m_database.run("COMMIT");
    m_isOpen = false;
}
