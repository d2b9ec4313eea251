#pragma once

#include "ioc/ProcessInfo.h"

#include <map>
#include <set>
#include <string>

namespace vantor::ioc::internal
{

class SnapshotSqlDataFormatter;

// One row of the snapshot's "TtlProcesses" table and a ProcessInfo, both
// ways. The texts of two columns are this daemon's own:
//  - "Children": the child pids in ascending decimal, separated by ","
//    ("" for none), e.g. "12,4711";
//  - "Tags": a JSON object from tag name to integer score, e.g.
//    {"Reported":0,"Persistence":30}; JSON, so that any tag name survives.
// "Score" is the sum of the scores. The state, priority, libraries, gid and
// verdicts are not stored: they are read again or decided again.
//
// A tag whose value is not an integer is skipped with "Tag value <value> is
// deformed in db." and the other tags load; a "Tags" text that is no JSON
// object loses all its tags the same way. Stateless.
class TtlProcessRow
{
public:
    // The serialised record of the process, in column order.
    static std::string Format(SnapshotSqlDataFormatter& formatter, const ProcessInfo& process);
    // Throws StorageException or std::out_of_range for a row that is not a
    // "TtlProcesses" row.
    static ProcessInfo Parse(const std::string& row);

    static std::string FormatChildren(const std::set<pid_t>& children);
    static std::set<pid_t> ParseChildren(const std::string& text);
    static std::string FormatTags(const std::map<std::string, int64_t>& tags);
    static std::map<std::string, int64_t> ParseTags(const std::string& text);
};

} // namespace vantor::ioc::internal
