#pragma once

#include "common/StorageResult.h"

#include <optional>
#include <string>

namespace vantor::common
{
class SqlStorage;
}

namespace vantor::ioc::internal
{

// The rows of the snapshot database's "ClientInformation" table: one text
// value per name (see SnapshotSqlDataFormatter).
class ClientInformation
{
public:
    // The value of a row; empty when there is no such row. Throws
    // std::runtime_error with the storage's reason when it cannot be read.
    static std::optional<std::string> Read(common::SqlStorage& snapshot, const std::string& name);

    // Inserts or replaces a row.
    static common::StorageResult Write(common::SqlStorage& snapshot, const std::string& name,
                                       const std::string& value);
};

} // namespace vantor::ioc::internal
