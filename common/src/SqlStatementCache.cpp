#include "common/SqlStatementCache.h"

#include "common/Logging.h"
#include "common/StorageException.h"

#include <climits>

namespace vantor::common::internal
{
namespace
{

// Whether anything but white space follows the first statement. A NUL byte
// inside the text counts: SQLite stops compiling there.
bool HasMoreText(const char* tail, const std::string& text)
{
    const char* end = text.data() + text.size();
    for (const char* p = tail; p != nullptr && p < end; ++p)
    {
        if (*p != ' ' && *p != '\t' && *p != '\n' && *p != '\r' && *p != '\f' && *p != '\v')
        {
            return true;
        }
    }
    return false;
}

} // namespace

SqlStatementCache::Lease::Lease(sqlite3_stmt* kept, Statement owned, bool reused)
    : m_statement(kept != nullptr ? kept : owned.get())
    , m_owned(std::move(owned))
    , m_reused(reused)
{
}

SqlStatementCache::Lease::~Lease()
{
    if (!m_owned)
    {
        sqlite3_reset(m_statement);
        sqlite3_clear_bindings(m_statement);
    }
}

SqlStatementCache::SqlStatementCache(sqlite3* db)
    : m_db(db)
{
}

SqlStatementCache::Lease SqlStatementCache::Acquire(const SqlQuery& query)
{
    const std::string& text = query.Text();
    if (query.Values().empty())
    {
        return Lease(nullptr, Compile(query), false);
    }
    const auto it = m_entries.find(text);
    const bool reused = it != m_entries.end();
    sqlite3_stmt* statement = nullptr;
    if (reused)
    {
        m_lru.splice(m_lru.end(), m_lru, it->second.lru);
        statement = it->second.statement.get();
    }
    else
    {
        statement = Keep(text, Compile(query));
    }
    try
    {
        Bind(statement, query);
    }
    catch (...)
    {
        sqlite3_clear_bindings(statement);
        throw;
    }
    return Lease(statement, nullptr, reused);
}

void SqlStatementCache::Forget(const std::string& text)
{
    const auto it = m_entries.find(text);
    if (it != m_entries.end())
    {
        m_lru.erase(it->second.lru);
        m_entries.erase(it);
    }
}

// Compiles exactly one statement; the text's length plus one hands SQLite
// the terminator as well.
SqlStatementCache::Statement SqlStatementCache::Compile(const SqlQuery& query) const
{
    const std::string& text = query.Text();
    sqlite3_stmt* raw = nullptr;
    const char* tail = nullptr;
    int rc = SQLITE_TOOBIG;
    if (text.size() < static_cast<size_t>(INT_MAX))
    {
        rc = sqlite3_prepare_v2(m_db, text.c_str(), static_cast<int>(text.size() + 1), &raw, &tail);
    }
    Statement statement(raw);
    if (rc != SQLITE_OK || !statement)
    {
        EDR_LOG_ERROR("SqlStorage: Failed to compile '"
                      << query << "': " << (rc == SQLITE_OK ? "empty query" : sqlite3_errmsg(m_db)));
        throw StorageException("Failed to compile query");
    }
    if (HasMoreText(tail, text))
    {
        EDR_LOG_ERROR("SqlStorage: Multiple sql statements in query '" << query << "'");
        throw StorageException("'query' has multiple statements");
    }
    return statement;
}

sqlite3_stmt* SqlStatementCache::Keep(const std::string& text, Statement statement)
{
    if (m_entries.size() >= kCapacity)
    {
        m_entries.erase(m_lru.front());
        m_lru.pop_front();
    }
    m_lru.push_back(text);
    sqlite3_stmt* kept = statement.get();
    m_entries.emplace(text, Entry{std::move(statement), std::prev(m_lru.end())});
    return kept;
}

void SqlStatementCache::Bind(sqlite3_stmt* statement, const SqlQuery& query) const
{
    if (static_cast<size_t>(sqlite3_bind_parameter_count(statement)) != query.Values().size())
    {
        EDR_LOG_ERROR("SqlStorage: Failed to execute '"
                      << query << "': " << query.Values().size() << " values for "
                      << sqlite3_bind_parameter_count(statement) << " placeholders");
        throw StorageException("Failed to execute query");
    }
    int index = 0;
    for (const auto& value : query.Values())
    {
        ++index;
        int rc = SQLITE_TOOBIG;
        if (const auto* number = std::get_if<int64_t>(&value))
        {
            rc = sqlite3_bind_int64(statement, index, *number);
        }
        else if (const auto text = std::get<std::string_view>(value);
                 text.size() < static_cast<size_t>(INT_MAX))
        {
            // Bound for this run only: the query's strings outlive it.
            rc = sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()),
                                   SQLITE_STATIC);
        }
        if (rc != SQLITE_OK)
        {
            EDR_LOG_ERROR("SqlStorage: Failed to execute '" << query << "': " << sqlite3_errstr(rc));
            throw StorageException("Failed to execute query");
        }
    }
}

} // namespace vantor::common::internal
