#include "ioc/SnapshotDeletes.h"

#include "common/Logging.h"
#include "common/SqlStorage.h"
#include "ioc/SnapshotSqlDataFormatter.h"

#include <algorithm>
#include <span>

namespace vantor::ioc::internal
{

SnapshotDeletes::Result SnapshotDeletes::Run(common::SqlStorage& snapshot, const std::string& table,
                                             const std::vector<std::string>& keys)
{
    Result result;
    while (result.deleted < keys.size())
    {
        const size_t count = std::min(kKeysPerStatement, keys.size() - result.deleted);
        try
        {
            snapshot.Execute(SnapshotSqlDataFormatter::GetDeleteKeysStatement(
                table, std::span<const std::string>(keys).subspan(result.deleted, count)));
        }
        catch (const std::exception& e)
        {
            EDR_LOG_ERROR("SqlStorage: Failed to delete from table " << table << ": " << e.what());
            result.error = e.what();
            break;
        }
        result.deleted += count;
    }
    return result;
}

} // namespace vantor::ioc::internal
