#include "common/SqlRowIterator.h"

#include "common/Serializer.h"
#include "common/StorageException.h"

#include <stdexcept>

namespace vantor::common
{

SqlRowIterator::SqlRowIterator(std::vector<ColumnType> columns)
    : m_columns(std::move(columns))
{
}

void SqlRowIterator::Add(std::string row)
{
    if (row.empty())
    {
        throw StorageException("SqlRowIterator::Add: 'row' cannot be empty");
    }
    m_rows.push_back(std::move(row));
}

std::vector<SqlRowIterator::Value> SqlRowIterator::Next()
{
    if (m_rows.empty())
    {
        throw std::out_of_range("SqlRowIterator::Next: no more rows");
    }
    const std::string row = std::move(m_rows.front());
    m_rows.pop_front();

    std::vector<Value> values;
    values.reserve(m_columns.size());
    Serializer reader(row);
    try
    {
        for (const ColumnType type : m_columns)
        {
            if (type == ColumnType::Integer)
            {
                values.emplace_back(reader.GetInt64());
            }
            else
            {
                values.emplace_back(std::string(reader.GetString()));
            }
        }
    }
    catch (const std::out_of_range&)
    {
        throw StorageException("SqlRowIterator::Next: Incomplete sql row");
    }
    return values;
}

} // namespace vantor::common
