#pragma once

#include "common/SqlDataFormatter.h"
#include "edr/AHSRecord.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vantor::edr
{

// SQL of the health-status store, one table "AgentStatus" without a key:
// time, context id, status code, state and additional fields. The schema is
// versioned (user_version 1); a store of an older version loses its table,
// which is made again, since its rows cannot be told apart from ours.
//
// Keys of the select statement: "count" counts the rows, "" selects the
// oldest row, anything else is a clause appended to the select (see
// FilterClause). The key of the delete statement is a clause as well.
// Records and rows have the same form: time, context id (strings), status
// code, state (64-bit integers), additional fields (string).
//
// Stateless apart from the base's buffer; the static members may be used
// from any thread.
class AHSSqlDataFormatter : public common::SqlDataFormatter
{
public:
    static constexpr const char* kTableName = "AgentStatus";
    static constexpr int64_t kSchemaVersion = 1;

    // "Drop table AgentStatus;": the table goes with its rows.
    std::string GetDeleteAllStatement() const override;
    std::string Clear(const std::string& tableName) const override;
    std::vector<std::string> GetCreateStatements() const override;
    std::string GetDeleteStatement(const std::string& table, const std::string& key) const override;
    std::string GetInsertStatement(const std::string& table, std::string_view record) const override;
    std::string GetSelectStatement(const std::string& table, const std::string& key) const override;
    std::string GetSchemaVersionQuery() const override;
    std::vector<std::string> GetUpgradeStatements(int64_t currentVersion) const override;

    // The select clause of the records whose status codes lie in [low,
    // high], the highest values of column first, at most limit of them.
    static std::string FilterClause(int64_t low, int64_t high, const std::string& column, uint64_t limit);

    static std::string FormatRecord(const AHSRecord& record);
    // Throws std::out_of_range for a short row.
    static AHSRecord ParseRecord(std::string_view row);

private:
    // Only the one table is known here; a name from elsewhere would
    // otherwise be written into the statement as it stands.
    static void CheckTable(const std::string& table);
};

} // namespace vantor::edr
