#include "ioc/SnapshotFiles.h"

#include "common/Logging.h"
#include "common/SqlRowIterator.h"
#include "common/SqlStorage.h"
#include "common/util/Digest.h"
#include "ioc/SnapshotDeletes.h"
#include "ioc/SnapshotSqlDataFormatter.h"

#include <stdexcept>

namespace vantor::ioc::internal
{

namespace
{

constexpr const char* kFile = "File";
constexpr const char* kDirectory = "Directory";

// The first row of a keyed read, as values in column order.
std::optional<std::vector<common::SqlRowIterator::Value>> ReadRow(common::SqlStorage& snapshot,
                                                                  const char* table, const std::string& key)
{
    auto result = snapshot.Read(table, key);
    if (!result.success)
    {
        throw std::runtime_error(result.error);
    }
    if (result.rows.empty())
    {
        return std::nullopt;
    }
    common::SqlRowIterator rows(SnapshotSqlDataFormatter::GetColumnTypes(table));
    rows.Add(std::move(result.rows.front()));
    return rows.Next();
}

int64_t Int(const std::vector<common::SqlRowIterator::Value>& row, size_t column)
{
    return std::get<int64_t>(row.at(column));
}

const std::string& Text(const std::vector<common::SqlRowIterator::Value>& row, size_t column)
{
    return std::get<std::string>(row.at(column));
}

void AppendTimes(SnapshotSqlDataFormatter& formatter, const SnapshotFiles::Times& times)
{
    formatter.AppendInt64(times.creation);
    formatter.AppendInt64(times.lastWrite);
    formatter.AppendInt64(times.lastAccess);
    formatter.AppendInt64(times.lastChange);
}

SnapshotFiles::Times TimesAt(const std::vector<common::SqlRowIterator::Value>& row, size_t first)
{
    return {Int(row, first), Int(row, first + 1), Int(row, first + 2), Int(row, first + 3)};
}

std::string RecordOf(const SnapshotFiles::FileRow& row)
{
    SnapshotSqlDataFormatter formatter;
    formatter.Start();
    formatter.AppendString(row.rowId);
    formatter.AppendString(row.parentId);
    formatter.AppendInt64(row.size);
    AppendTimes(formatter, row.times);
    formatter.AppendString(row.md5);
    formatter.AppendString(row.sha1);
    formatter.AppendString(row.sha256);
    return formatter.TakeBuffer();
}

std::string RecordOf(const SnapshotFiles::DirectoryRow& row)
{
    SnapshotSqlDataFormatter formatter;
    formatter.Start();
    formatter.AppendString(row.rowId);
    formatter.AppendString(row.path);
    AppendTimes(formatter, row.times);
    return formatter.TakeBuffer();
}

// The held rows of one table as the records to write and the keys to
// delete.
struct Pending
{
    common::SqlStorage::Records records;
    std::vector<std::string> deleted;
};

template <typename Row>
Pending PendingOf(const std::unordered_map<std::string, std::optional<Row>>& held)
{
    Pending pending;
    pending.records.reserve(held.size());
    for (const auto& [key, row] : held)
    {
        if (row)
        {
            pending.records.emplace_back(key, RecordOf(*row));
        }
        else
        {
            pending.deleted.push_back(key);
        }
    }
    return pending;
}

// Deletes, then writes, one table's rows; answers whether all were stored.
bool StoreTable(common::SqlStorage& snapshot, const char* table, const Pending& pending)
{
    if (const auto result = SnapshotDeletes::Run(snapshot, table, pending.deleted);
        result.deleted < pending.deleted.size())
    {
        EDR_LOG_DEBUG("SnapshotFiles: " << table << ": " << result.error);
        return false;
    }
    if (!pending.records.empty())
    {
        const auto result = snapshot.Write(table, pending.records);
        if (!result.success)
        {
            EDR_LOG_DEBUG("SnapshotFiles: " << table << ": " << result.error);
            return false;
        }
    }
    return true;
}

// The held row of a key when there is one (nothing inside for a deleted
// row), else nothing.
template <typename Row>
const std::optional<Row>* HeldRow(const std::unordered_map<std::string, std::optional<Row>>& held,
                                  const std::string& key)
{
    const auto it = held.find(key);
    return it == held.end() ? nullptr : &it->second;
}

// A memory of at most max entries, ready for one more: a full one starts
// over rather than ranking its entries, since forgetting costs only one read
// (or one hash) per entry.
template <typename Memory>
Memory& WithRoom(Memory& memory, size_t max)
{
    if (memory.size() >= max)
    {
        memory.clear();
    }
    return memory;
}

} // namespace

SnapshotFiles::SnapshotFiles(common::SqlStorage& snapshot)
    : m_snapshot(snapshot)
{
}

std::string SnapshotFiles::RowIdOf(std::string_view path)
{
    return util::Digest::HexOf(util::Digest::Algorithm::Sha256, path);
}

const std::string& SnapshotFiles::RecurringRowIdOf(std::string_view path)
{
    if (const auto it = m_rowIds.find(path); it != m_rowIds.end())
    {
        return it->second;
    }
    return WithRoom(m_rowIds, kMaxRememberedRowIds).emplace(path, RowIdOf(path)).first->second;
}

void SnapshotFiles::ForgetIfCleared()
{
    if (m_cleared.load(std::memory_order_relaxed) && m_cleared.exchange(false, std::memory_order_acquire))
    {
        m_knownDirectories.clear();
        m_knownFiles.clear();
    }
}

void SnapshotFiles::RememberFile(FileRow row)
{
    if (const auto it = m_knownFiles.find(row.rowId); it != m_knownFiles.end())
    {
        it->second = std::move(row);
        return;
    }
    std::string key = row.rowId;
    WithRoom(m_knownFiles, kMaxKnownFiles).emplace(std::move(key), std::move(row));
}

std::optional<SnapshotFiles::FileRow> SnapshotFiles::ReadFile(const std::string& rowId)
{
    if (const auto* held = HeldRow(m_files, rowId))
    {
        return *held;
    }
    ForgetIfCleared();
    if (const auto it = m_knownFiles.find(rowId); it != m_knownFiles.end())
    {
        return it->second;
    }
    const auto row = ReadRow(m_snapshot, kFile, rowId);
    if (!row)
    {
        return std::nullopt;
    }
    FileRow stored{Text(*row, 0), Text(*row, 1), Int(*row, 2), TimesAt(*row, 3),
                   Text(*row, 7), Text(*row, 8), Text(*row, 9)};
    RememberFile(stored);
    return stored;
}

std::optional<SnapshotFiles::DirectoryRow> SnapshotFiles::ReadDirectory(const std::string& rowId) const
{
    if (const auto* held = HeldRow(m_directories, rowId))
    {
        return *held;
    }
    const auto row = ReadRow(m_snapshot, kDirectory, rowId);
    if (!row)
    {
        return std::nullopt;
    }
    return DirectoryRow{Text(*row, 0), Text(*row, 1), TimesAt(*row, 2)};
}

bool SnapshotFiles::HasDirectory(const std::string& rowId)
{
    if (const auto* held = HeldRow(m_directories, rowId))
    {
        return held->has_value();
    }
    ForgetIfCleared();
    if (m_knownDirectories.contains(rowId))
    {
        return true;
    }
    if (!ReadRow(m_snapshot, kDirectory, rowId))
    {
        return false;
    }
    WithRoom(m_knownDirectories, kMaxKnownDirectories).insert(rowId);
    return true;
}

bool SnapshotFiles::WriteFile(FileRow row)
{
    std::string key = row.rowId;
    m_files.insert_or_assign(std::move(key), std::move(row));
    return true;
}

bool SnapshotFiles::WriteDirectory(const DirectoryRow& row)
{
    m_directories.insert_or_assign(row.rowId, row);
    return true;
}

bool SnapshotFiles::DeleteFile(const std::string& rowId)
{
    m_files.insert_or_assign(rowId, std::nullopt);
    return true;
}

bool SnapshotFiles::DeleteDirectory(const std::string& rowId)
{
    m_knownDirectories.erase(rowId);
    m_directories.insert_or_assign(rowId, std::nullopt);
    return true;
}

bool SnapshotFiles::Flush()
{
    if (m_files.empty() && m_directories.empty())
    {
        return true;
    }
    const Pending pending = PendingOf(m_files);
    const Pending directories = PendingOf(m_directories);
    m_directories.clear();
    bool stored = false;
    const auto operations = [&]
    { stored = StoreTable(m_snapshot, kFile, pending) && StoreTable(m_snapshot, kDirectory, directories); };
    common::StorageResult committed;
    try
    {
        committed = m_snapshot.RunInTransaction(operations);
    }
    catch (...)
    {
        // Rolled back: what is remembered as stored still is.
        m_files.clear();
        throw;
    }
    if (!committed.success && stored)
    {
        EDR_LOG_DEBUG("SnapshotFiles: " << committed.error);
    }
    const bool flushed = committed.success && stored;
    for (auto& [key, row] : m_files)
    {
        if (flushed && row)
        {
            RememberFile(std::move(*row));
        }
        else
        {
            m_knownFiles.erase(key);
        }
    }
    m_files.clear();
    return flushed;
}

} // namespace vantor::ioc::internal
