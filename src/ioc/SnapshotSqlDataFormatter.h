#pragma once

#include "common/SqlDataFormatter.h"

#include <string>
#include <string_view>
#include <vector>

namespace vantor::ioc::internal
{

// SQL of the IOC snapshot database ("SnapshotEdr.db"). It knows the table
// "ClientInformation" ([Name] TEXT UNIQUE, [Value] TEXT), whose rows are
// the component's own values across restarts: "SequenceNumber" (the last
// batch handed to the spool) and "BootTime" (the host's boot time).
//
// A record is the name and the value, as serialised strings; the rows that
// a read answers have the same form.
//
// Clearing the snapshot (GetDeleteAllStatement) keeps "SequenceNumber": the
// numbering of uploaded batches must go on even when the rest of the
// snapshot is dropped.
class SnapshotSqlDataFormatter : public common::SqlDataFormatter
{
public:
    static constexpr const char* kClientInformation = "ClientInformation";
    static constexpr const char* kSequenceNumber = "SequenceNumber";
    static constexpr const char* kBootTime = "BootTime";

    std::string GetDeleteAllStatement() const override;
    std::string Clear(const std::string& tableName) const override;
    std::vector<std::string> GetCreateStatements() const override;
    std::string GetDeleteStatement(const std::string& table, const std::string& key) const override;
    std::string GetInsertStatement(const std::string& table, std::string_view record) const override;
    std::string GetSelectStatement(const std::string& table, const std::string& key) const override;

    // The serialised record of one row.
    std::string FormatRecord(std::string_view name, std::string_view value);

private:
    // Throws SqlDataFormatterException for a table it does not know, so that
    // no name from elsewhere reaches a statement.
    static void CheckTable(const std::string& table);
};

} // namespace vantor::ioc::internal
