#include "fim/FileStateStore.h"

#include "common/Logging.h"
#include "common/SqlStorage.h"

#include <stdexcept>

namespace vantor::fim::internal
{

namespace
{

constexpr const char* kStateTable = BaselineEventSqlDataFormatter::kStateTableName;

void LogFailure(const char* what, const std::string& path, const common::StorageResult& result)
{
    if (!result.success)
    {
        EDR_LOG_ERROR("FileStateStore: Failed to " << what << " " << path << ": " << result.error);
    }
}

} // namespace

FileStateStore::FileStateStore(common::SqlStorage* storage)
    : m_storage(storage)
{
}

std::optional<FileState> FileStateStore::Get(const std::string& path)
{
    if (m_storage == nullptr)
    {
        return std::nullopt;
    }
    std::unique_lock lock(m_mutex);
    if (m_absent.count(path) != 0)
    {
        return std::nullopt;
    }
    const auto result = m_storage->Read(kStateTable, path);
    if (result.success && result.rows.empty())
    {
        RememberAbsent(path);
    }
    lock.unlock();
    LogFailure("read the state of", path, result);
    if (!result.success || result.rows.empty())
    {
        return std::nullopt;
    }
    try
    {
        return BaselineEventSqlDataFormatter::ParseState(result.rows.front());
    }
    catch (const std::out_of_range& e)
    {
        EDR_LOG_ERROR("FileStateStore: Invalid state row for " << path << ": " << e.what());
        return std::nullopt;
    }
}

void FileStateStore::Put(const std::string& path, const FileState& state)
{
    if (m_storage == nullptr)
    {
        return;
    }
    std::unique_lock lock(m_mutex);
    m_absent.erase(path);
    const auto result = m_storage->Write(kStateTable, {{path, m_formatter.FormatState(path, state)}});
    lock.unlock();
    LogFailure("store the state of", path, result);
}

void FileStateStore::Remove(const std::string& path)
{
    if (m_storage == nullptr)
    {
        return;
    }
    std::unique_lock lock(m_mutex);
    if (m_absent.count(path) != 0)
    {
        return;
    }
    const auto result = m_storage->Delete(kStateTable, path);
    if (result.success)
    {
        RememberAbsent(path);
    }
    lock.unlock();
    LogFailure("forget the state of", path, result);
}

void FileStateStore::RunInTransaction(const std::function<void()>& operations)
{
    if (m_storage == nullptr)
    {
        operations();
        return;
    }
    std::lock_guard lock(m_mutex);
    if (!m_storage->RunInTransaction(operations).success)
    {
        // Removals it remembered may have been undone.
        m_absent.clear();
    }
}

void FileStateStore::RememberAbsent(const std::string& path)
{
    if (m_absent.size() >= kMaxAbsent)
    {
        // Forgetting only costs statements again.
        m_absent.clear();
    }
    m_absent.insert(path);
}

void FileStateStore::PutContentStatus(const std::string& path, const char* status)
{
    if (m_storage == nullptr)
    {
        return;
    }
    std::string record;
    {
        std::lock_guard lock(m_mutex);
        record = m_formatter.FormatRecord(path, status);
    }
    LogFailure("store baseline record for", path,
               m_storage->Write(BaselineEventSqlDataFormatter::kTableName, {{path, std::move(record)}}));
}

} // namespace vantor::fim::internal
