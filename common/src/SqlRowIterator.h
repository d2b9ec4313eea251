#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <variant>
#include <vector>

namespace vantor::common
{

// Reads the rows of a storage result back into values. SqlStorage::Read
// serialises each column by its SQLite type (integer as 64-bit integer, text
// as string); the reader states the column types it expects.
class SqlRowIterator
{
public:
    enum class ColumnType
    {
        Integer,
        Text
    };
    using Value = std::variant<int64_t, std::string>;

    explicit SqlRowIterator(std::vector<ColumnType> columns);

    // Throws StorageException "SqlRowIterator::Add: 'row' cannot be empty".
    void Add(std::string row);

    bool HasNext() const { return !m_rows.empty(); }

    // The values of the oldest added row. Throws StorageException
    // "SqlRowIterator::Next: Incomplete sql row" for a row shorter than its
    // columns, and std::out_of_range when no row is left.
    std::vector<Value> Next();

private:
    std::vector<ColumnType> m_columns;
    std::deque<std::string> m_rows;
};

} // namespace vantor::common
