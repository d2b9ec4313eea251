#include "common/SqlCache.h"

#include "common/Logging.h"

namespace vantor::common::internal
{

SqlCache::SqlCache(std::size_t limitBytes)
    : m_limitBytes(limitBytes)
{
}

std::string SqlCache::Key(const std::string& table, const std::string& key)
{
    std::string cacheKey;
    cacheKey.reserve(table.size() + 1 + key.size());
    cacheKey.append(table).push_back('\0');
    cacheKey.append(key);
    return cacheKey;
}

const SqlCache::Rows* SqlCache::Lookup(const std::string& table, const std::string& key)
{
    if (!Enabled())
    {
        return nullptr;
    }
    const auto it = m_entries.find(Key(table, key));
    if (it == m_entries.end())
    {
        ++m_statistics.misses;
        return nullptr;
    }
    m_lru.splice(m_lru.end(), m_lru, it->second.lru);
    ++m_statistics.hits;
    LogCounters();
    return &it->second.rows;
}

void SqlCache::Loaded(const std::string& table, const std::string& key, const Rows& rows)
{
    if (!Enabled())
    {
        return;
    }
    if (rows.empty())
    {
        ++m_statistics.notFounds;
    }
    else
    {
        Put(table, key, rows);
    }
    LogCounters();
}

void SqlCache::Written(const std::string& table, const SqlStorage::Records& records)
{
    if (!Enabled())
    {
        return;
    }
    for (const auto& [key, record] : records)
    {
        ++m_statistics.writes;
        Put(table, key, {record});
    }
    LogCounters();
}

void SqlCache::Put(const std::string& table, const std::string& key, Rows rows)
{
    std::size_t bytes = 0;
    for (const auto& row : rows)
    {
        bytes += row.size();
    }
    if (bytes > m_limitBytes)
    {
        // Larger than the whole cache: keep none of it, and no stale copy.
        Erase(table, key);
        return;
    }
    std::string cacheKey = Key(table, key);
    auto it = m_entries.find(cacheKey);
    if (it != m_entries.end())
    {
        m_statistics.bytes = m_statistics.bytes - it->second.bytes + bytes;
        it->second.rows = std::move(rows);
        it->second.bytes = bytes;
        m_lru.splice(m_lru.end(), m_lru, it->second.lru);
        LogChange("Updating ", bytes, " bytes in table ", table);
    }
    else
    {
        m_lru.push_back(cacheKey);
        Entry entry{table, std::move(rows), bytes, std::prev(m_lru.end())};
        m_entries.emplace(std::move(cacheKey), std::move(entry));
        ++m_rowsPerTable[table];
        ++m_statistics.rows;
        m_statistics.bytes += bytes;
        LogChange("Adding ", bytes, " bytes to table ", table);
    }
    Evict();
}

void SqlCache::Erase(const std::string& table, const std::string& key)
{
    const auto it = m_entries.find(Key(table, key));
    if (it == m_entries.end())
    {
        return;
    }
    const std::size_t bytes = it->second.bytes;
    m_lru.erase(it->second.lru);
    m_entries.erase(it);
    if (--m_rowsPerTable[table] == 0)
    {
        m_rowsPerTable.erase(table);
    }
    --m_statistics.rows;
    m_statistics.bytes -= bytes;
    LogChange("Deleting ", bytes, " bytes from table ", table);
}

void SqlCache::Clear()
{
    if (m_entries.empty())
    {
        return;
    }
    EDR_LOG_DEBUG("SqlStorage Cache: Clearing " << m_statistics.bytes << " bytes");
    m_entries.clear();
    m_lru.clear();
    m_rowsPerTable.clear();
    m_statistics.rows = 0;
    m_statistics.bytes = 0;
}

void SqlCache::Evict()
{
    while (m_statistics.bytes > m_limitBytes && !m_lru.empty())
    {
        const auto it = m_entries.find(m_lru.front());
        const std::string table = it->second.table;
        Erase(table, it->first.substr(table.size() + 1));
    }
}

void SqlCache::LogChange(const char* verb, std::size_t bytes, const char* preposition,
                         const std::string& table) const
{
    const auto rows = m_rowsPerTable.find(table);
    EDR_LOG_DEBUG("SqlStorage Cache: " << verb << bytes << preposition << table
                                       << ". #Rows = " << (rows == m_rowsPerTable.end() ? 0 : rows->second)
                                       << ". Total cached data size = " << m_statistics.bytes / 1024
                                       << " KB");
}

void SqlCache::LogCounters() const
{
    EDR_LOG_DEBUG("SqlStorage Cache: hits: " << m_statistics.hits << ", misses: " << m_statistics.misses
                                             << ", writes: " << m_statistics.writes
                                             << ", not founds: " << m_statistics.notFounds);
}

} // namespace vantor::common::internal
