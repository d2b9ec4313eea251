#include "common/SqlConnection.h"

#include "common/Logging.h"
#include "common/Serializer.h"
#include "common/StorageException.h"

#include <climits>

namespace vantor::common::internal
{
namespace
{

struct StatementFinalizer
{
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, StatementFinalizer>;

// Whether anything but white space follows the first statement. A NUL byte
// inside the text counts: SQLite stops compiling there.
bool HasMoreText(const char* tail, const std::string& query)
{
    const char* end = query.data() + query.size();
    for (const char* p = tail; p != nullptr && p < end; ++p)
    {
        if (*p != ' ' && *p != '\t' && *p != '\n' && *p != '\r' && *p != '\f' && *p != '\v')
        {
            return true;
        }
    }
    return false;
}

// Compiles exactly one statement; the query's length plus one hands SQLite
// the terminator as well.
Statement Compile(sqlite3* db, const std::string& query)
{
    sqlite3_stmt* raw = nullptr;
    const char* tail = nullptr;
    int rc = SQLITE_TOOBIG;
    if (query.size() < static_cast<size_t>(INT_MAX))
    {
        rc = sqlite3_prepare_v2(db, query.c_str(), static_cast<int>(query.size() + 1), &raw, &tail);
    }
    Statement statement(raw);
    if (rc != SQLITE_OK || !statement)
    {
        EDR_LOG_ERROR("SqlStorage: Failed to compile '"
                      << query << "': " << (rc == SQLITE_OK ? "empty query" : sqlite3_errmsg(db)));
        throw StorageException("Failed to compile query");
    }
    if (HasMoreText(tail, query))
    {
        EDR_LOG_ERROR("SqlStorage: Multiple sql statements in query '" << query << "'");
        throw StorageException("'query' has multiple statements");
    }
    return statement;
}

} // namespace

SqlConnection::SqlConnection(const std::string& file, Mode mode)
{
    const int flags = SQLITE_OPEN_READWRITE | (mode == Mode::Create ? SQLITE_OPEN_CREATE : 0);
    sqlite3* raw = nullptr;
    const int rc = sqlite3_open_v2(file.c_str(), &raw, flags, nullptr);
    m_db.reset(raw);
    // SQLite reads an existing file lazily; look at it now so that a file
    // that is no database fails here with a clear error.
    if (rc != SQLITE_OK ||
        (mode == Mode::OpenExisting && sqlite3_exec(m_db.get(), "SELECT count(*) FROM sqlite_master", nullptr,
                                                    nullptr, nullptr) != SQLITE_OK))
    {
        const std::string message = m_db ? sqlite3_errmsg(m_db.get()) : sqlite3_errstr(rc);
        throw StorageException(std::string(mode == Mode::Create ? "SqlStorage: Error creating DB: "
                                                                : "SqlStorage: Error opening DB: ") +
                               message);
    }
    sqlite3_extended_result_codes(m_db.get(), 1);
    // Another process may hold the file briefly (a backup, the sqlite3 shell).
    sqlite3_busy_timeout(m_db.get(), 1000);
    // The stores write small transactions per event. A write-ahead log with
    // normal syncing commits without creating, syncing and deleting a
    // rollback journal each time, and still survives the process being
    // killed; only a power loss can take the last commits back.
    if (sqlite3_exec(m_db.get(), "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr) != SQLITE_OK ||
        sqlite3_exec(m_db.get(), "PRAGMA synchronous=NORMAL", nullptr, nullptr, nullptr) != SQLITE_OK)
    {
        EDR_LOG_WARNING("SqlStorage: Keeping the rollback journal for '" << file << "': " << ErrorMessage());
    }
}

std::string SqlConnection::ErrorMessage() const
{
    return sqlite3_errmsg(m_db.get());
}

void SqlConnection::Execute(const std::string& query)
{
    EDR_LOG_DEBUG("SqlStorage: Executing query '" << query << "'");
    const Statement statement = Compile(m_db.get(), query);
    if (sqlite3_column_count(statement.get()) > 0)
    {
        // Refused before it runs: reads go through Read.
        throw StorageException("SqlStorage::Execute: Unsupported query type");
    }
    if (sqlite3_step(statement.get()) != SQLITE_DONE)
    {
        EDR_LOG_ERROR("SqlStorage: Failed to execute '" << query << "': " << ErrorMessage());
        throw StorageException("Failed to execute query");
    }
}

void SqlConnection::RunInTransaction(const std::vector<std::string>& statements)
{
    if (sqlite3_exec(m_db.get(), "BEGIN", nullptr, nullptr, nullptr) != SQLITE_OK)
    {
        throw StorageException("Failed to start trasaction: " + ErrorMessage());
    }
    try
    {
        for (const auto& statement : statements)
        {
            Execute(statement);
        }
    }
    catch (...)
    {
        Rollback();
        throw;
    }
    if (sqlite3_exec(m_db.get(), "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK)
    {
        const std::string message = ErrorMessage();
        Rollback();
        throw StorageException("Failed to commit trasaction: " + message);
    }
}

void SqlConnection::Rollback()
{
    // SQLite may already have rolled back by itself (after a full disk, say).
    if (sqlite3_get_autocommit(m_db.get()) != 0)
    {
        return;
    }
    if (sqlite3_exec(m_db.get(), "ROLLBACK", nullptr, nullptr, nullptr) != SQLITE_OK)
    {
        EDR_LOG_ERROR("Failed to rollback the last transaction: " << ErrorMessage());
    }
}

std::vector<std::string> SqlConnection::Select(const std::string& query)
{
    EDR_LOG_DEBUG("SqlStorage: Executing query '" << query << "'");
    const Statement statement = Compile(m_db.get(), query);
    if (sqlite3_stmt_readonly(statement.get()) == 0)
    {
        throw StorageException("SqlStorage::Read: Unsupported query type");
    }
    std::vector<std::string> rows;
    const int columns = sqlite3_column_count(statement.get());
    for (;;)
    {
        const int rc = sqlite3_step(statement.get());
        if (rc == SQLITE_DONE)
        {
            break;
        }
        if (rc != SQLITE_ROW)
        {
            EDR_LOG_ERROR("SqlStorage: Failed to execute '" << query << "': " << ErrorMessage());
            throw StorageException("Failed to execute query");
        }
        std::string row;
        for (int column = 0; column < columns; ++column)
        {
            switch (sqlite3_column_type(statement.get(), column))
            {
            case SQLITE_INTEGER:
                Serializer::AppendInt64(row, sqlite3_column_int64(statement.get(), column));
                break;
            case SQLITE_TEXT:
            {
                const auto* text =
                    reinterpret_cast<const char*>(sqlite3_column_text(statement.get(), column));
                const int length = sqlite3_column_bytes(statement.get(), column);
                Serializer::AppendString(row, std::string_view(text, static_cast<size_t>(length)));
                break;
            }
            default:
                throw StorageException("Unsupported data type in table");
            }
        }
        rows.push_back(std::move(row));
    }
    return rows;
}

std::int64_t SqlConnection::QueryInteger(const std::string& query)
{
    const Statement statement = Compile(m_db.get(), query);
    const int rc = sqlite3_step(statement.get());
    if (rc != SQLITE_ROW || sqlite3_column_type(statement.get(), 0) != SQLITE_INTEGER)
    {
        EDR_LOG_ERROR("SqlStorage: Failed to execute '" << query << "': " << ErrorMessage());
        throw StorageException("Failed to execute query");
    }
    return sqlite3_column_int64(statement.get(), 0);
}

void SqlConnection::Vacuum()
{
    static const std::string kVacuum = "VACUUM;";
    EDR_LOG_DEBUG("Performing the vacuum of the db");
    if (sqlite3_exec(m_db.get(), kVacuum.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK)
    {
        EDR_LOG_WARNING("SqlStorage: Failed to execute '" << kVacuum << "': " << ErrorMessage());
    }
}

} // namespace vantor::common::internal
