#include "ioc/SnapshotSqlDataFormatter.h"

#include "common/Serializer.h"
#include "common/SqlDataFormatterException.h"

namespace vantor::ioc::internal
{

std::string SnapshotSqlDataFormatter::GetDeleteAllStatement() const
{
    return std::string("DELETE from ") + kClientInformation + " WHERE Name != " + QuoteText(kSequenceNumber) +
           ";";
}

std::string SnapshotSqlDataFormatter::Clear(const std::string& tableName) const
{
    CheckTable(tableName);
    return "DELETE from " + tableName + ";";
}

std::vector<std::string> SnapshotSqlDataFormatter::GetCreateStatements() const
{
    return {std::string("CREATE TABLE ") + "[" + kClientInformation + "]" + "(" + "[Name] TEXT UNIQUE, " +
            "[Value] TEXT" + ")"};
}

std::string SnapshotSqlDataFormatter::GetDeleteStatement(const std::string& table,
                                                         const std::string& key) const
{
    CheckTable(table);
    return "DELETE from " + table + " WHERE Name = " + QuoteText(key) + ";";
}

std::string SnapshotSqlDataFormatter::GetInsertStatement(const std::string& table,
                                                         std::string_view record) const
{
    CheckTable(table);
    common::Serializer reader(record);
    const std::string_view name = reader.GetString();
    const std::string_view value = reader.GetString();
    return "INSERT or REPLACE INTO " + table + " VALUES (" + QuoteText(name) + ", " + QuoteText(value) + ")";
}

std::string SnapshotSqlDataFormatter::GetSelectStatement(const std::string& table,
                                                         const std::string& key) const
{
    CheckTable(table);
    return "SELECT * from " + table + " WHERE Name = " + QuoteText(key) + ";";
}

std::string SnapshotSqlDataFormatter::FormatRecord(std::string_view name, std::string_view value)
{
    Start();
    AppendString(name);
    AppendString(value);
    return TakeBuffer();
}

void SnapshotSqlDataFormatter::CheckTable(const std::string& table)
{
    if (table != kClientInformation)
    {
        throw common::SqlDataFormatterException("SnapshotSqlDataFormatter: Unknown table '" + table + "'");
    }
}

} // namespace vantor::ioc::internal
