#include "common/SqlDataFormatter.h"

#include "common/Serializer.h"
#include "common/SqlDataFormatterException.h"

namespace vantor::common
{

SqlDataFormatter::~SqlDataFormatter() = default;

void SqlDataFormatter::AppendInt64(int64_t value)
{
    Serializer::AppendInt64(m_buffer, value);
}

void SqlDataFormatter::AppendString(std::string_view value)
{
    Serializer::AppendString(m_buffer, value);
}

std::string SqlDataFormatter::TakeBuffer()
{
    std::string taken;
    taken.swap(m_buffer);
    return taken;
}

std::string SqlDataFormatter::GetSchemaVersionQuery() const
{
    return {};
}

void SqlDataFormatter::Start()
{
    if (!m_buffer.empty())
    {
        throw SqlDataFormatterException("SqlDataFormatter::Start: A transaction is already in progress");
    }
}

std::vector<std::string> SqlDataFormatter::GetUpgradeStatements(int64_t /*currentVersion*/) const
{
    return {};
}

SqlQuery SqlDataFormatter::GetInsertQuery(const std::string& table, std::string_view record) const
{
    return GetInsertStatement(table, record);
}

SqlQuery SqlDataFormatter::GetSelectQuery(const std::string& table, const std::string& key) const
{
    return GetSelectStatement(table, key);
}

SqlQuery SqlDataFormatter::GetDeleteQuery(const std::string& table, const std::string& key) const
{
    return GetDeleteStatement(table, key);
}

std::string SqlDataFormatter::QuoteText(std::string_view value)
{
    return SqlQuery::Quote(value);
}

} // namespace vantor::common
