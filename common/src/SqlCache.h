#pragma once

#include "common/SqlStorage.h"

#include <cstddef>
#include <list>
#include <string>
#include <unordered_map>
#include <vector>

namespace vantor::common::internal
{

// The read cache of a SqlStorage: the rows of recently read or written
// keys, per table, bounded by their total size and evicting the least
// recently used first. It counts hits, misses, writes and reads that found
// nothing, and logs each change at debug level.
//
// Not thread-safe: SqlStorage calls it under its mutex.
class SqlCache
{
public:
    using Statistics = SqlStorage::CacheStatistics;
    using Rows = std::vector<std::string>;

    // 0 turns the cache off: every call then does nothing.
    explicit SqlCache(std::size_t limitBytes);

    bool Enabled() const { return m_limitBytes > 0; }

    // The cached rows of the key (counted as a hit), or null (a miss).
    const Rows* Lookup(const std::string& table, const std::string& key);
    // Rows read from the database after a miss; none counts as not found.
    void Loaded(const std::string& table, const std::string& key, const Rows& rows);
    // Records written to the database, each its key's only row.
    void Written(const std::string& table, const SqlStorage::Records& records);
    void Erase(const std::string& table, const std::string& key);
    // Whatever a statement touched may no longer be true: forget all.
    void Clear();

    Statistics GetStatistics() const { return m_statistics; }

private:
    struct Entry
    {
        std::string table;
        Rows rows;
        std::size_t bytes = 0;
        std::list<std::string>::iterator lru;
    };

    static std::string Key(const std::string& table, const std::string& key);
    void Put(const std::string& table, const std::string& key, Rows rows);
    void Evict();
    void LogChange(const char* verb, std::size_t bytes, const char* preposition,
                   const std::string& table) const;
    void LogCounters() const;

    const std::size_t m_limitBytes;
    std::unordered_map<std::string, Entry> m_entries;
    // Least recently used first.
    std::list<std::string> m_lru;
    std::unordered_map<std::string, std::size_t> m_rowsPerTable;
    Statistics m_statistics;
};

} // namespace vantor::common::internal
