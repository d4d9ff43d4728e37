#pragma once
// A thin owner of an SQLite connection and its prepared statements, for the measurement document.
// Statements report SQLite's result codes; the document turns them into TavolarErrors.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace tavolar {

// The outcome of an SQLite call that failed: the extended result code and SQLite's own message.
struct SQLiteFailure {
    int code = 0;
    std::string message;
    int primaryCode() const noexcept { return code & 0xFF; }
};

class SQLiteStatement {
public:
    SQLiteStatement() = default;
    SQLiteStatement(sqlite3* connection, sqlite3_stmt* statement)
        : connection_(connection), statement_(statement) {}
    SQLiteStatement(SQLiteStatement&& other) noexcept;
    SQLiteStatement& operator=(SQLiteStatement&& other) noexcept;
    SQLiteStatement(const SQLiteStatement&) = delete;
    SQLiteStatement& operator=(const SQLiteStatement&) = delete;
    ~SQLiteStatement();

    // Parameters are numbered from 1. Text and blobs are copied by SQLite.
    void bindText(int index, std::string_view text);
    void bindBlob(int index, std::span<const std::byte> bytes);
    void bindInt64(int index, std::int64_t value);
    void bindDouble(int index, double value);
    void bindNull(int index);

    // Runs one step: true when a row is ready, false when the statement is done.
    std::optional<SQLiteFailure> step(bool& hasRow);
    // Runs the statement to its end, ignoring any rows.
    std::optional<SQLiteFailure> run();
    // Makes the statement ready to run again and clears its parameters.
    void reset();

    // Columns of the current row, numbered from 0.
    bool columnIsNull(int column) const;
    std::int64_t columnInt64(int column) const;
    double columnDouble(int column) const;
    std::string columnText(int column) const;
    // Valid until the next step or reset.
    std::span<const std::byte> columnBlob(int column) const;

private:
    sqlite3* connection_ = nullptr;
    sqlite3_stmt* statement_ = nullptr;
};

// Resets a statement when it leaves scope, so that a statement kept for reuse never holds a read
// transaction open or keeps old parameters.
class SQLiteStatementUse {
public:
    explicit SQLiteStatementUse(SQLiteStatement& statement) : statement_(statement) {}
    ~SQLiteStatementUse() { statement_.reset(); }
    SQLiteStatementUse(const SQLiteStatementUse&) = delete;
    SQLiteStatementUse& operator=(const SQLiteStatementUse&) = delete;

private:
    SQLiteStatement& statement_;
};

class SQLiteDatabase {
public:
    SQLiteDatabase() = default;
    SQLiteDatabase(SQLiteDatabase&& other) noexcept;
    SQLiteDatabase& operator=(SQLiteDatabase&& other) noexcept;
    SQLiteDatabase(const SQLiteDatabase&) = delete;
    SQLiteDatabase& operator=(const SQLiteDatabase&) = delete;
    ~SQLiteDatabase();

    // Opens an existing file (create false) or creates it; readOnly opens without write access.
    static std::optional<SQLiteFailure> open(const std::string& path, bool readOnly, bool create,
                                             SQLiteDatabase& database);
    // Closes the connection; statements made by it must be gone.
    void close();
    bool isOpen() const noexcept { return connection_ != nullptr; }

    std::optional<SQLiteFailure> prepare(std::string_view sql, SQLiteStatement& statement);
    // Runs one or more statements that return no rows of interest.
    std::optional<SQLiteFailure> execute(std::string_view sql);
    // Runs a statement whose first row's first column is an integer (a pragma, a count).
    std::optional<SQLiteFailure> queryInt64(std::string_view sql, std::int64_t& value);

    // True when no transaction is open.
    bool isAutocommit() const;
    sqlite3* handle() const noexcept { return connection_; }
    SQLiteFailure lastFailure(int code) const;

private:
    sqlite3* connection_ = nullptr;
};

} // namespace tavolar
