#pragma once

#include <sqlite3.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace vantor::ioc::test
{

// Direct SQLite access to a snapshot database file, to write older schema
// versions and to look at what the storage left, past the storage itself.
class SnapshotDatabase
{
public:
    explicit SnapshotDatabase(const std::string& file)
    {
        sqlite3* db = nullptr;
        const int rc = sqlite3_open(file.c_str(), &db);
        m_db.reset(db);
        EXPECT_EQ(rc, SQLITE_OK) << file;
    }

    void Run(const std::string& sql)
    {
        char* error = nullptr;
        const int rc = sqlite3_exec(m_db.get(), sql.c_str(), nullptr, nullptr, &error);
        EXPECT_EQ(rc, SQLITE_OK) << sql << ": " << (error ? error : "");
        sqlite3_free(error);
    }

    // The first column of every row, as text ("NULL" for a null).
    std::vector<std::string> Column(const std::string& sql)
    {
        std::vector<std::string> values;
        sqlite3_stmt* raw = nullptr;
        EXPECT_EQ(sqlite3_prepare_v2(m_db.get(), sql.c_str(), -1, &raw, nullptr), SQLITE_OK) << sql;
        std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> statement(raw, &sqlite3_finalize);
        while (raw && sqlite3_step(raw) == SQLITE_ROW)
        {
            const auto* text = sqlite3_column_text(raw, 0);
            values.emplace_back(text ? reinterpret_cast<const char*>(text) : "NULL");
        }
        return values;
    }

    std::vector<std::string> ColumnsOf(const std::string& table)
    {
        return Column("SELECT name FROM pragma_table_info('" + table + "')");
    }
    std::vector<std::string> Tables()
    {
        return Column("SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY name");
    }
    std::string Version() { return Column("PRAGMA user_version").at(0); }

private:
    std::unique_ptr<sqlite3, decltype(&sqlite3_close)> m_db{nullptr, &sqlite3_close};
};

} // namespace vantor::ioc::test
