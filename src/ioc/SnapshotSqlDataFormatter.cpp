#include "ioc/SnapshotSqlDataFormatter.h"

#include "common/Serializer.h"
#include "common/SqlDataFormatterException.h"

#include <array>
#include <map>

namespace vantor::ioc::internal
{

namespace
{

using ColumnType = common::SqlRowIterator::ColumnType;

struct Column
{
    const char* name;
    const char* definition;
    ColumnType type;
};

struct Table
{
    const char* key;
    std::vector<Column> columns;
};

constexpr ColumnType kInt = ColumnType::Integer;
constexpr ColumnType kText = ColumnType::Text;

const std::map<std::string, Table, std::less<>>& Tables()
{
    static const std::map<std::string, Table, std::less<>> tables{
        {"ClientInformation",
         {"Name", {{"Name", "[Name] TEXT UNIQUE", kText}, {"Value", "[Value] TEXT", kText}}}},
        {"Directory",
         {"RowID",
          {{"RowID", "[RowID] TEXT PRIMARY KEY", kText},
           {"Path", "[Path] TEXT", kText},
           {"CreationTime", "[CreationTime] BIGINT", kInt},
           {"LastWriteTime", "[LastWriteTime] BIGINT", kInt},
           {"LastAccessTime", "[LastAccessTime] BIGINT", kInt},
           {"LastChangeTime", "[LastChangeTime] BIGINT ", kInt}}}},
        {"File",
         {"RowID",
          {{"RowID", "[RowID] TEXT PRIMARY KEY", kText},
           {"ParentId", "[ParentId] TEXT", kText},
           {"Size", "[Size] INTEGER", kInt},
           {"CreationTime", "[CreationTime] BIGINT", kInt},
           {"LastWriteTime", "[LastWriteTime] BIGINT", kInt},
           {"LastAccessTime", "[LastAccessTime] BIGINT", kInt},
           {"LastChangeTime", "[LastChangeTime] BIGINT", kInt},
           {"MD5Hash", "[MD5Hash] TEXT", kText},
           {"SHA1", "[SHA1] TEXT", kText},
           {"SHA256", "[SHA256] TEXT", kText}}}},
        {"TtlProcesses",
         {"ProcessID",
          {{"ProcessID", "[ProcessID] INTEGER PRIMARY KEY", kInt},
           {"Arguments", "[Arguments] TEXT", kText},
           {"Auid", "[Auid] INTEGER", kInt},
           {"Children", "[Children] TEXT", kText},
           {"CreationTime", "[CreationTime] BIGINT", kInt},
           {"Cwd", "[Cwd] TEXT", kText},
           {"Euid", "[Euid] INTEGER", kInt},
           {"ImageDeviceID", "[ImageDeviceID] TEXT", kText},
           {"ImageFileAttributes", "[ImageFileAttributes] INTEGER", kInt},
           {"ImageFileInode", "[ImageFileInode] INTEGER", kInt},
           {"ImageFilePath", "[ImageFilePath] TEXT", kText},
           {"ImageOwnerGid", "[ImageOwnerGid] INTEGER", kInt},
           {"ImageOwnerGroup", "[ImageOwnerGroup] TEXT", kText},
           {"ImageOwnerName", "[ImageOwnerName] TEXT", kText},
           {"ImageOwnerUid", "[ImageOwnerUid] INTEGER", kInt},
           {"ImageFileFSAttributes", "[ImageFileFSAttributes] TEXT", kText},
           {"Parent", "[Parent] INTEGER", kInt},
           {"Score", "[Score] INTEGER", kInt},
           {"SecondaryImageDeviceID", "[SecondaryImageDeviceID] TEXT", kText},
           {"SecondaryImageFileAttributes", "[SecondaryImageFileAttributes] INTEGER", kInt},
           {"SecondaryImageFileInode", "[SecondaryImageFileInode] INTEGER", kInt},
           {"SecondaryImageFilePath", "[SecondaryImageFilePath] TEXT", kText},
           {"SecondaryImageOwnerGid", "[SecondaryImageOwnerGid] INTEGER", kInt},
           {"SecondaryImageOwnerGroup", "[SecondaryImageOwnerGroup] TEXT", kText},
           {"SecondaryImageOwnerName", "[SecondaryImageOwnerName] TEXT", kText},
           {"SecondaryImageOwnerUid", "[SecondaryImageOwnerUid] INTEGER", kInt},
           {"SecondaryImageFileFSAttributes", "[SecondaryImageFileFSAttributes] TEXT", kText},
           {"Tags", "[Tags] TEXT", kText},
           {"Uid", "[Uid] INTEGER", kInt}}}},
    };
    return tables;
}

// Throws SqlDataFormatterException for a table not in use, so that no name
// from elsewhere reaches a statement.
const Table& FindTable(std::string_view table)
{
    const auto it = Tables().find(table);
    if (it == Tables().end())
    {
        throw common::SqlDataFormatterException("SnapshotSqlDataFormatter: Unknown table '" +
                                                std::string(table) + "'");
    }
    return it->second;
}

// "INSERT or REPLACE INTO <name> VALUES (?, ...)" of a known table, made
// once: every stored row needs it.
const std::string& InsertText(std::string_view table)
{
    static const auto texts = []
    {
        std::map<std::string, std::string, std::less<>> made;
        for (const auto& [name, definition] : Tables())
        {
            std::string text = "INSERT or REPLACE INTO " + name + " VALUES (";
            for (size_t i = 0; i < definition.columns.size(); ++i)
            {
                text += i == 0 ? "?" : ", ?";
            }
            made.emplace(name, text + ")");
        }
        return made;
    }();
    return texts.find(table)->second;
}

std::string Create(const std::string& name, const std::vector<Column>& columns)
{
    std::string statement = "CREATE TABLE [" + name + "](";
    for (size_t i = 0; i < columns.size(); ++i)
    {
        statement += std::string(columns[i].definition) + (i + 1 < columns.size() ? ", " : "");
    }
    return statement + ")";
}

std::string Create(const std::string& name)
{
    return Create(name, FindTable(name).columns);
}

std::string Drop(const std::string& name)
{
    return "DROP TABLE IF EXISTS " + name;
}

std::string Alter(const std::string& name, const char* change, const std::string& column)
{
    return "ALTER TABLE " + name + " " + change + " COLUMN " + column;
}

// The older shapes of the tables the early upgrade steps rework: the columns
// kept come first, in their current order, so that dropping the others
// leaves the current order.
const std::array<const char*, 12> kOldFileColumns{"EventAction",
                                                  "TimeStamp",
                                                  "DeviceId",
                                                  "Name",
                                                  "Inode",
                                                  "Type",
                                                  "Extension",
                                                  "SecuritySettings",
                                                  "FileAttribute",
                                                  "ScanQualifier",
                                                  "FoundEntryDuringScan",
                                                  "PayloadHash"};
const std::array<const char*, 9> kOldDirectoryColumns{
    "EventAction",      "TimeStamp",     "Inode",         "DeviceId",
    "SecuritySettings", "FileAttribute", "ScanQualifier", "FoundEntryDuringScan",
    "PayloadHash"};

template <size_t N>
std::string CreateOldShapeIfMissing(const std::string& name, size_t keptColumns,
                                    const std::array<const char*, N>& dropped)
{
    const auto& columns = FindTable(name).columns;
    std::string statement = "CREATE TABLE IF NOT EXISTS [" + name + "](";
    for (size_t i = 0; i < keptColumns; ++i)
    {
        statement += std::string(columns[i].definition) + ", ";
    }
    for (size_t i = 0; i < N; ++i)
    {
        statement += std::string("[") + dropped[i] + "] TEXT" + (i + 1 < N ? ", " : "");
    }
    return statement + ")";
}

void AppendClientInformationSteps(std::vector<std::string>& statements)
{
    // Keeps the sequence number of a table this daemon wrote before it
    // versioned the schema.
    statements.push_back("CREATE TABLE IF NOT EXISTS [ClientInformation]([Name] TEXT UNIQUE, [Value] TEXT)");
    statements.push_back(
        "CREATE TEMP TABLE [KeptClientInformation] AS SELECT Name, Value from ClientInformation "
        "WHERE Name = 'SequenceNumber'");
    statements.push_back(Drop("ClientInformation"));
    statements.push_back(Create("ClientInformation"));
    statements.push_back("INSERT or REPLACE INTO ClientInformation VALUES ('SequenceNumber', "
                         "COALESCE((SELECT Value from temp.KeptClientInformation), '0'))");
    statements.push_back("DROP TABLE temp.KeptClientInformation");
}

void AppendFileAndDirectorySteps(std::vector<std::string>& statements)
{
    for (const char* table : {"Actor", "Network", "LoadedModule", "SecuritySettings"})
    {
        statements.push_back(Drop(table));
    }
    statements.push_back(CreateOldShapeIfMissing("File", 7, kOldFileColumns));
    statements.push_back(CreateOldShapeIfMissing("Directory", 6, kOldDirectoryColumns));
    statements.push_back(
        "CREATE TABLE IF NOT EXISTS [Hash]([RowID] TEXT PRIMARY KEY, [MD5Hash] TEXT, [SHA1] TEXT, "
        "[SHA256] TEXT)");
    for (const char* column : kOldFileColumns)
    {
        statements.push_back(Alter("File", "DROP", column));
    }
    for (const char* column : {"[Md5Hash] TEXT", "[SHA1] TEXT", "[SHA256] TEXT"})
    {
        statements.push_back(Alter("File", "ADD", column));
    }
    statements.push_back(
        "UPDATE File SET MD5Hash=(SELECT Hash.MD5Hash from Hash WHERE File.RowID=Hash.RowID);");
    statements.push_back("UPDATE File SET SHA1=(SELECT Hash.SHA1 from Hash WHERE File.RowID=Hash.RowID);");
    statements.push_back(
        "UPDATE File SET SHA256=(SELECT Hash.SHA256 from Hash WHERE File.RowID=Hash.RowID);");
    statements.push_back(Drop("Hash"));
    for (const char* column : kOldDirectoryColumns)
    {
        statements.push_back(Alter("Directory", "DROP", column));
    }
}

std::string VersionStatement()
{
    return "PRAGMA user_version = " + std::to_string(SnapshotSqlDataFormatter::kSchemaVersion);
}

} // namespace

std::string SnapshotSqlDataFormatter::GetTableName(TableKind kind)
{
    static const std::array<const char*, 11> names{"Actor",   "ClientInformation", "Directory",   "File",
                                                   "Hash",    "LoadedModule",      "Metadata",    "Network",
                                                   "Process", "SecuritySettings",  "TtlProcesses"};
    const auto index = static_cast<int>(kind);
    if (index < 0 || index >= static_cast<int>(names.size()))
    {
        throw common::SqlDataFormatterException("SnapshotSqlDataFormatter::Select: Invalid table type: " +
                                                std::to_string(index));
    }
    return names[static_cast<size_t>(index)];
}

std::string SnapshotSqlDataFormatter::GetDeleteAllStatement() const
{
    return std::string("DELETE from ") + kClientInformation + " WHERE Name != " + QuoteText(kSequenceNumber) +
           ";";
}

std::string SnapshotSqlDataFormatter::Clear(const std::string& tableName) const
{
    FindTable(tableName);
    return "DELETE from " + tableName + ";";
}

std::vector<std::string> SnapshotSqlDataFormatter::GetCreateStatements() const
{
    return {Create(kClientInformation), Create("Directory"), Create("File"), Create(kTtlProcesses),
            VersionStatement()};
}

std::string SnapshotSqlDataFormatter::GetDeleteStatement(const std::string& table,
                                                         const std::string& key) const
{
    return GetDeleteQuery(table, key).ToString();
}

common::SqlQuery SnapshotSqlDataFormatter::GetDeleteQuery(const std::string& table,
                                                          const std::string& key) const
{
    common::SqlQuery query("DELETE from " + table + " WHERE " + FindTable(table).key + " = ?;");
    query.Bind(key);
    return query;
}

std::string SnapshotSqlDataFormatter::GetDeleteKeysStatement(const std::string& table,
                                                             std::span<const std::string> keys)
{
    if (keys.empty())
    {
        throw common::SqlDataFormatterException("SnapshotSqlDataFormatter: No keys to delete from '" + table +
                                                "'");
    }
    std::string text = "DELETE from " + table + " WHERE " + FindTable(table).key + " IN (?";
    for (size_t i = 1; i < keys.size(); ++i)
    {
        text += ", ?";
    }
    common::SqlQuery query(text + ");");
    for (const auto& key : keys)
    {
        query.Bind(key);
    }
    return query.ToString();
}

std::string SnapshotSqlDataFormatter::GetSchemaVersionQuery() const
{
    return "PRAGMA user_version";
}

std::string SnapshotSqlDataFormatter::GetInsertStatement(const std::string& table,
                                                         std::string_view record) const
{
    return GetInsertQuery(table, record).ToString();
}

common::SqlQuery SnapshotSqlDataFormatter::GetInsertQuery(const std::string& table,
                                                          std::string_view record) const
{
    const auto& columns = FindTable(table).columns;
    common::SqlQuery query(InsertText(table));
    common::Serializer reader(record);
    for (const auto& column : columns)
    {
        if (column.type == kText)
        {
            query.Bind(reader.GetString());
        }
        else
        {
            query.Bind(reader.GetInt64());
        }
    }
    if (!reader.AtEnd())
    {
        throw common::SqlDataFormatterException("SnapshotSqlDataFormatter: record for " + table + " has " +
                                                std::to_string(reader.Remaining()) + " bytes too many");
    }
    return query;
}

std::string SnapshotSqlDataFormatter::GetSelectStatement(const std::string& table,
                                                         const std::string& key) const
{
    return GetSelectQuery(table, key).ToString();
}

common::SqlQuery SnapshotSqlDataFormatter::GetSelectQuery(const std::string& table,
                                                          const std::string& key) const
{
    const auto& definition = FindTable(table);
    if (key.empty())
    {
        return "SELECT * from " + table;
    }
    common::SqlQuery query("SELECT * from " + table + " WHERE " + definition.key + " = ?;");
    query.Bind(key);
    return query;
}

std::vector<std::string> SnapshotSqlDataFormatter::GetUpgradeStatements(int64_t currentVersion) const
{
    std::vector<std::string> statements;
    if (currentVersion >= kSchemaVersion)
    {
        return statements;
    }
    if (currentVersion <= 0)
    {
        AppendClientInformationSteps(statements);
    }
    if (currentVersion <= 1)
    {
        AppendFileAndDirectorySteps(statements);
    }
    // The rows a version before 5 may lack; a stored sequence number stays.
    statements.push_back(
        "INSERT or REPLACE INTO ClientInformation VALUES ('SequenceNumber', "
        "COALESCE((SELECT Value from ClientInformation WHERE Name = 'SequenceNumber'), '0'))");
    // A process table of an older shape cannot be trusted: the tree is
    // rebuilt from the running processes.
    statements.push_back(Drop(kTtlProcesses));
    statements.push_back(Create(kTtlProcesses));
    statements.push_back(Drop("Process"));
    statements.push_back(VersionStatement());
    return statements;
}

std::vector<common::SqlRowIterator::ColumnType>
SnapshotSqlDataFormatter::GetColumnTypes(const std::string& table)
{
    std::vector<ColumnType> types;
    for (const auto& column : FindTable(table).columns)
    {
        types.push_back(column.type);
    }
    return types;
}

std::string SnapshotSqlDataFormatter::FormatRecord(std::string_view name, std::string_view value)
{
    Start();
    AppendString(name);
    AppendString(value);
    return TakeBuffer();
}

} // namespace vantor::ioc::internal
