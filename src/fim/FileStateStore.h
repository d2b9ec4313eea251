#pragma once

#include "fim/BaselineEventSqlDataFormatter.h"
#include "fim/FileState.h"

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_set>

namespace vantor::common
{
class SqlStorage;
}

namespace vantor::fim::internal
{

// The baseline store as FIM uses it: the last known state of each watched
// object and the content status of each file of the baseline pass, keyed by
// the path's bytes. Failures of the store are logged; a lookup then knows
// nothing, so a document shows "Unknown" rather than being lost.
//
// Paths the store is known not to hold (a lookup found nothing, or they
// were removed) are remembered, up to kMaxAbsent of them, so that the usual
// lookup and removal of a path that is gone cost no statement. This
// assumes the store is the only writer of its table.
//
// RunInTransaction runs a run of calls in one transaction of the storage
// (one commit instead of one per statement). When it fails, the calls after
// the failure know nothing and change nothing, and the ones before it are
// undone; what the store remembered meanwhile is forgotten.
//
// Thread-safe; other threads wait while a transaction runs.
class FileStateStore
{
public:
    // storage may be null: nothing is kept then.
    explicit FileStateStore(common::SqlStorage* storage);

    static constexpr size_t kMaxAbsent = 4096;

    std::optional<FileState> Get(const std::string& path);
    void Put(const std::string& path, const FileState& state);
    void Remove(const std::string& path);
    void PutContentStatus(const std::string& path, const char* status);
    void RunInTransaction(const std::function<void()>& operations);

private:
    void RememberAbsent(const std::string& path);

    common::SqlStorage* m_storage;
    // The formatter's record buffer, and the absent paths with the
    // statements that change what they tell. Recursive: a transaction holds
    // it around the calls inside it, so that it is always taken before the
    // storage's lock.
    std::recursive_mutex m_mutex;
    BaselineEventSqlDataFormatter m_formatter;
    std::unordered_set<std::string> m_absent;
};

} // namespace vantor::fim::internal
