#pragma once

#include "common/SqlDataFormatter.h"
#include "common/SqlRowIterator.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vantor::ioc::internal
{

// SQL of the IOC snapshot database ("SnapshotEdr.db"), schema version 5 (in
// "PRAGMA user_version"). Tables in use:
//  - "ClientInformation" ([Name] TEXT UNIQUE, [Value] TEXT): the component's
//    own values across restarts, "SequenceNumber" (the last batch handed to
//    the spool) and "BootTime" (the host's boot time);
//  - "Directory" and "File": file facts keyed by [RowID];
//  - "TtlProcesses": one row per process of the TTL process tree, keyed by
//    [ProcessID] (see TtlProcessColumns for the order).
//
// A record is the row's columns in table order, serialised (integers as
// 64-bit integers, texts as strings); the rows a read answers have the same
// form. A read with an empty key answers every row of the table.
//
// Upgrades: a database of an older version is brought to version 5 in one
// pass; the statements end with the version stamp. A version-0 database of
// this daemon's first releases held only "ClientInformation" with the
// sequence number: that value is carried across the re-creation of the
// table, and the "File", "Directory" and "Hash" tables the older steps
// rework are created in their old shape first when missing, so that every
// step can run.
//
// Clearing the snapshot (GetDeleteAllStatement) keeps "SequenceNumber": the
// numbering of uploaded batches must go on even when the rest of the
// snapshot is dropped.
//
// Not thread-safe (the storage calls it under its lock).
class SnapshotSqlDataFormatter : public common::SqlDataFormatter
{
public:
    static constexpr int64_t kSchemaVersion = 5;
    static constexpr const char* kClientInformation = "ClientInformation";
    static constexpr const char* kTtlProcesses = "TtlProcesses";
    static constexpr const char* kSequenceNumber = "SequenceNumber";
    static constexpr const char* kBootTime = "BootTime";

    // The fixed map of table kinds; the kinds from Actor to SecuritySettings
    // other than the tables in use exist only in older versions.
    enum class TableKind : int
    {
        Actor = 0,
        ClientInformation,
        Directory,
        File,
        Hash,
        LoadedModule,
        Metadata,
        Network,
        Process,
        SecuritySettings,
        TtlProcesses
    };

    // Throws SqlDataFormatterException "SnapshotSqlDataFormatter::Select:
    // Invalid table type: <kind>" for a kind outside the map.
    static std::string GetTableName(TableKind kind);

    std::string GetDeleteAllStatement() const override;
    std::string Clear(const std::string& tableName) const override;
    std::vector<std::string> GetCreateStatements() const override;
    std::string GetDeleteStatement(const std::string& table, const std::string& key) const override;
    std::string GetSchemaVersionQuery() const override;
    std::string GetInsertStatement(const std::string& table, std::string_view record) const override;
    std::string GetSelectStatement(const std::string& table, const std::string& key) const override;
    std::vector<std::string> GetUpgradeStatements(int64_t currentVersion) const override;
    common::SqlQuery GetInsertQuery(const std::string& table, std::string_view record) const override;
    common::SqlQuery GetSelectQuery(const std::string& table, const std::string& key) const override;
    common::SqlQuery GetDeleteQuery(const std::string& table, const std::string& key) const override;

    // The column types of a table in use, in column order, for reading its
    // rows back; throws SqlDataFormatterException for another table.
    static std::vector<common::SqlRowIterator::ColumnType> GetColumnTypes(const std::string& table);

    // One statement that deletes the rows of all the keys, each written as
    // a quoted literal as the delete of one key writes it ("DELETE from
    // <table> WHERE <key> IN ('1', '2');"); throws SqlDataFormatterException
    // for an unknown table or no keys.
    static std::string GetDeleteKeysStatement(const std::string& table, std::span<const std::string> keys);

    // The serialised record of one "ClientInformation" row.
    std::string FormatRecord(std::string_view name, std::string_view value);
};

} // namespace vantor::ioc::internal
