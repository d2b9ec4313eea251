#include "edr/AHSSqlDataFormatter.h"

#include "common/Serializer.h"
#include "common/SqlDataFormatterException.h"

namespace vantor::edr
{

std::string AHSSqlDataFormatter::GetDeleteAllStatement() const
{
    return "Drop table AgentStatus;";
}

std::string AHSSqlDataFormatter::Clear(const std::string& tableName) const
{
    CheckTable(tableName);
    return "DELETE FROM " + tableName;
}

std::vector<std::string> AHSSqlDataFormatter::GetCreateStatements() const
{
    return {std::string("CREATE TABLE [AgentStatus]") + "(" + "[Time] TEXT, " + "[ContextId] TEXT, " +
                "[StatusCode] INTEGER, " + "[State] INTEGER, " + "[AdditionalFields] TEXT" + ")",
            "PRAGMA user_version = 1;"};
}

std::string AHSSqlDataFormatter::GetSchemaVersionQuery() const
{
    return "PRAGMA user_version";
}

std::vector<std::string> AHSSqlDataFormatter::GetUpgradeStatements(int64_t currentVersion) const
{
    if (currentVersion >= kSchemaVersion)
    {
        return {};
    }
    std::vector<std::string> statements{GetDeleteAllStatement()};
    for (auto& statement : GetCreateStatements())
    {
        statements.push_back(std::move(statement));
    }
    return statements;
}

std::string AHSSqlDataFormatter::GetDeleteStatement(const std::string& table, const std::string& key) const
{
    CheckTable(table);
    return "DELETE FROM " + table + key;
}

std::string AHSSqlDataFormatter::GetInsertStatement(const std::string& table, std::string_view record) const
{
    CheckTable(table);
    const AHSRecord parsed = ParseRecord(record);
    return "INSERT or REPLACE INTO " + table + " VALUES (" + QuoteText(parsed.time) + ", " +
           QuoteText(parsed.contextId) + ", " + std::to_string(parsed.statusCode) + ", " +
           std::to_string(parsed.state) + ", " + QuoteText(parsed.additionalFields) + ")";
}

std::string AHSSqlDataFormatter::GetSelectStatement(const std::string& table, const std::string& key) const
{
    CheckTable(table);
    if (key == "count")
    {
        return "SELECT count(*) FROM " + table;
    }
    if (key.empty())
    {
        return "SELECT * from " + table + " order by time limit 1";
    }
    return "SELECT * from " + table + " " + key;
}

std::string AHSSqlDataFormatter::FilterClause(int64_t low, int64_t high, const std::string& column,
                                              uint64_t limit)
{
    return std::string(" WHERE") + " [StatusCode] >= " + std::to_string(low) +
           " AND [StatusCode] <= " + std::to_string(high) + " ORDER BY " + column + " DESC" + " LIMIT " +
           std::to_string(limit);
}

std::string AHSSqlDataFormatter::FormatRecord(const AHSRecord& record)
{
    std::string buffer;
    common::Serializer::AppendString(buffer, record.time);
    common::Serializer::AppendString(buffer, record.contextId);
    common::Serializer::AppendInt64(buffer, record.statusCode);
    common::Serializer::AppendInt64(buffer, record.state);
    common::Serializer::AppendString(buffer, record.additionalFields);
    return buffer;
}

AHSRecord AHSSqlDataFormatter::ParseRecord(std::string_view row)
{
    common::Serializer reader(row);
    AHSRecord record;
    record.time = std::string(reader.GetString());
    record.contextId = std::string(reader.GetString());
    record.statusCode = reader.GetInt64();
    record.state = reader.GetInt64();
    record.additionalFields = std::string(reader.GetString());
    return record;
}

void AHSSqlDataFormatter::CheckTable(const std::string& table)
{
    if (table != kTableName)
    {
        throw common::SqlDataFormatterException("AHSSqlDataFormatter: Unknown table '" + table + "'");
    }
}

} // namespace vantor::edr
