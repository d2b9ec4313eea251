#include "fim/BaselineEventSqlDataFormatter.h"

#include "common/Serializer.h"
#include "common/SqlDataFormatterException.h"
#include "fim/FileState.h"

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

std::string BaselineEventSqlDataFormatter::GetSchemaVersionQuery() const
{
    return "PRAGMA user_version";
}

std::vector<std::string> BaselineEventSqlDataFormatter::GetUpgradeStatements(int64_t currentVersion) const
{
    if (currentVersion >= 1)
    {
        return {};
    }
    return {std::string("CREATE TABLE IF NOT EXISTS [FileState](") + "[FilePath] TEXT PRIMARY KEY, " +
                "[Size] INTEGER, [Mode] INTEGER, [Owner] INTEGER, [Group] INTEGER, " +
                "[ModificationTime] INTEGER, [ContentHash] TEXT)",
            "PRAGMA user_version = 1"};
}

std::string BaselineEventSqlDataFormatter::GetDeleteStatement(const std::string& table,
                                                              const std::string& key) const
{
    return GetDeleteQuery(table, key).ToString();
}

std::string BaselineEventSqlDataFormatter::GetInsertStatement(const std::string& table,
                                                              std::string_view record) const
{
    return GetInsertQuery(table, record).ToString();
}

std::string BaselineEventSqlDataFormatter::GetSelectStatement(const std::string& table,
                                                              const std::string& key) const
{
    return GetSelectQuery(table, key).ToString();
}

common::SqlQuery BaselineEventSqlDataFormatter::GetDeleteQuery(const std::string& table,
                                                               const std::string& key) const
{
    return KeyedQuery("DELETE", table, key);
}

common::SqlQuery BaselineEventSqlDataFormatter::GetInsertQuery(const std::string& table,
                                                               std::string_view record) const
{
    CheckTable(table);
    common::Serializer reader(record);
    if (table == kStateTableName)
    {
        // Path, size, mode, owner, group, modification time, content hash.
        common::SqlQuery query("INSERT or REPLACE INTO " + table + " VALUES (?,?,?,?,?,?,?)");
        query.Bind(reader.GetString());
        for (int column = 0; column < 5; ++column)
        {
            query.Bind(reader.GetInt64());
        }
        query.Bind(reader.GetString());
        return query;
    }
    common::SqlQuery query("INSERT or REPLACE INTO " + table + " VALUES (?,?)");
    query.Bind(reader.GetString());
    query.Bind(reader.GetString());
    return query;
}

common::SqlQuery BaselineEventSqlDataFormatter::GetSelectQuery(const std::string& table,
                                                               const std::string& key) const
{
    return KeyedQuery("SELECT *", table, key);
}

common::SqlQuery BaselineEventSqlDataFormatter::KeyedQuery(const char* verb, const std::string& table,
                                                           const std::string& key)
{
    CheckTable(table);
    common::SqlQuery query(std::string(verb) + " from " + table + " WHERE FilePath = ?");
    query.Bind(key);
    return query;
}

std::string BaselineEventSqlDataFormatter::FormatRecord(std::string_view filePath,
                                                        std::string_view contentStatus)
{
    Start();
    AppendString(filePath);
    AppendString(contentStatus);
    return TakeBuffer();
}

std::string BaselineEventSqlDataFormatter::FormatState(std::string_view filePath, const FileState& state)
{
    Start();
    AppendString(filePath);
    AppendInt64(static_cast<int64_t>(state.size));
    AppendInt64(state.mode);
    AppendInt64(state.uid);
    AppendInt64(state.gid);
    AppendInt64(state.modificationTimeNs);
    AppendString(state.sha256);
    return TakeBuffer();
}

FileState BaselineEventSqlDataFormatter::ParseState(std::string_view row)
{
    common::Serializer reader(row);
    reader.GetString(); // the path, which is the key
    FileState state;
    state.size = static_cast<uint64_t>(reader.GetInt64());
    state.mode = static_cast<uint32_t>(reader.GetInt64());
    state.uid = static_cast<uint32_t>(reader.GetInt64());
    state.gid = static_cast<uint32_t>(reader.GetInt64());
    state.modificationTimeNs = reader.GetInt64();
    state.sha256 = std::string(reader.GetString());
    return state;
}

void BaselineEventSqlDataFormatter::CheckTable(const std::string& table)
{
    if (table != kTableName && table != kStateTableName)
    {
        throw common::SqlDataFormatterException("BaselineEventSqlDataFormatter: Unknown table '" + table +
                                                "'");
    }
}

} // namespace vantor::fim
