#pragma once

#include "common/SqlQuery.h"

#include <sqlite3.h>

#include <cstddef>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

namespace vantor::common::internal
{

// The compiled statements of one connection, so that a query that comes
// again is not parsed and planned again. Queries with bound values are kept,
// keyed by their text, the least recently used going first when the cache
// is full; plain statement text (schema set-up, one-off statements) is
// compiled for one use only.
//
// A statement is handed out as a Lease with the query's values bound. The
// lease resets it and unbinds the values when it goes, on every path, so a
// statement left between steps (a read ended early by an error) holds no
// read transaction and no table lock. A kept statement survives schema
// changes: SQLite compiles it again when it next runs.
//
// Must be destroyed before the connection: it finalises its statements.
//
// Not thread-safe: one lease at a time, under the caller's lock.
class SqlStatementCache
{
public:
    struct Finalizer
    {
        void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
    };
    using Statement = std::unique_ptr<sqlite3_stmt, Finalizer>;

    class Lease
    {
    public:
        ~Lease();
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;

        sqlite3_stmt* Get() const { return m_statement; }
        // Whether the statement was compiled by an earlier call.
        bool Reused() const { return m_reused; }

    private:
        friend class SqlStatementCache;
        Lease(sqlite3_stmt* kept, Statement owned, bool reused);

        sqlite3_stmt* m_statement;
        Statement m_owned;
        bool m_reused;
    };

    static constexpr std::size_t kCapacity = 32;

    explicit SqlStatementCache(sqlite3* db);

    // The query's statement with its values bound. Throws StorageException
    // "Failed to compile query", "'query' has multiple statements" or "Failed
    // to execute query" (a value SQLite cannot take), logging the reason.
    Lease Acquire(const SqlQuery& query);
    // Drops the kept statement of the text, so that the next Acquire
    // compiles it afresh.
    void Forget(const std::string& text);

private:
    struct Entry
    {
        Statement statement;
        std::list<std::string>::iterator lru;
    };

    Statement Compile(const SqlQuery& query) const;
    sqlite3_stmt* Keep(const std::string& text, Statement statement);
    void Bind(sqlite3_stmt* statement, const SqlQuery& query) const;

    sqlite3* m_db;
    std::unordered_map<std::string, Entry> m_entries;
    // Least recently used first.
    std::list<std::string> m_lru;
};

} // namespace vantor::common::internal
