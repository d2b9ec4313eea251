#include "common/SpoolFileIndex.h"

#include "common/FileStorage.h"
#include "common/Logging.h"
#include "common/SpoolStorageException.h"

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>

namespace vantor::common::internal
{
namespace
{

constexpr std::size_t kMinIndexDigits = 4;

std::string FormatIndex(std::uint32_t index)
{
    char buf[16];
    const int n = std::snprintf(buf, sizeof buf, "%04u", static_cast<unsigned>(index));
    return std::string(buf, static_cast<std::size_t>(n));
}

} // namespace

SpoolFileIndex::SpoolFileIndex(std::string directory, std::string prefix, std::uint32_t maxFileCount)
    : m_directory(std::move(directory))
    , m_prefix(std::move(prefix))
    , m_maxFileCount(maxFileCount)
{
}

std::string SpoolFileIndex::FileName(std::uint32_t index) const
{
    if (index < 1 || index > m_maxFileCount)
    {
        throw SpoolStorageException("SpoolStorage: File index out of range");
    }
    return m_directory + "/" + m_prefix + "." + FormatIndex(index);
}

// A spool name is prefix + "." + an index of at least four digits within
// 1..max file count. Only the name the spool itself would write counts, so
// that prefix.00001 and prefix.0001 cannot both claim index 1.
std::optional<std::uint32_t> SpoolFileIndex::ParseIndex(std::string_view name) const
{
    if (name.size() < m_prefix.size() + 1 + kMinIndexDigits || name.substr(0, m_prefix.size()) != m_prefix ||
        name[m_prefix.size()] != '.')
    {
        return std::nullopt;
    }
    const std::string_view digits = name.substr(m_prefix.size() + 1);
    if (!std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; }))
    {
        return std::nullopt;
    }
    std::uint32_t index = 0;
    const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), index);
    if (ec != std::errc() || end != digits.data() + digits.size() || index < 1 || index > m_maxFileCount ||
        digits != FormatIndex(index))
    {
        return std::nullopt;
    }
    return index;
}

void SpoolFileIndex::Refresh()
{
    m_files.clear();
    m_diskUsage = 0;
    std::error_code ec;
    std::filesystem::directory_iterator it(m_directory, ec);
    for (const std::filesystem::directory_iterator end; !ec && it != end; it.increment(ec))
    {
        const std::string name = it->path().filename().string();
        const std::string_view view(name);
        if (view.ends_with(FileStorage::kTempSuffix) &&
            ParseIndex(view.substr(0, view.size() - FileStorage::kTempSuffix.size())))
        {
            // A write that was interrupted; the records in it were never
            // acknowledged as on disk.
            const std::string path = m_directory + "/" + name;
            EDR_LOG_WARNING("SpoolStorage: Removing incomplete file " << path);
            ::unlink(path.c_str());
            continue;
        }
        const auto index = ParseIndex(view);
        if (!index)
        {
            continue;
        }
        const std::string path = FileName(*index);
        try
        {
            const FileStorage::Stat st = FileStorage::GetStat(path);
            if (st.regular)
            {
                m_files.push_back(Entry{*index, st.inode, st.size, m_nextId++});
                m_diskUsage += st.size;
            }
        }
        catch (const std::exception& e)
        {
            EDR_LOG_ERROR("SpoolStorage: Failed to stat " << path << ": " << e.what());
        }
    }
    if (ec)
    {
        EDR_LOG_ERROR("SpoolStorage: Failed to list " << m_directory << ": " << ec.message());
    }
    std::sort(m_files.begin(), m_files.end(),
              [](const Entry& a, const Entry& b) { return a.index < b.index; });
    EDR_LOG_INFO("SpoolStorage: File indices refreshed ["
                 << (m_files.empty() ? 0 : m_files.front().index) << " - "
                 << (m_files.empty() ? 0 : m_files.back().index) << "]");
}

std::uint32_t SpoolFileIndex::NextIndex(std::uint64_t maxDiskSize)
{
    if (m_files.empty())
    {
        return 1;
    }
    if (m_files.back().index < m_maxFileCount)
    {
        return m_files.back().index + 1;
    }
    if (m_files.size() >= m_maxFileCount)
    {
        EDR_LOG_WARNING("SpoolStorage: All valid filenames exist. Trying clean up.");
        Cleanup(maxDiskSize, true);
        if (m_files.empty())
        {
            return 1;
        }
    }
    Defragment();
    if (m_files.back().index < m_maxFileCount)
    {
        return m_files.back().index + 1;
    }
    throw SpoolStorageException("SpoolStorage: No free file index in " + m_directory);
}

