#pragma once

#include "common/SqlQuery.h"
#include "common/SqlStatementCache.h"

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace vantor::common::internal
{

// One open SQLite database: the handle and its statements, each closed and
// finalised on every path out. Every call runs exactly one statement: text
// after the first statement is refused ("'query' has multiple statements"),
// and failures are logged under "SqlStorage:" and thrown as
// StorageException. Queries with bound values keep their compiled
// statements for the next call (SqlStatementCache); logs show them with
// their values written in.
//
// The database keeps a write-ahead log ("<file>-wal", "<file>-shm" beside
// it) where the file system allows it.
//
// Not thread-safe: SqlStorage calls it under its mutex.
class SqlConnection
{
public:
    enum class Mode
    {
        OpenExisting, // read-write; a file that is no database fails here
        Create        // read-write, created when missing
    };

    // Throws StorageException "SqlStorage: Error opening DB: " or
    // "SqlStorage: Error creating DB: " with SQLite's message.
    SqlConnection(const std::string& file, Mode mode);

    // A statement that returns no rows; one that would is refused before it
    // runs ("SqlStorage::Execute: Unsupported query type").
    void Execute(const SqlQuery& query);
    // A read-only statement; each row serialised column by column (integers
    // as 64-bit integers, text as strings).
    std::vector<std::string> Select(const SqlQuery& query);
    // The single integer a statement such as "PRAGMA user_version" answers.
    std::int64_t QueryInteger(const std::string& query);
    // Runs the statements in one transaction, rolled back on any failure.
    // Inside an open transaction they join it, and a failure is left to its
    // owner to roll back.
    void RunInTransaction(const std::vector<SqlQuery>& statements);
    void RunInTransaction(const std::vector<std::string>& statements)
    {
        RunInTransaction(std::vector<SqlQuery>(statements.begin(), statements.end()));
    }
    // An explicit transaction: Begin throws "Failed to start trasaction: ",
    // Commit "Failed to commit trasaction: " (rolled back then); Rollback
    // only logs a failure.
    void Begin();
    void Commit();
    void Rollback();
    bool InTransaction() const { return sqlite3_get_autocommit(m_db.get()) == 0; }
    // Compacts the file; a failure is only logged.
    void Vacuum();

private:
    struct Closer
    {
        void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
    };

    // Runs step on the query's statement; step answers the code of its last
    // sqlite3_step, and anything but SQLITE_DONE is logged and thrown.
    template <typename Step>
    void Run(const SqlQuery& query, Step step);
    std::string ErrorMessage() const;

    std::unique_ptr<sqlite3, Closer> m_db;
    // After the handle: its statements are finalised before it closes.
    std::unique_ptr<SqlStatementCache> m_statements;
};

} // namespace vantor::common::internal
