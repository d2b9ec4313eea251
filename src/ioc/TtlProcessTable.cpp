#include "ioc/TtlProcessTable.h"

#include "common/Logging.h"
#include "common/SqlStorage.h"
#include "ioc/SnapshotDeletes.h"
#include "ioc/SnapshotSqlDataFormatter.h"
#include "ioc/TtlProcessRow.h"

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
    std::vector<std::string> keys;
    keys.reserve(removed.size());
    for (const pid_t pid : removed)
    {
        keys.push_back(std::to_string(pid));
    }
    bool stored = false;
    // One commit for the writes and the deletes; a failure rolls all of them
    // back, so none counts as deleted.
    const auto operations = [&]
    {
        stored = (rows.empty() || snapshot.Write(table, rows).success) &&
                 SnapshotDeletes::Run(snapshot, table, keys).deleted == keys.size();
    };
    const bool saved = snapshot.RunInTransaction(operations).success && stored;
    if (saved)
    {
        deleted.insert(removed.begin(), removed.end());
    }
    else
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
