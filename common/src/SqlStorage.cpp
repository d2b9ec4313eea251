#include "common/SqlStorage.h"

#include "common/Logging.h"
#include "common/SqlCache.h"
#include "common/SqlConnection.h"
#include "common/SqlSchema.h"
#include "common/StorageException.h"
#include "common/TaskQueue.h"

#include <exception>

namespace vantor::common
{

SqlStorage::SqlStorage(std::string dbFilePath, std::string dbFileName,
                       std::unique_ptr<SqlDataFormatter> formatter, bool async, size_t cacheLimitBytes)
    : m_dbFilePath(std::move(dbFilePath))
    , m_dbFileName(std::move(dbFileName))
    , m_formatter(std::move(formatter))
    , m_cache(std::make_unique<internal::SqlCache>(cacheLimitBytes))
{
    if (m_dbFilePath.empty())
    {
        throw StorageException("SqlStorage: 'dbFilePath' is empty");
    }
    if (m_dbFileName.empty())
    {
        throw StorageException("SqlStorage: 'dbFileName' is empty");
    }
    if (!m_formatter)
    {
        throw StorageException("SqlStorage: 'formatter' is null");
    }
    m_dbFile = m_dbFilePath;
    if (m_dbFile.back() != '/')
    {
        m_dbFile += '/';
    }
    m_dbFile += m_dbFileName;

    std::lock_guard lock(m_mutex);
    m_connection = internal::SqlSchema::Open(m_dbFile, *m_formatter);
    if (async)
    {
        // Finishes the queued operations before the storage goes away: a
        // caller told that its write is queued must not lose it.
        m_worker = std::make_unique<TaskQueue>("SqlStorage");
    }
}

SqlStorage::~SqlStorage()
{
    if (m_worker)
    {
        m_worker->Shutdown();
    }
}

StorageResult SqlStorage::Write(const std::string& table, const Records& records)
{
    StorageResult result;
    std::lock_guard lock(m_mutex);
    if (Refused(result))
    {
        return result;
    }
    try
    {
        // Every statement is built before the transaction starts, so that a
        // record the formatter refuses leaves nothing to undo.
        std::vector<SqlQuery> statements;
        statements.reserve(records.size());
        for (const auto& record : records)
        {
            statements.push_back(m_formatter->GetInsertQuery(table, record.second));
        }
        m_connection->RunInTransaction(statements);
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("SqlStorage: Failed to write " << records.size() << " records to table " << table
                                                     << ": " << e.what());
        result.error = e.what();
        Failed(result.error);
        return result;
    }
    m_cache->Written(table, records);
    result.success = true;
    return result;
}

void SqlStorage::WriteAsync(std::string table, Records records, OnWriteCallback onWriteCallback)
{
    RequireAsync();
    if (!onWriteCallback)
    {
        throw StorageException("onWriteCallback is invalid");
    }
    Post([this, table = std::move(table), records = std::move(records), callback = std::move(onWriteCallback)]
         { callback(Write(table, records)); });
}

StorageResult SqlStorage::Read(const std::string& table, const std::string& key)
{
    StorageResult result;
    std::lock_guard lock(m_mutex);
    if (Refused(result))
    {
        return result;
    }
    if (const auto* rows = m_cache->Lookup(table, key))
    {
        result.rows = *rows;
        result.success = true;
        return result;
    }
    try
    {
        result.rows = m_connection->Select(m_formatter->GetSelectQuery(table, key));
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("SqlStorage: Failed to read from table " << table << ": " << e.what());
        result.error = e.what();
        Failed(result.error);
        return result;
    }
    result.success = true;
    m_cache->Loaded(table, key, result.rows);
    return result;
}

void SqlStorage::ReadAsync(std::string table, std::string key, OnReadCallback onReadCallback)
{
    RequireAsync();
    if (!onReadCallback)
    {
        throw StorageException("SqlStorage: onReadCallback is invalid");
    }
    Post([this, table = std::move(table), key = std::move(key), callback = std::move(onReadCallback)]
         { callback(Read(table, key)); });
}

StorageResult SqlStorage::Delete(const std::string& table, const std::string& key)
{
    StorageResult result;
    std::lock_guard lock(m_mutex);
    if (Refused(result))
    {
        return result;
    }
    try
    {
        m_connection->Execute(m_formatter->GetDeleteQuery(table, key));
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("SqlStorage: Failed to delete from table " << table << ": " << e.what());
        result.error = e.what();
        Failed(result.error);
        return result;
    }
    m_cache->Erase(table, key);
    result.success = true;
    return result;
}

void SqlStorage::DeleteAsync(std::string table, std::string key, OnDeleteCallback onDeleteCallback)
{
    RequireAsync();
    if (!onDeleteCallback)
    {
        throw StorageException("SqlStorage: onDeleteCallback is invalid");
    }
    Post(
        [this, table = std::move(table), key = std::move(key), callback = std::move(onDeleteCallback)]
        {
            Delete(table, key);
            callback();
        });
}

StorageResult SqlStorage::DeleteAll()
{
    std::lock_guard lock(m_mutex);
    std::vector<SqlQuery> statements;
    try
    {
        statements.push_back(m_formatter->GetDeleteAllStatement());
    }
    catch (const std::exception& e)
    {
        return StorageResult{false, {}, e.what()};
    }
    return RunModification("delete all", statements);
}

StorageResult SqlStorage::Clear(const std::string& table)
{
    std::lock_guard lock(m_mutex);
    std::vector<SqlQuery> statements;
    try
    {
        statements.push_back(m_formatter->Clear(table));
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("SqlStorage: Failed to clear table " << table << ": " << e.what());
        return StorageResult{false, {}, e.what()};
    }
    return RunModification("clear " + table, statements);
}

StorageResult SqlStorage::RunModification(const std::string& what, const std::vector<SqlQuery>& statements)
{
    StorageResult result;
    if (Refused(result))
    {
        return result;
    }
    try
    {
        m_connection->RunInTransaction(statements);
        result.success = true;
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("SqlStorage: Failed to " << what << ": " << e.what());
        result.error = e.what();
        Failed(result.error);
    }
    // Whatever the statements touched, the cache may no longer be true.
    m_cache->Clear();
    return result;
}

void SqlStorage::Execute(const std::string& query)
{
    std::lock_guard lock(m_mutex);
    if (StorageResult refused; Refused(refused))
    {
        throw StorageException(refused.error);
    }
    try
    {
        m_connection->Execute(query);
    }
    catch (const std::exception& e)
    {
        m_cache->Clear();
        Failed(e.what());
        throw;
    }
    m_cache->Clear();
}

StorageResult SqlStorage::RunInTransaction(const std::function<void()>& operations)
{
    std::lock_guard lock(m_mutex);
    StorageResult result;
    if (m_transaction != Transaction::None)
    {
        operations();
        result.success = !Refused(result);
        return result;
    }
    try
    {
        m_connection->Begin();
        m_transaction = Transaction::Open;
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("SqlStorage: " << e.what());
        m_transaction = Transaction::RolledBack;
        m_transactionError = e.what();
    }
    try
    {
        operations();
    }
    catch (const std::exception& e)
    {
        Failed(e.what());
        m_transaction = Transaction::None;
        throw;
    }
    if (!Refused(result))
    {
        try
        {
            m_connection->Commit();
            result.success = true;
        }
        catch (const std::exception& e)
        {
            EDR_LOG_ERROR("SqlStorage: " << e.what());
            m_cache->Clear();
            result.error = e.what();
        }
    }
    m_transaction = Transaction::None;
    return result;
}

bool SqlStorage::Refused(StorageResult& result) const
{
    if (m_transaction != Transaction::RolledBack)
    {
        return false;
    }
    result.error = m_transactionError;
    return true;
}

void SqlStorage::Failed(const std::string& error)
{
    if (m_transaction != Transaction::Open)
    {
        return;
    }
    m_connection->Rollback();
    m_cache->Clear();
    m_transaction = Transaction::RolledBack;
    m_transactionError = "SqlStorage: the transaction was rolled back after: " + error;
}

SqlStorage::CacheStatistics SqlStorage::GetCacheStatistics() const
{
    std::lock_guard lock(m_mutex);
    return m_cache->GetStatistics();
}

void SqlStorage::RequireAsync() const
{
    if (!m_worker)
    {
        throw StorageException("SqlStorage is not configured for Async operations");
    }
}

void SqlStorage::Post(std::function<void()> operation)
{
    if (!m_worker->Post(std::move(operation)))
    {
        throw StorageException("SqlStorage: the storage is shutting down");
    }
}

} // namespace vantor::common
