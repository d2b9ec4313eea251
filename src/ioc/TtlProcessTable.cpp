#include "ioc/TtlProcessTable.h"

#include "common/Logging.h"
#include "common/SqlStorage.h"
#include "ioc/SnapshotSqlDataFormatter.h"
#include "ioc/TtlProcessRow.h"

#include <algorithm>
#include <string>

namespace vantor::ioc::internal
{

std::optional<std::vector<ProcessInfo>> TtlProcessTable::ReadAll(common::SqlStorage& snapshot)
{
    const auto result = snapshot.Read(SnapshotSqlDataFormatter::kTtlProcesses, "");
    if (!result.success)
    {
        EDR_LOG_ERROR("Failed to load the TtlProcessTree: " << result.error);
        return std::nullopt;
    }
    std::vector<ProcessInfo> stored;
    stored.reserve(result.rows.size());
    for (const auto& row : result.rows)
    {
        try
        {
            stored.push_back(TtlProcessRow::Parse(row));
        }
        catch (const std::exception& e)
        {
            EDR_LOG_ERROR("Skipping a deformed TtlProcesses row: " << e.what());
        }
    }
    return stored;
}

std::pair<std::string, std::string> TtlProcessTable::Record(const ProcessInfo& process)
{
    SnapshotSqlDataFormatter formatter;
    return {std::to_string(process.pid), TtlProcessRow::Format(formatter, process)};
}

bool TtlProcessTable::Store(common::SqlStorage& snapshot,
                            const std::vector<std::pair<std::string, std::string>>& rows,
                            const std::set<pid_t>& removed, std::set<pid_t>& deleted)
{
    const std::string table = SnapshotSqlDataFormatter::kTtlProcesses;
    bool saved = rows.empty() || snapshot.Write(table, rows).success;
    // Exited processes leave by the thousand on a busy host: a statement
    // (and so a transaction) per row would cost each one a commit.
    std::vector<int64_t> chunk;
    chunk.reserve(std::min(removed.size(), kDeletedPerStatement));
    for (auto it = removed.begin(); saved && it != removed.end();)
    {
        chunk.clear();
        for (; it != removed.end() && chunk.size() < kDeletedPerStatement; ++it)
        {
            chunk.push_back(*it);
        }
        try
        {
            snapshot.Execute(SnapshotSqlDataFormatter::GetDeleteKeysStatement(table, chunk));
            deleted.insert(chunk.begin(), chunk.end());
        }
        catch (const std::exception& e)
        {
            EDR_LOG_ERROR("SqlStorage: Failed to delete from table " << table << ": " << e.what());
            saved = false;
        }
    }
    if (!saved)
    {
        EDR_LOG_ERROR("Failed to update '" << table << "' table in snapshot DB.");
    }
    return saved;
}

void TtlProcessTable::Clear(common::SqlStorage& snapshot)
{
    if (snapshot.Clear(SnapshotSqlDataFormatter::kTtlProcesses).success)
    {
        EDR_LOG_INFO("Successfully cleared TtlProcesses table from sql storage");
    }
    else
    {
        EDR_LOG_ERROR("Failed to clear TtlProcesses table from sql storage");
    }
}

} // namespace vantor::ioc::internal
