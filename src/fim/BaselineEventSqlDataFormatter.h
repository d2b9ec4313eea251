#pragma once

#include "common/SqlDataFormatter.h"

#include <string>
#include <string_view>
#include <vector>

namespace vantor::fim
{

// SQL of the FIM baseline store: one table "BaselineEvents" of (file path,
// content status) keyed by the path. A record is the path and the status, in
// that order, as serialised strings; the rows that Read answers have the same
// form, so the store may cache them.
class BaselineEventSqlDataFormatter : public common::SqlDataFormatter
{
public:
    static constexpr const char* kTableName = "BaselineEvents";

    std::string GetDeleteAllStatement() const override;
    // Not offered: throws SqlDataFormatterException.
    std::string Clear(const std::string& tableName) const override;
    std::vector<std::string> GetCreateStatements() const override;
    std::string GetDeleteStatement(const std::string& table, const std::string& key) const override;
    std::string GetInsertStatement(const std::string& table, std::string_view record) const override;
    std::string GetSelectStatement(const std::string& table, const std::string& key) const override;

    // The serialised record of one file.
    std::string FormatRecord(std::string_view filePath, std::string_view contentStatus);

private:
    // Only the baseline table is known here; a name from elsewhere would
    // otherwise be written into the statement as it stands.
    static void CheckTable(const std::string& table);
};

} // namespace vantor::fim
