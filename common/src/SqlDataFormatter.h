#pragma once

#include "common/SqlQuery.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vantor::common
{

// Turns the generic operations of SqlStorage into one database's SQL text.
// Each database owner derives one. The formatter also holds a buffer in which
// a record is serialised (Start, Append..., TakeBuffer); the insert statement
// reads such records back.
//
// Values are put into statements only through QuoteText(), which writes them
// as SQL string literals with SQLite's own quoting, so a value holding a
// single quote stays one value and can never end the statement; a value that
// holds a NUL byte is refused. Table and column names are the formatter's own
// constants, never caller data.
//
// The keyed statements (insert, select, delete) also come as queries whose
// values are bound rather than written into the text; the storage runs
// those, and keeps their compiled form for the next call. A formatter that
// offers them gets text forms equal to their ToString().
//
// Not thread-safe: SqlStorage calls it under its lock only.
class SqlDataFormatter
{
public:
    virtual ~SqlDataFormatter();

    virtual void AppendInt64(int64_t value);
    virtual void AppendString(std::string_view value);

    virtual std::string GetDeleteAllStatement() const = 0;
    // Statement that empties a named table.
    virtual std::string Clear(const std::string& tableName) const = 0;
    // Statements that create the schema of a new database, run in one
    // transaction.
    virtual std::vector<std::string> GetCreateStatements() const = 0;
    virtual std::string GetDeleteStatement(const std::string& table, const std::string& key) const = 0;

    // Moves the serialised bytes out and leaves the buffer empty.
    virtual std::string TakeBuffer();

    // Query that answers the schema version as one integer; empty when the
    // schema is not versioned.
    virtual std::string GetSchemaVersionQuery() const;

    // One statement that stores one serialised record.
    virtual std::string GetInsertStatement(const std::string& table, std::string_view record) const = 0;
    virtual std::string GetSelectStatement(const std::string& table, const std::string& key) const = 0;

    // Begins a new record; throws SqlDataFormatterException
    // "SqlDataFormatter::Start: A transaction is already in progress" while
    // the buffer holds an untaken record.
    virtual void Start();

    // Statements that bring a database of the given version up to date, run
    // in one transaction when a database is opened; the last of them stamps
    // the new version, so that they run once. Empty when nothing is to do.
    virtual std::vector<std::string> GetUpgradeStatements(int64_t currentVersion) const;

    // The insert, select and delete statements above as bound queries. The
    // defaults carry the text forms, without bound values.
    virtual SqlQuery GetInsertQuery(const std::string& table, std::string_view record) const;
    virtual SqlQuery GetSelectQuery(const std::string& table, const std::string& key) const;
    virtual SqlQuery GetDeleteQuery(const std::string& table, const std::string& key) const;

protected:
    // The value as an SQL string literal ('...' with quotes doubled). Throws
    // SqlDataFormatterException for a value holding a NUL byte.
    static std::string QuoteText(std::string_view value);

private:
    std::string m_buffer;
};

} // namespace vantor::common