void SpoolFileIndex::Add(std::uint32_t index, ino_t inode, std::uint64_t size)
{
    m_files.push_back(Entry{index, inode, size, m_nextId++});
    m_diskUsage += size;
}

// Renames the files, oldest first, to 1, 2, 3, ... Each target is free: it
// is below the file's own index and every lower file has already moved down.
// A crash half-way leaves the order intact.
void SpoolFileIndex::Defragment()
{
    EDR_LOG_INFO("SpoolStorage: Starting de-fragmentation of spool file indices.");
    std::uint32_t target = 1;
    for (Entry& entry : m_files)
    {
        if (entry.index != target)
        {
            const std::string from = FileName(entry.index);
            const std::string to = FileName(target);
            if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) != 0)
            {
                EDR_LOG_ERROR("SpoolStorage: Failed to rename " << from << " to " << to << ": "
                                                                << std::strerror(errno));
                break;
            }
            EDR_LOG_DEBUG("SpoolStorage: Renamed " << from << " to " << to);
            entry.index = target;
        }
        ++target;
    }
    EDR_LOG_INFO("SpoolStorage: De-fragmentation completed.");
}

void SpoolFileIndex::Cleanup(std::uint64_t maxDiskSize, bool freeOneName)
{
    EDR_LOG_DEBUG("SpoolStorage: Initiating cleanup...");
    while (!m_files.empty() &&
           (m_diskUsage > maxDiskSize || (freeOneName && m_files.size() >= m_maxFileCount)))
    {
        const Entry oldest = m_files.front();
        const std::string path = FileName(oldest.index);
        if (!Unlink(path))
        {
            throw SpoolStorageException("SpoolStorage::Cleanup: Failed to clean up spool files");
        }
        EDR_LOG_WARNING("SpoolStorage: Deleted " << path << " (" << oldest.size
                                                 << " bytes) not yet uploaded");
        m_files.pop_front();
        m_diskUsage -= oldest.size;
        ++m_droppedFiles;
        m_droppedBytes += oldest.size;
    }
    EDR_LOG_DEBUG("SpoolStorage: Cleanup completed. [Disk usage: " << m_diskUsage << " / " << maxDiskSize
                                                                   << "]");
}

SpoolFileIndex::Entry* SpoolFileIndex::Oldest()
{
    return m_files.empty() ? nullptr : &m_files.front();
}

SpoolFileIndex::Entry* SpoolFileIndex::FindIndex(std::uint32_t index)
{
    const auto it =
        std::find_if(m_files.begin(), m_files.end(), [&](const Entry& e) { return e.index == index; });
    return it == m_files.end() ? nullptr : &*it;
}

SpoolFileIndex::Entry* SpoolFileIndex::FindIdentity(ino_t inode, std::uint64_t id)
{
    const auto it = std::find_if(m_files.begin(), m_files.end(),
                                 [&](const Entry& e) { return e.inode == inode && e.id == id; });
    return it == m_files.end() ? nullptr : &*it;
}

void SpoolFileIndex::Replace(Entry& entry, ino_t inode, std::uint64_t size)
{
    m_diskUsage = m_diskUsage - entry.size + size;
    entry.inode = inode;
    entry.size = size;
}

void SpoolFileIndex::Forget(const Entry& entry)
{
    const auto it =
        std::find_if(m_files.begin(), m_files.end(), [&](const Entry& e) { return &e == &entry; });
    if (it != m_files.end())
    {
        m_diskUsage -= it->size;
        m_files.erase(it);
    }
}

bool SpoolFileIndex::Delete(const Entry& entry)
{
    if (!Unlink(FileName(entry.index)))
    {
        return false;
    }
    Forget(entry);
    return true;
}

void SpoolFileIndex::DeleteAll()
{
    bool failed = false;
    for (auto it = m_files.begin(); it != m_files.end();)
    {
        if (!Unlink(FileName(it->index)))
        {
            failed = true;
            ++it;
            continue;
        }
        m_diskUsage -= it->size;
        it = m_files.erase(it);
    }
    if (failed)
    {
        throw SpoolStorageException("SpoolStorage::Clear: Failed to delete spool files in " + m_directory);
    }
}

bool SpoolFileIndex::Unlink(const std::string& path)
{
    if (::unlink(path.c_str()) == 0 || errno == ENOENT)
    {
        return true;
    }
    const int error = errno;
    EDR_LOG_ERROR("SpoolStorage: Failed to delete " << path << ": " << std::strerror(error));
    return false;
}

std::vector<std::uint32_t> SpoolFileIndex::Indices() const
{
    std::vector<std::uint32_t> indices;
    indices.reserve(m_files.size());
    for (const Entry& e : m_files)
    {
        indices.push_back(e.index);
    }
    return indices;
}

} // namespace vantor::common::internal
