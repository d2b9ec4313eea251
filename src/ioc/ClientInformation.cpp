#include "ioc/ClientInformation.h"

#include "common/SqlRowIterator.h"
#include "common/SqlStorage.h"
#include "ioc/SnapshotSqlDataFormatter.h"

#include <stdexcept>

namespace vantor::ioc::internal
{

std::optional<std::string> ClientInformation::Read(common::SqlStorage& snapshot, const std::string& name)
{
    const auto result = snapshot.Read(SnapshotSqlDataFormatter::kClientInformation, name);
    if (!result.success)
    {
        throw std::runtime_error(result.error);
    }
    if (result.rows.empty())
    {
        return std::nullopt;
    }
    common::SqlRowIterator rows(
        {common::SqlRowIterator::ColumnType::Text, common::SqlRowIterator::ColumnType::Text});
    rows.Add(result.rows.front());
    return std::get<std::string>(rows.Next().at(1));
}

common::StorageResult ClientInformation::Write(common::SqlStorage& snapshot, const std::string& name,
                                               const std::string& value)
{
    SnapshotSqlDataFormatter formatter;
    return snapshot.Write(SnapshotSqlDataFormatter::kClientInformation,
                          {{name, formatter.FormatRecord(name, value)}});
}

} // namespace vantor::ioc::internal
