#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

// SQLite's connections and statements as objects. One thread at a time.

class ANALYTICS_TAG SqliteError : public std::runtime_error {
public:
    SqliteError(const std::string& text, int code) : std::runtime_error(text), m_code(code) {}
    // What is read makes no sense.
    static SqliteError ofDamage(const std::string& text);

    // The file is no database, or a damaged one.
    bool isDamage() const;
    // Another connection has the file.
    bool isBusy() const;

private:
    int m_code;
};

class ANALYTICS_TAG SqliteStatement;
class ANALYTICS_TAG SqliteTransaction;

// Operations throw SqliteError.
class ANALYTICS_TAG SqliteDatabase {
public:
    explicit SqliteDatabase(const std::string& path);

    void run(const std::string& sql);
    u64 number(const std::string& sql); // the first column of the first row
    std::string text(const std::string& sql);

private:
    friend class SqliteStatement;
    friend class SqliteTransaction;
    struct Close {
        void operator()(sqlite3* database) const;
    };
    std::unique_ptr<sqlite3, Close> m_database;
};

// A statement that is run many times:
//
//     for (statement.bind(1, ticket); statement.next();) { use(statement.number(0)); }
class ANALYTICS_TAG SqliteStatement {
public:
    SqliteStatement(SqliteDatabase& database, std::string_view sql);

    // Binds a value for the next run and drops unread rows of the last run.
    void bind(int parameter, u64 value);
    // The text must stay unchanged until the statement has been run.
    void bind(int parameter, std::string_view value);
    void bindBytes(int parameter, std::string_view value);

    // Goes on to the next row. After the last one the statement is ready to be run again.
    bool next();
    // For a statement without rows.
    void run();
    // Drops unread rows.
    void reset();

    u64 number(int column) const;
    std::string text(int column) const; // or bytes

private:
    struct Finalize {
        void operator()(sqlite3_stmt* statement) const;
    };
    std::unique_ptr<sqlite3_stmt, Finalize> m_statement;
};

// A transaction, rolled back unless it is committed.
class ANALYTICS_TAG SqliteTransaction {
public:
    explicit SqliteTransaction(SqliteDatabase& database);
    ~SqliteTransaction();
    SqliteTransaction(const SqliteTransaction&) = delete;
    SqliteTransaction& operator=(const SqliteTransaction&) = delete;

    void commit();

private:
    SqliteDatabase& m_database;
    bool m_isOpen = true;
};
