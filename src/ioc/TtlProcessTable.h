#pragma once

#include "ioc/ProcessInfo.h"

#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace vantor::common
{
class SqlStorage;
}

namespace vantor::ioc::internal
{

// The snapshot's "TtlProcesses" table as a whole: what the TTL process tree
// reads at start-up and writes at its saves, apart from the tree's own
// bookkeeping of which processes changed. Stateless.
class TtlProcessTable
{
public:
    // Every row that parses; a deformed row is logged ("Skipping a deformed
    // TtlProcesses row: ...") and skipped. Nothing when the table cannot be
    // read.
    static std::optional<std::vector<ProcessInfo>> ReadAll(common::SqlStorage& snapshot);
    // The record of a process's row, to be written later: made while the
    // tree's lock holds the process still.
    static std::pair<std::string, std::string> Record(const ProcessInfo& process);
    // Writes the rows, then deletes the rows of the removed pids (only when
    // the writes succeeded; many to a statement), all in one transaction;
    // when it is committed the removed pids are added to deleted. Answers
    // whether it was, logging the table otherwise.
    static bool Store(common::SqlStorage& snapshot,
                      const std::vector<std::pair<std::string, std::string>>& rows,
                      const std::set<pid_t>& removed, std::set<pid_t>& deleted);
    static void Clear(common::SqlStorage& snapshot);
};

} // namespace vantor::ioc::internal
