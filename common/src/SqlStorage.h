#pragma once

#include "common/SqlDataFormatter.h"
#include "common/StorageResult.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace vantor::common
{

class TaskQueue;

namespace internal
{
class SqlCache;
class SqlConnection;
} // namespace internal

// A small SQLite database of one component (baseline, snapshot or
// health-status store). The storage knows no table: its formatter turns the
// generic operations into SQL text and records travel in the Serializer byte
// form.
//
// - Opening an existing file never creates tables; a new file gets the
//   formatter's schema in one transaction (and is removed again if that
//   fails). A versioned schema is brought up to date at every open by the
//   formatter's upgrade statements, which stamp the new version.
// - Every statement runs alone: text after the first statement is refused,
//   and Execute refuses statements that return rows. Writes of several
//   records run in one transaction that is rolled back on any failure.
// - Synchronous operations run on the caller's thread; asynchronous ones run
//   in order on the storage's own worker, which finishes the queued work
//   before the storage is destroyed. Callbacks run on that worker.
// - Keyed inserts, reads and deletes run the formatter's bound queries, whose
//   compiled statements the connection keeps for the next call.
// - With a cache limit, reads and writes of keyed records pass through an
//   in-memory LRU cache. The formatter's record form must then equal the row
//   form its select by key answers (true for the stores that use it).
//
// The parts: the connection and its statements (internal::SqlConnection),
// the schema set-up (internal::SqlSchema), the cache (internal::SqlCache)
// and the worker (a TaskQueue).
//
// All operations may be called from any thread.
class SqlStorage
{
public:
    // (key, serialised record)
    using Record = std::pair<std::string, std::string>;
    using Records = std::vector<Record>;
    using OnWriteCallback = std::function<void(const StorageResult&)>;
    using OnReadCallback = std::function<void(const StorageResult&)>;
    using OnDeleteCallback = std::function<void()>;

    struct CacheStatistics
    {
        uint64_t hits = 0;
        uint64_t misses = 0;
        uint64_t writes = 0;
        uint64_t notFounds = 0;
        size_t rows = 0;
        size_t bytes = 0;
    };

    // Throws StorageException when an argument is missing or the database
    // cannot be opened, created or upgraded.
    SqlStorage(std::string dbFilePath, std::string dbFileName, std::unique_ptr<SqlDataFormatter> formatter,
               bool async, size_t cacheLimitBytes = 0);
    ~SqlStorage();

    SqlStorage(const SqlStorage&) = delete;
    SqlStorage& operator=(const SqlStorage&) = delete;

    // Stores the records in one transaction.
    StorageResult Write(const std::string& table, const Records& records);
    void WriteAsync(std::string table, Records records, OnWriteCallback onWriteCallback);

    StorageResult Read(const std::string& table, const std::string& key);
    void ReadAsync(std::string table, std::string key, OnReadCallback onReadCallback);

    StorageResult Delete(const std::string& table, const std::string& key);
    void DeleteAsync(std::string table, std::string key, OnDeleteCallback onDeleteCallback);

    // The formatter's delete-all statement, and its statement that empties a
    // named table.
    StorageResult DeleteAll();
    StorageResult Clear(const std::string& table);

    // Runs one statement that returns no rows; throws StorageException.
    void Execute(const std::string& query);

    // Runs operations, which call this storage, in one transaction, so that
    // their statements pay for one commit. Other threads wait meanwhile.
    // Whatever fails inside it rolls back everything before it (the cache
    // is emptied) and the operations after it are refused, as all are when
    // the transaction cannot start: a caller then knows nothing rather than
    // a part of the changes. Answers whether everything was committed; an
    // exception out of operations rolls back and goes on to the caller.
    // Inside another transaction it joins that one.
    StorageResult RunInTransaction(const std::function<void()>& operations);

    CacheStatistics GetCacheStatistics() const;
    const std::string& GetDbFile() const { return m_dbFile; }

private:
    StorageResult RunModification(const std::string& what, const std::vector<SqlQuery>& statements);
    // Under m_mutex, inside an explicit transaction: Refused tells whether an
    // earlier failure rolled it back (and fills result); Failed rolls it
    // back after a failure.
    bool Refused(StorageResult& result) const;
    void Failed(const std::string& error);
    // Queues an asynchronous operation; throws StorageException when the
    // storage has no worker or is shutting down.
    void Post(std::function<void()> operation);
    void RequireAsync() const;

    const std::string m_dbFilePath;
    const std::string m_dbFileName;
    std::string m_dbFile;
    std::unique_ptr<SqlDataFormatter> m_formatter;

    enum class Transaction
    {
        None,
        Open,
        RolledBack
    };

    // Recursive: the operations inside a transaction lock it again.
    mutable std::recursive_mutex m_mutex;
    // Under m_mutex.
    std::unique_ptr<internal::SqlConnection> m_connection;
    std::unique_ptr<internal::SqlCache> m_cache;
    Transaction m_transaction = Transaction::None;
    std::string m_transactionError;

    // Last member: destroyed (and so drained) before anything it uses.
    std::unique_ptr<TaskQueue> m_worker;
};

} // namespace vantor::common
