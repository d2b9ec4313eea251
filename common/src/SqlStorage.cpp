#include "common/SqlStorage.h"

#include "common/Logging.h"
#include "common/Serializer.h"
#include "common/StorageException.h"
#include "common/ThreadedClass.h"

#include <climits>
#include <condition_variable>
#include <deque>
#include <exception>
#include <sys/stat.h>
#include <unistd.h>

namespace vantor::common
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

// Runs the asynchronous operations one after the other. Stopping lets the
// queued operations finish first: a caller that was told its write is queued
// must not lose it because the storage goes away.
class SqlStorage::Worker : public ThreadedClass
{
public:
    Worker()
        : ThreadedClass("SqlStorageWorker")
    {
    }

    ~Worker() override { Stop(); }

    void Post(std::function<void()> task)
    {
        {
            std::lock_guard lock(m_mutex);
            m_tasks.push_back(std::move(task));
        }
        m_cv.notify_one();
    }

protected:
    void Run() override
    {
        for (;;)
        {
            std::function<void()> task;
            {
                std::unique_lock lock(m_mutex);
                m_cv.wait(lock, [this] { return !m_tasks.empty() || IsStopping(); });
                if (m_tasks.empty())
                {
                    return;
                }
                task = std::move(m_tasks.front());
                m_tasks.pop_front();
            }
            try
            {
                task();
            }
            catch (const std::exception& e)
            {
                EDR_LOG_ERROR("SqlStorage: Asynchronous operation failed: " << e.what());
            }
            catch (...)
            {
                EDR_LOG_ERROR("SqlStorage: Asynchronous operation failed");
            }
        }
    }

    void OnStop() override
    {
        std::lock_guard lock(m_mutex);
        m_cv.notify_all();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::deque<std::function<void()>> m_tasks;
};

SqlStorage::SqlStorage(std::string dbFilePath, std::string dbFileName,
                       std::unique_ptr<SqlDataFormatter> formatter, bool async, size_t cacheLimitBytes)
    : m_dbFilePath(std::move(dbFilePath))
    , m_dbFileName(std::move(dbFileName))
    , m_formatter(std::move(formatter))
    , m_cacheLimitBytes(cacheLimitBytes)
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
    Open();
    ApplyUpgrades();
    Vacuum();
    if (async)
    {
        m_worker = std::make_unique<Worker>();
        m_worker->Start();
    }
}

SqlStorage::~SqlStorage()
{
    if (m_worker)
    {
        m_worker->Stop();
    }
}

