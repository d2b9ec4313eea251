#pragma once

#include "fim/BaselineEventSqlDataFormatter.h"
#include "fim/FileState.h"

#include <mutex>
#include <optional>
#include <string>

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
// Thread-safe.
class FileStateStore
{
public:
    // storage may be null: nothing is kept then.
    explicit FileStateStore(common::SqlStorage* storage);

    std::optional<FileState> Get(const std::string& path);
    void Put(const std::string& path, const FileState& state);
    void Remove(const std::string& path);
    void PutContentStatus(const std::string& path, const char* status);

private:
    common::SqlStorage* m_storage;
    std::mutex m_mutex; // the formatter's record buffer
    BaselineEventSqlDataFormatter m_formatter;
};

} // namespace vantor::fim::internal
