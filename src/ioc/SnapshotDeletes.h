#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace vantor::common
{
class SqlStorage;
}

namespace vantor::ioc::internal
{

// Deletes many keyed rows of a snapshot table with few statements: rows
// leave by the thousand on a busy host (exited processes, deleted files),
// and a statement per row would cost each one a transaction of its own.
// Stateless; as thread-safe as the storage.
class SnapshotDeletes
{
public:
    // Keeps a statement's text to some tens of kilobytes.
    static constexpr size_t kKeysPerStatement = 500;

    struct Result
    {
        // The keys deleted, from the front: all of them unless a statement
        // failed.
        size_t deleted = 0;
        // The storage's reason when a statement failed.
        std::string error;
    };

    // Deletes the rows of the keys, kKeysPerStatement to a statement in the
    // given order, and stops at the first statement that fails (logging
    // "SqlStorage: Failed to delete from table <table>: <reason>").
    static Result Run(common::SqlStorage& snapshot, const std::string& table,
                      const std::vector<std::string>& keys);
};

} // namespace vantor::ioc::internal
