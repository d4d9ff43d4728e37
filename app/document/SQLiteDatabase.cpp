#include "document/SQLiteDatabase.h"

#include <sqlite3.h>
#include <utility>

namespace tavolar {

SQLiteStatement::SQLiteStatement(SQLiteStatement&& other) noexcept
    : connection_(std::exchange(other.connection_, nullptr)),
      statement_(std::exchange(other.statement_, nullptr)) {}

SQLiteStatement& SQLiteStatement::operator=(SQLiteStatement&& other) noexcept {
    if (this != &other) {
        sqlite3_finalize(statement_);
        connection_ = std::exchange(other.connection_, nullptr);
        statement_ = std::exchange(other.statement_, nullptr);
    }
    return *this;
}

SQLiteStatement::~SQLiteStatement() {
    sqlite3_finalize(statement_);
}

void SQLiteStatement::bindText(int index, std::string_view text) {
    sqlite3_bind_text64(statement_, index, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
}

void SQLiteStatement::bindBlob(int index, std::span<const std::byte> bytes) {
    // An empty span may carry a null pointer, which SQLite would store as NULL rather than as an
    // empty blob; zeroblob(0) keeps it a blob.
    if (bytes.empty())
        sqlite3_bind_zeroblob(statement_, index, 0);
    else
        sqlite3_bind_blob64(statement_, index, bytes.data(), bytes.size(), SQLITE_TRANSIENT);
}

void SQLiteStatement::bindInt64(int index, std::int64_t value) {
    sqlite3_bind_int64(statement_, index, value);
}

void SQLiteStatement::bindDouble(int index, double value) {
    sqlite3_bind_double(statement_, index, value);
}

void SQLiteStatement::bindNull(int index) {
    sqlite3_bind_null(statement_, index);
}

std::optional<SQLiteFailure> SQLiteStatement::step(bool& hasRow) {
    int result = sqlite3_step(statement_);
    hasRow = result == SQLITE_ROW;
    if (result == SQLITE_ROW || result == SQLITE_DONE)
        return std::nullopt;
    return SQLiteFailure{sqlite3_extended_errcode(connection_), sqlite3_errmsg(connection_)};
}

std::optional<SQLiteFailure> SQLiteStatement::run() {
    bool hasRow = true;
    while (hasRow) {
        if (auto failure = step(hasRow))
            return failure;
    }
    return std::nullopt;
}

void SQLiteStatement::reset() {
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
}

bool SQLiteStatement::columnIsNull(int column) const {
    return sqlite3_column_type(statement_, column) == SQLITE_NULL;
}

std::int64_t SQLiteStatement::columnInt64(int column) const {
    return sqlite3_column_int64(statement_, column);
}

double SQLiteStatement::columnDouble(int column) const {
    return sqlite3_column_double(statement_, column);
}

std::string SQLiteStatement::columnText(int column) const {
    const unsigned char* text = sqlite3_column_text(statement_, column);
    int size = sqlite3_column_bytes(statement_, column);
    return text ? std::string(reinterpret_cast<const char*>(text), static_cast<std::size_t>(size))
                : std::string();
}

std::span<const std::byte> SQLiteStatement::columnBlob(int column) const {
    const void* blob = sqlite3_column_blob(statement_, column);
    int size = sqlite3_column_bytes(statement_, column);
    if (!blob || size <= 0)
        return {};
    return {static_cast<const std::byte*>(blob), static_cast<std::size_t>(size)};
}

SQLiteDatabase::SQLiteDatabase(SQLiteDatabase&& other) noexcept
    : connection_(std::exchange(other.connection_, nullptr)) {}

SQLiteDatabase& SQLiteDatabase::operator=(SQLiteDatabase&& other) noexcept {
    if (this != &other) {
        close();
        connection_ = std::exchange(other.connection_, nullptr);
    }
    return *this;
}

SQLiteDatabase::~SQLiteDatabase() {
    close();
}

std::optional<SQLiteFailure> SQLiteDatabase::open(const std::string& path, bool readOnly, bool create,
                                                  SQLiteDatabase& database) {
    database.close();
    int flags = readOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE;
    if (create && !readOnly)
        flags |= SQLITE_OPEN_CREATE;
    // The document serialises access itself; each connection is used by one thread at a time.
    flags |= SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE;
    sqlite3* connection = nullptr;
    int result = sqlite3_open_v2(path.c_str(), &connection, flags, nullptr);
    if (result != SQLITE_OK) {
        SQLiteFailure failure{result, connection ? sqlite3_errmsg(connection) : sqlite3_errstr(result)};
        sqlite3_close_v2(connection);
        return failure;
    }
    database.connection_ = connection;
    return std::nullopt;
}

void SQLiteDatabase::close() {
    if (connection_)
        sqlite3_close_v2(connection_);
    connection_ = nullptr;
}

std::optional<SQLiteFailure> SQLiteDatabase::prepare(std::string_view sql, SQLiteStatement& statement) {
    sqlite3_stmt* prepared = nullptr;
    int result = sqlite3_prepare_v3(connection_, sql.data(), static_cast<int>(sql.size()),
                                    SQLITE_PREPARE_PERSISTENT, &prepared, nullptr);
    if (result != SQLITE_OK) {
        sqlite3_finalize(prepared);
        return lastFailure(result);
    }
    statement = SQLiteStatement(connection_, prepared);
    return std::nullopt;
}

std::optional<SQLiteFailure> SQLiteDatabase::execute(std::string_view sql) {
    std::string text(sql);
    char* message = nullptr;
    int result = sqlite3_exec(connection_, text.c_str(), nullptr, nullptr, &message);
    if (result == SQLITE_OK)
        return std::nullopt;
    SQLiteFailure failure{sqlite3_extended_errcode(connection_), message ? message : sqlite3_errstr(result)};
    sqlite3_free(message);
    return failure;
}

std::optional<SQLiteFailure> SQLiteDatabase::queryInt64(std::string_view sql, std::int64_t& value) {
    SQLiteStatement statement;
    if (auto failure = prepare(sql, statement))
        return failure;
    bool hasRow = false;
    if (auto failure = statement.step(hasRow))
        return failure;
    value = hasRow ? statement.columnInt64(0) : 0;
    return std::nullopt;
}

bool SQLiteDatabase::isAutocommit() const {
    return sqlite3_get_autocommit(connection_) != 0;
}

SQLiteFailure SQLiteDatabase::lastFailure(int code) const {
    int extended = connection_ ? sqlite3_extended_errcode(connection_) : code;
    if ((extended & 0xFF) != (code & 0xFF))
        extended = code;
    return SQLiteFailure{extended, connection_ ? sqlite3_errmsg(connection_) : sqlite3_errstr(code)};
}

} // namespace tavolar
