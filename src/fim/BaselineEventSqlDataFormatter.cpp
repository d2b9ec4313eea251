#include "fim/BaselineEventSqlDataFormatter.h"

#include "common/Serializer.h"
#include "common/SqlDataFormatterException.h"

namespace vantor::fim
{

std::string BaselineEventSqlDataFormatter::GetDeleteAllStatement() const
{
    return "Delete from BaselineEvents";
}

std::string BaselineEventSqlDataFormatter::Clear(const std::string& /*tableName*/) const
{
    throw common::SqlDataFormatterException(
        "Clear(tablename) is not implemented for BaselineEventSqlDataFormatter.");
}

std::vector<std::string> BaselineEventSqlDataFormatter::GetCreateStatements() const
{
    return {std::string("CREATE TABLE [BaselineEvents]") + "(" + "[FilePath] TEXT PRIMARY KEY, " +
            "[ContentStatus] TEXT" + ")"};
}

std::string BaselineEventSqlDataFormatter::GetDeleteStatement(const std::string& table,
                                                              const std::string& key) const
{
    CheckTable(table);
    return "DELETE from " + table + " WHERE " + "FilePath" + " = " + QuoteText(key);
}

std::string BaselineEventSqlDataFormatter::GetInsertStatement(const std::string& table,
                                                              std::string_view record) const
{
    CheckTable(table);
    common::Serializer reader(record);
    const std::string_view path = reader.GetString();
    const std::string_view status = reader.GetString();
    return "INSERT or REPLACE INTO " + table + " " + "VALUES (" + QuoteText(path) + "," + QuoteText(status) +
           ")";
}

std::string BaselineEventSqlDataFormatter::GetSelectStatement(const std::string& table,
                                                              const std::string& key) const
{
    CheckTable(table);
    return "SELECT * from " + table + " WHERE " + "FilePath" + " = " + QuoteText(key);
}

std::string BaselineEventSqlDataFormatter::FormatRecord(std::string_view filePath,
                                                        std::string_view contentStatus)
{
    Start();
    AppendString(filePath);
    AppendString(contentStatus);
    return TakeBuffer();
}

void BaselineEventSqlDataFormatter::CheckTable(const std::string& table)
{
    if (table != kTableName)
    {
        throw common::SqlDataFormatterException("BaselineEventSqlDataFormatter: Unknown table '" + table +
                                                "'");
    }
}

} // namespace vantor::fim
