#include "common/SqlConnection.h"

#include "common/Logging.h"
#include "common/Serializer.h"
#include "common/StorageException.h"

namespace vantor::common::internal
{
namespace
{

// The row's columns in the Serializer form: integers as 64-bit integers,
// text as strings.
std::string SerializeRow(sqlite3_stmt* statement)
{
    std::string row;
    const int columns = sqlite3_column_count(statement);
    for (int column = 0; column < columns; ++column)
    {
        switch (sqlite3_column_type(statement, column))
        {
        case SQLITE_INTEGER:
            Serializer::AppendInt64(row, sqlite3_column_int64(statement, column));
            break;
        case SQLITE_TEXT:
        {
            const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
            const int length = sqlite3_column_bytes(statement, column);
            Serializer::AppendString(row, std::string_view(text, static_cast<size_t>(length)));
            break;
        }
        default:
            throw StorageException("Unsupported data type in table");
        }
    }
    return row;
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
    m_statements = std::make_unique<SqlStatementCache>(m_db.get());
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

template <typename Step>
void SqlConnection::Run(const SqlQuery& query, Step step)
{
    for (bool firstTry = true;; firstTry = false)
    {
        {
            const auto lease = m_statements->Acquire(query);
            const int rc = step(lease.Get());
            if (rc == SQLITE_DONE)
            {
                return;
            }
            // A kept statement that no longer compiles (its table dropped
            // since) fails here with a plain error; compiled afresh, it fails
            // as a new statement would.
            if (!firstTry || !lease.Reused() || (rc & 0xff) != SQLITE_ERROR)
            {
                EDR_LOG_ERROR("SqlStorage: Failed to execute '" << query << "': " << ErrorMessage());
                throw StorageException("Failed to execute query");
            }
        }
        m_statements->Forget(query.Text());
    }
}

void SqlConnection::Execute(const SqlQuery& query)
{
    EDR_LOG_DEBUG("SqlStorage: Executing query '" << query << "'");
    Run(query,
        [](sqlite3_stmt* statement)
        {
            if (sqlite3_column_count(statement) > 0)
            {
                // Refused before it runs: reads go through Read.
                throw StorageException("SqlStorage::Execute: Unsupported query type");
            }
            return sqlite3_step(statement);
        });
}

void SqlConnection::RunInTransaction(const std::vector<SqlQuery>& statements)
{
    const bool own = !InTransaction();
    if (own)
    {
        Begin();
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
        if (own)
        {
            Rollback();
        }
        throw;
    }
    if (own)
    {
        Commit();
    }
}

void SqlConnection::Begin()
{
    if (sqlite3_exec(m_db.get(), "BEGIN", nullptr, nullptr, nullptr) != SQLITE_OK)
    {
        throw StorageException("Failed to start trasaction: " + ErrorMessage());
    }
}

void SqlConnection::Commit()
{
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
    if (!InTransaction())
    {
        return;
    }
    if (sqlite3_exec(m_db.get(), "ROLLBACK", nullptr, nullptr, nullptr) != SQLITE_OK)
    {
        EDR_LOG_ERROR("Failed to rollback the last transaction: " << ErrorMessage());
    }
}

std::vector<std::string> SqlConnection::Select(const SqlQuery& query)
{
    EDR_LOG_DEBUG("SqlStorage: Executing query '" << query << "'");
    std::vector<std::string> rows;
    Run(query,
        [&rows](sqlite3_stmt* statement)
        {
            if (sqlite3_stmt_readonly(statement) == 0)
            {
                throw StorageException("SqlStorage::Read: Unsupported query type");
            }
            rows.clear();
            int rc = SQLITE_ROW;
            while ((rc = sqlite3_step(statement)) == SQLITE_ROW)
            {
                rows.push_back(SerializeRow(statement));
            }
            return rc;
        });
    return rows;
}

std::int64_t SqlConnection::QueryInteger(const std::string& query)
{
    const auto lease = m_statements->Acquire(query);
    const int rc = sqlite3_step(lease.Get());
    if (rc != SQLITE_ROW || sqlite3_column_type(lease.Get(), 0) != SQLITE_INTEGER)
    {
        EDR_LOG_ERROR("SqlStorage: Failed to execute '" << query << "': " << ErrorMessage());
        throw StorageException("Failed to execute query");
    }
    return sqlite3_column_int64(lease.Get(), 0);
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