void SqlStorage::Open()
{
    struct stat st
    {
    };
    sqlite3* raw = nullptr;
    if (stat(m_dbFile.c_str(), &st) == 0)
    {
        const int rc = sqlite3_open_v2(m_dbFile.c_str(), &raw, SQLITE_OPEN_READWRITE, nullptr);
        m_db.reset(raw);
        // SQLite reads the file lazily; look at it now so that a file that is
        // no database fails here with a clear error.
        if (rc != SQLITE_OK || sqlite3_exec(m_db.get(), "SELECT count(*) FROM sqlite_master", nullptr,
                                            nullptr, nullptr) != SQLITE_OK)
        {
            const std::string message = m_db ? sqlite3_errmsg(m_db.get()) : sqlite3_errstr(rc);
            m_db.reset();
            throw StorageException("SqlStorage: Error opening DB: " + message);
        }
    }
    else
    {
        const int rc =
            sqlite3_open_v2(m_dbFile.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
        m_db.reset(raw);
        if (rc != SQLITE_OK)
        {
            const std::string message = m_db ? sqlite3_errmsg(m_db.get()) : sqlite3_errstr(rc);
            m_db.reset();
            throw StorageException("SqlStorage: Error creating DB: " + message);
        }
        try
        {
            RunInTransaction(m_formatter->GetCreateStatements());
        }
        catch (const std::exception& e)
        {
            // A file without its schema would be taken as set up at the next
            // open: remove it.
            m_db.reset();
            unlink(m_dbFile.c_str());
            throw StorageException(std::string("SqlStorage: Error setting up DB: ") + e.what());
        }
        EDR_LOG_INFO("SqlStorage: Created DB " << m_dbFile);
    }
    sqlite3_extended_result_codes(m_db.get(), 1);
    // Another process may hold the file briefly (a backup, the sqlite3 shell).
    sqlite3_busy_timeout(m_db.get(), 1000);
}

void SqlStorage::ApplyUpgrades()
{
    const std::string versionQuery = m_formatter->GetSchemaVersionQuery();
    if (versionQuery.empty())
    {
        return;
    }
    try
    {
        const int64_t version = QueryIntegerLocked(versionQuery);
        const auto statements = m_formatter->GetUpgradeStatements(version);
        if (statements.empty())
        {
            return;
        }
        EDR_LOG_INFO("SqlStorage: Upgrading schema of " << m_dbFile << " from version " << version);
        RunInTransaction(statements);
    }
    catch (const std::exception& e)
    {
        m_db.reset();
        throw StorageException(std::string("SqlStorage: Error upgrading DB: ") + e.what());
    }
}

void SqlStorage::Vacuum()
{
    static const std::string kVacuum = "VACUUM;";
    EDR_LOG_DEBUG("Performing the vacuum of the db");
    if (sqlite3_exec(m_db.get(), kVacuum.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK)
    {
        EDR_LOG_WARNING("SqlStorage: Failed to execute '" << kVacuum << "': " << sqlite3_errmsg(m_db.get()));
    }
}

void SqlStorage::ExecuteLocked(const std::string& query)
{
    EDR_LOG_DEBUG("SqlStorage: Executing query '" << query << "'");
    const Statement statement = Compile(m_db.get(), query);
    if (sqlite3_column_count(statement.get()) > 0)
    {
        // Refused before it runs: reads go through Read.
        throw StorageException("SqlStorage::Execute: Unsupported query type");
    }
    const int rc = sqlite3_step(statement.get());
    if (rc != SQLITE_DONE)
    {
        EDR_LOG_ERROR("SqlStorage: Failed to execute '" << query << "': " << sqlite3_errmsg(m_db.get()));
        throw StorageException("Failed to execute query");
    }
}

void SqlStorage::RunInTransaction(const std::vector<std::string>& statements)
{
    if (sqlite3_exec(m_db.get(), "BEGIN", nullptr, nullptr, nullptr) != SQLITE_OK)
    {
        throw StorageException(std::string("Failed to start trasaction: ") + sqlite3_errmsg(m_db.get()));
    }
    try
    {
        for (const auto& statement : statements)
        {
            ExecuteLocked(statement);
        }
    }
    catch (...)
    {
        RollbackLocked();
        throw;
    }
    if (sqlite3_exec(m_db.get(), "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK)
    {
        const std::string message = sqlite3_errmsg(m_db.get());
        RollbackLocked();
        throw StorageException("Failed to commit trasaction: " + message);
    }
}

void SqlStorage::RollbackLocked()
{
    // SQLite may already have rolled back by itself (after a full disk, say).
    if (sqlite3_get_autocommit(m_db.get()) != 0)
    {
        return;
    }
    if (sqlite3_exec(m_db.get(), "ROLLBACK", nullptr, nullptr, nullptr) != SQLITE_OK)
    {
        EDR_LOG_ERROR("Failed to rollback the last transaction: " << sqlite3_errmsg(m_db.get()));
    }
}

std::vector<std::string> SqlStorage::SelectLocked(const std::string& query)
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
            EDR_LOG_ERROR("SqlStorage: Failed to execute '" << query << "': " << sqlite3_errmsg(m_db.get()));
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

int64_t SqlStorage::QueryIntegerLocked(const std::string& query)
{
    const Statement statement = Compile(m_db.get(), query);
    const int rc = sqlite3_step(statement.get());
    if (rc != SQLITE_ROW || sqlite3_column_type(statement.get(), 0) != SQLITE_INTEGER)
    {
        EDR_LOG_ERROR("SqlStorage: Failed to execute '" << query << "': " << sqlite3_errmsg(m_db.get()));
        throw StorageException("Failed to execute query");
    }
    return sqlite3_column_int64(statement.get(), 0);
}

StorageResult SqlStorage::Write(const std::string& table, const Records& records)
{
    StorageResult result;
    std::lock_guard lock(m_mutex);
    try
    {
        // Every statement is built before the transaction starts, so that a
        // record the formatter refuses leaves nothing to undo.
        std::vector<std::string> statements;
        statements.reserve(records.size());
        for (const auto& record : records)
        {
            statements.push_back(m_formatter->GetInsertStatement(table, record.second));
        }
        RunInTransaction(statements);
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("SqlStorage: Failed to write " << records.size() << " records to table " << table
                                                     << ": " << e.what());
        result.error = e.what();
        return result;
    }
    if (m_cacheLimitBytes > 0)
    {
        for (const auto& [key, record] : records)
        {
            ++m_cacheStatistics.writes;
            CachePut(table, key, {record});
        }
        LogCacheCounters();
    }
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
    m_worker->Post([this, table = std::move(table), records = std::move(records),
                    callback = std::move(onWriteCallback)] { callback(Write(table, records)); });
}

StorageResult SqlStorage::Read(const std::string& table, const std::string& key)
{
    StorageResult result;
    std::lock_guard lock(m_mutex);
    if (m_cacheLimitBytes > 0)
    {
        if (const auto* rows = CacheFind(table, key))
        {
            ++m_cacheStatistics.hits;
            LogCacheCounters();
            result.rows = *rows;
            result.success = true;
            return result;
        }
        ++m_cacheStatistics.misses;
    }
    try
    {
        result.rows = SelectLocked(m_formatter->GetSelectStatement(table, key));
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("SqlStorage: Failed to read from table " << table << ": " << e.what());
        result.error = e.what();
        return result;
    }
    result.success = true;
    if (m_cacheLimitBytes > 0)
    {
        if (result.rows.empty())
        {
            ++m_cacheStatistics.notFounds;
        }
        else
        {
            CachePut(table, key, result.rows);
        }
        LogCacheCounters();
    }
    return result;
}

void SqlStorage::ReadAsync(std::string table, std::string key, OnReadCallback onReadCallback)
{
    RequireAsync();
    if (!onReadCallback)
    {
        throw StorageException("SqlStorage: onReadCallback is invalid");
    }
    m_worker->Post([this, table = std::move(table), key = std::move(key),
                    callback = std::move(onReadCallback)] { callback(Read(table, key)); });
}

StorageResult SqlStorage::Delete(const std::string& table, const std::string& key)
{
    StorageResult result;
    std::lock_guard lock(m_mutex);
    try
    {
        ExecuteLocked(m_formatter->GetDeleteStatement(table, key));
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("SqlStorage: Failed to delete from table " << table << ": " << e.what());
        result.error = e.what();
        return result;
    }
    if (m_cacheLimitBytes > 0)
    {
        CacheErase(table, key);
    }
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
    m_worker->Post(
        [this, table = std::move(table), key = std::move(key), callback = std::move(onDeleteCallback)]
        {
            Delete(table, key);
            callback();
        });
}

StorageResult SqlStorage::DeleteAll()
{
    std::lock_guard lock(m_mutex);
    std::vector<std::string> statements;
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
    std::vector<std::string> statements;
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

StorageResult SqlStorage::RunModification(const std::string& what, const std::vector<std::string>& statements)
{
    StorageResult result;
    try
    {
        RunInTransaction(statements);
        result.success = true;
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("SqlStorage: Failed to " << what << ": " << e.what());
        result.error = e.what();
    }
    // Whatever the statements touched, the cache may no longer be true.
    CacheClear();
    return result;
}

void SqlStorage::Execute(const std::string& query)
{
    std::lock_guard lock(m_mutex);
    try
    {
        ExecuteLocked(query);
    }
    catch (...)
    {
        CacheClear();
        throw;
    }
    CacheClear();
}

SqlStorage::CacheStatistics SqlStorage::GetCacheStatistics() const
{
    std::lock_guard lock(m_mutex);
    return m_cacheStatistics;
}

void SqlStorage::RequireAsync() const
{
    if (!m_worker)
    {
        throw StorageException("SqlStorage is not configured for Async operations");
    }
}

std::string SqlStorage::CacheKey(const std::string& table, const std::string& key)
{
    std::string cacheKey;
    cacheKey.reserve(table.size() + 1 + key.size());
    cacheKey.append(table).push_back('\0');
    cacheKey.append(key);
    return cacheKey;
}

const std::vector<std::string>* SqlStorage::CacheFind(const std::string& table, const std::string& key)
{
    const auto it = m_cache.find(CacheKey(table, key));
    if (it == m_cache.end())
    {
        return nullptr;
    }
    m_lru.splice(m_lru.end(), m_lru, it->second.lru);
    return &it->second.rows;
}

void SqlStorage::CachePut(const std::string& table, const std::string& key, std::vector<std::string> rows)
{
    size_t bytes = 0;
    for (const auto& row : rows)
    {
        bytes += row.size();
    }
    std::string cacheKey = CacheKey(table, key);
    if (bytes > m_cacheLimitBytes)
    {
        // Larger than the whole cache: keep none of it, and no stale copy.
        CacheErase(table, key);
        return;
    }
    auto it = m_cache.find(cacheKey);
    if (it != m_cache.end())
    {
        m_cacheStatistics.bytes = m_cacheStatistics.bytes - it->second.bytes + bytes;
        it->second.rows = std::move(rows);
        it->second.bytes = bytes;
        m_lru.splice(m_lru.end(), m_lru, it->second.lru);
        LogCacheChange("Updating ", bytes, " bytes in table ", table);
    }
    else
    {
        m_lru.push_back(cacheKey);
        CacheEntry entry{table, std::move(rows), bytes, std::prev(m_lru.end())};
        m_cache.emplace(std::move(cacheKey), std::move(entry));
        ++m_cachedRowsPerTable[table];
        ++m_cacheStatistics.rows;
        m_cacheStatistics.bytes += bytes;
        LogCacheChange("Adding ", bytes, " bytes to table ", table);
    }
    CacheEvict();
}

void SqlStorage::CacheErase(const std::string& table, const std::string& key)
{
    const auto it = m_cache.find(CacheKey(table, key));
    if (it == m_cache.end())
    {
        return;
    }
    const size_t bytes = it->second.bytes;
    m_lru.erase(it->second.lru);
    m_cache.erase(it);
    if (--m_cachedRowsPerTable[table] == 0)
    {
        m_cachedRowsPerTable.erase(table);
    }
    --m_cacheStatistics.rows;
    m_cacheStatistics.bytes -= bytes;
    LogCacheChange("Deleting ", bytes, " bytes from table ", table);
}

void SqlStorage::CacheClear()
{
    if (m_cache.empty())
    {
        return;
    }
    EDR_LOG_DEBUG("SqlStorage Cache: Clearing " << m_cacheStatistics.bytes << " bytes");
    m_cache.clear();
    m_lru.clear();
    m_cachedRowsPerTable.clear();
    m_cacheStatistics.rows = 0;
    m_cacheStatistics.bytes = 0;
}

void SqlStorage::CacheEvict()
{
    while (m_cacheStatistics.bytes > m_cacheLimitBytes && !m_lru.empty())
    {
        const auto it = m_cache.find(m_lru.front());
        const std::string table = it->second.table;
        const size_t keyStart = table.size() + 1;
        CacheErase(table, it->first.substr(keyStart));
    }
}

void SqlStorage::LogCacheChange(const char* verb, size_t bytes, const char* preposition,
                                const std::string& table) const
{
    const auto rows = m_cachedRowsPerTable.find(table);
    EDR_LOG_DEBUG("SqlStorage Cache: " << verb << bytes << preposition << table << ". #Rows = "
                                       << (rows == m_cachedRowsPerTable.end() ? 0 : rows->second)
                                       << ". Total cached data size = " << m_cacheStatistics.bytes / 1024
                                       << " KB");
}

void SqlStorage::LogCacheCounters() const
{
    EDR_LOG_DEBUG("SqlStorage Cache: hits: " << m_cacheStatistics.hits
                                             << ", misses: " << m_cacheStatistics.misses
                                             << ", writes: " << m_cacheStatistics.writes
                                             << ", not founds: " << m_cacheStatistics.notFounds);
}

} // namespace vantor::common
