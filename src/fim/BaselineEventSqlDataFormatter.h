#pragma once

#include "common/SqlDataFormatter.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vantor::fim
{

struct FileState;

// SQL of the FIM baseline store, two tables keyed by the file path:
// - "BaselineEvents": the content status of each file of the baseline pass;
//   a record is the path and the status, as serialised strings.
// - "FileState": the last known state of each watched object (size, mode,
//   owner, group, modification time, content hash), so that a change
//   document can tell what was there before. Added by the schema upgrade to
//   version 1, so that a store of an older version gains it on opening.
// The rows that Read answers have the same form as the records, so the store
// may cache them.
class BaselineEventSqlDataFormatter : public common::SqlDataFormatter
{
public:
    static constexpr const char* kTableName = "BaselineEvents";
    static constexpr const char* kStateTableName = "FileState";

    std::string GetDeleteAllStatement() const override;
    // Not offered: throws SqlDataFormatterException.
    std::string Clear(const std::string& tableName) const override;
    std::vector<std::string> GetCreateStatements() const override;
    std::string GetDeleteStatement(const std::string& table, const std::string& key) const override;
    std::string GetInsertStatement(const std::string& table, std::string_view record) const override;
    std::string GetSelectStatement(const std::string& table, const std::string& key) const override;
    std::string GetSchemaVersionQuery() const override;
    std::vector<std::string> GetUpgradeStatements(int64_t currentVersion) const override;
    common::SqlQuery GetInsertQuery(const std::string& table, std::string_view record) const override;
    common::SqlQuery GetSelectQuery(const std::string& table, const std::string& key) const override;
    common::SqlQuery GetDeleteQuery(const std::string& table, const std::string& key) const override;

    // The serialised record of one file of the baseline pass.
    std::string FormatRecord(std::string_view filePath, std::string_view contentStatus);
    // The serialised record of one object's state.
    std::string FormatState(std::string_view filePath, const FileState& state);
    // The state of a "FileState" row (or record); throws std::out_of_range
    // for a short one.
    static FileState ParseState(std::string_view row);

private:
    // Only the two tables are known here; a name from elsewhere would
    // otherwise be written into the statement as it stands.
    static void CheckTable(const std::string& table);
    // "<verb> from <table> WHERE FilePath = ?" with the key bound.
    static common::SqlQuery KeyedQuery(const char* verb, const std::string& table, const std::string& key);
};

} // namespace vantor::fim
