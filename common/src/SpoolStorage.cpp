#include "common/SpoolStorage.h"

#include "common/FileStorage.h"
#include "common/Logging.h"
#include "common/Scheduler.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <condition_variable>
#include <cstring>
#include <filesystem>

namespace vantor::common
{

namespace
{

constexpr std::uint64_t kMiB = 1024 * 1024;
constexpr std::uint64_t kKiB = 1024;
constexpr size_t kMinIndexDigits = 4;

// A setting of 0 takes the default; one above the limit is invalid.
std::optional<std::uint64_t> Resolve(std::uint64_t value, std::uint64_t defaultValue, std::uint64_t limit)
{
    if (value == 0)
    {
        return defaultValue;
    }
    if (value > limit)
    {
        return std::nullopt;
    }
    return value;
}

std::string FormatIndex(std::uint32_t index)
{
    char buf[16];
    const int n = std::snprintf(buf, sizeof buf, "%04u", static_cast<unsigned>(index));
    return std::string(buf, static_cast<size_t>(n));
}

// Errors that say nothing about the file itself: it is kept for a retry.
bool IsTransient(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOMEM || error == EINTR || error == EAGAIN;
}

} // namespace

struct SpoolStorage::Waiter
{
    std::mutex mutex;
    std::condition_variable cv;
    bool done = false;
    WriteResult result;
};

SpoolStorage::SpoolStorage(Scheduler& scheduler, const std::string& directory, const std::string& prefix,
                           std::unique_ptr<SpoolDataFormatter> dataFormatter, const Settings& settings,
                           std::uint64_t maxFileCount)
    : m_scheduler(scheduler)
    , m_directory(directory)
    , m_prefix(prefix)
    , m_maxFileCount(static_cast<std::uint32_t>(std::min<std::uint64_t>(maxFileCount, kMaxFileCount)))
    , m_formatter(std::move(dataFormatter))
{
    if (maxFileCount < kMinFileCount || maxFileCount > kMaxFileCount)
    {
        throw SpoolStorageException("SpoolStorage: Max file count must be between 2 and 10000");
    }
    if (m_directory.empty())
    {
        throw SpoolStorageException("SpoolStorage: Path cannot be empty");
    }
    if (m_prefix.empty())
    {
        throw SpoolStorageException("SpoolStorage: Prefix cannot be empty");
    }
    if (m_prefix.find_first_of(std::string_view("/\0", 2)) != std::string::npos)
    {
        // The spool's files must lie in its directory, where the scan finds them.
        throw SpoolStorageException("SpoolStorage: Prefix cannot contain '/'");
    }
    if (!m_formatter)
    {
        throw SpoolStorageException("SpoolStorage: dataFormatter cannot be null");
    }
    struct stat st
    {
    };
    if (::stat(m_directory.c_str(), &st) != 0)
    {
        throw SpoolStorageException("SpoolStorage: Invalid Path");
    }
    if (!S_ISDIR(st.st_mode))
    {
        throw SpoolStorageException("SpoolStorage: Path is not a directory");
    }

    const auto disk = Resolve(settings.maxDiskSizeMb, kDefaultMaxDiskSizeMb, kLimitMaxDiskSizeMb);
    const auto age = Resolve(settings.maxFileAgeSec, kDefaultMaxFileAgeSec, kLimitMaxFileAgeSec);
    const auto size = Resolve(settings.maxFileSizeKb, kDefaultMaxFileSizeKb, kLimitMaxFileSizeKb);
    if (!disk || !age || !size)
    {
        EDR_LOG_WARNING("SpoolStorage: Invalid limit for " << m_directory << ", using the default");
    }
    m_maxDiskSize = disk.value_or(kDefaultMaxDiskSizeMb) * kMiB;
    m_maxFileAgeSec = static_cast<std::int64_t>(age.value_or(kDefaultMaxFileAgeSec));
    m_maxFileSize = size.value_or(kDefaultMaxFileSizeKb) * kKiB;

    {
        std::lock_guard lock(m_mutex);
        RefreshFileIndicesLocked();
    }
    m_schedule = std::make_shared<SpoolStorageSchedule>([this] { SyncCache(); },
                                                        std::chrono::seconds(m_maxFileAgeSec.load()));
    m_scheduler.RegisterSchedule(m_schedule);
}

SpoolStorage::~SpoolStorage()
{
    try
    {
        m_scheduler.UnregisterSchedule(m_schedule);
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("SpoolStorage: " << e.what());
    }
    // Runs the writes already queued; later ones are refused.
    m_schedule->Shutdown();
    FailPending();
    {
        std::lock_guard lock(m_mutex);
        try
        {
            FlushDataCacheLocked();
        }
        catch (const std::exception& e)
        {
            EDR_LOG_ERROR("SpoolStorage: Failed to flush cached data: " << e.what());
        }
    }
    EDR_LOG_INFO("Destroying SpoolStorage for " << m_directory);
}

// ---- writing ---------------------------------------------------------------

void SpoolStorage::WriteAsync(std::string data, WriteCallback callback)
{
    if (data.size() > m_maxFileSize.load(std::memory_order_relaxed))
    {
        throw SpoolStorageException("SpoolStorage::WriteAsync: data is larger than max file size");
    }
    Enqueue(PendingWrite{std::move(data), std::move(callback), nullptr});
}

SpoolStorage::WriteResult SpoolStorage::Write(std::string data)
{
    if (data.size() > m_maxFileSize.load(std::memory_order_relaxed))
    {
        throw SpoolStorageException("SpoolStorage::Write: data is larger than max file size");
    }
    Waiter waiter;
    Enqueue(PendingWrite{std::move(data), nullptr, &waiter});
    std::unique_lock lock(waiter.mutex);
    waiter.cv.wait(lock, [&] { return waiter.done; });
    return waiter.result;
}

SpoolStorage::WriteResult SpoolStorage::Write(const std::string&, const std::string&)
{
    throw SpoolStorageException("SpoolStorage::Write is not implemented");
}

// Writers append to a pending batch; one task per batch moves it into the
// cache. This keeps the per-record cost to a vector slot and no task object.
std::size_t SpoolStorage::PendingLimit() const
{
    return std::max<std::size_t>(std::size_t{1} << 20, 8 * m_maxFileSize.load(std::memory_order_relaxed));
}

void SpoolStorage::Enqueue(PendingWrite write)
{
    bool queueTask = false;
    {
        std::unique_lock lock(m_pendingMutex);
        const std::size_t size = write.data.size();
        const std::size_t limit = PendingLimit();
        m_pendingCv.wait(lock, [&] { return m_pendingBytes == 0 || m_pendingBytes + size <= limit; });
        m_pendingBytes += size;
        m_pending.push_back(std::move(write));
        if (!m_drainQueued)
        {
            m_drainQueued = true;
            queueTask = true;
        }
    }
    if (queueTask && !m_schedule->AddTask([this] { DrainPending(); }))
    {
        FailPending();
    }
}

void SpoolStorage::DrainPending()
{
    {
        std::lock_guard lock(m_pendingMutex);
        std::swap(m_pending, m_draining);
        m_drainQueued = false;
        m_pendingBytes = 0;
    }
    m_pendingCv.notify_all();
    m_drainResults.resize(m_draining.size());
    {
        std::lock_guard lock(m_mutex);
        for (size_t i = 0; i < m_draining.size(); ++i)
        {
            m_drainResults[i] = AddRecordLocked(m_draining[i].data);
        }
    }
    // Callbacks run outside the lock: they may call back into the spool.
    for (size_t i = 0; i < m_draining.size(); ++i)
    {
        try
        {
            Complete(m_draining[i], m_drainResults[i]);
        }
        catch (const std::exception& e)
        {
            EDR_LOG_ERROR("SpoolStorage: Write callback failed: " << e.what());
        }
    }
    m_draining.clear();
}

void SpoolStorage::FailPending()
{
    std::vector<PendingWrite> failed;
    {
        std::lock_guard lock(m_pendingMutex);
        failed.swap(m_pending);
        m_drainQueued = false;
        m_pendingBytes = 0;
    }
    m_pendingCv.notify_all();
    const WriteResult result{WriteStatus::Failed, "SpoolStorage: Storage is shutting down"};
    for (auto& write : failed)
    {
        try
        {
            Complete(write, result);
        }
        catch (const std::exception& e)
        {
            EDR_LOG_ERROR("SpoolStorage: Write callback failed: " << e.what());
        }
    }
}

void SpoolStorage::Complete(PendingWrite& write, const WriteResult& result)
{
    if (write.waiter != nullptr)
    {
        std::lock_guard lock(write.waiter->mutex);
        write.waiter->result = result;
        write.waiter->done = true;
        write.waiter->cv.notify_one();
    }
    if (write.callback)
    {
        write.callback(result);
    }
}

SpoolStorage::WriteResult SpoolStorage::AddRecordLocked(const std::string& data)
{
    const std::uint64_t maxFileSize = m_maxFileSize.load(std::memory_order_relaxed);
    if (m_cacheRecords > 0 && m_cacheSize + data.size() > maxFileSize)
    {
        try
        {
            FlushDataCacheLocked();
        }
        catch (const std::exception& e)
        {
            EDR_LOG_ERROR("SpoolStorage: Failed to flush cached data: " << e.what());
        }
        if (m_cacheRecords > 0)
        {
            // The cache could not be written; it stays bounded by one file.
            EDR_LOG_ERROR("SpoolStorage: Dropping " << m_cacheSize << " bytes of cached data for "
                                                    << m_directory);
            ResetCacheLocked();
        }
    }
    size_t added = 0;
    try
    {
        added = m_formatter->Append(data);
    }
    catch (const std::exception& e)
    {
        return WriteResult{WriteStatus::Refused, e.what()};
    }
    const bool started = m_cacheRecords == 0;
    m_cacheSize += added;
    ++m_cacheRecords;
    EDR_LOG_DEBUG("SpoolStorage: Added " << added << " bytes to cache. Current Cache size: " << m_cacheSize);
    if (started)
    {
        // Bounds the time any record waits in memory.
        const std::chrono::seconds age(m_maxFileAgeSec.load(std::memory_order_relaxed));
        m_cacheStart = SteadyClock::now();
        ArmSyncLocked(m_cacheStart + age);
        EDR_LOG_DEBUG("SpoolStorage: Scheduled cache sync after " << age.count() << " seconds.");
    }
    if (m_cacheSize >= maxFileSize)
    {
        // A full cache goes to disk at once rather than with the next record.
        try
        {
            FlushDataCacheLocked();
        }
        catch (const std::exception& e)
        {
            EDR_LOG_ERROR("SpoolStorage: Failed to flush cached data: " << e.what());
        }
    }
    return WriteResult{};
}

// ---- the cache ---------------------------------------------------------------

void SpoolStorage::ArmSyncLocked(SteadyClock::time_point deadline)
{
    if (m_syncDeadline && *m_syncDeadline <= deadline)
    {
        return; // an earlier sync is pending; it re-arms for the rest
    }
    if (m_schedule->AddTaskAt(deadline, [this, deadline] { OnSyncTimer(deadline); }))
    {
        m_syncDeadline = deadline;
    }
}

void SpoolStorage::OnSyncTimer(SteadyClock::time_point deadline)
{
    std::lock_guard lock(m_mutex);
    if (!m_syncDeadline || *m_syncDeadline != deadline)
    {
        return; // superseded by an earlier one
    }
    m_syncDeadline.reset();
    if (m_cacheRecords == 0)
    {
        return;
    }
    const auto due = m_cacheStart + std::chrono::seconds(m_maxFileAgeSec.load(std::memory_order_relaxed));
    if (SteadyClock::now() < due)
    {
        ArmSyncLocked(due); // the cache was restarted since this was armed
        return;
    }
    try
    {
        FlushDataCacheLocked();
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("SpoolStorage: Failed to flush cached data: " << e.what());
    }
}

void SpoolStorage::SyncCache()
{
    FlushDataCache();
}

bool SpoolStorage::FlushDataCache()
{
    std::lock_guard lock(m_mutex);
    try
    {
        FlushDataCacheLocked();
        return true;
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("SpoolStorage: Failed to flush cached data: " << e.what());
        return false;
    }
}

void SpoolStorage::FlushDataCacheLocked()
{
    if (m_cacheRecords == 0)
    {
        return;
    }
    try
    {
        m_formatter->Serialize(m_flushBuffer);
    }
    catch (const std::exception&)
    {
        EDR_LOG_ERROR("SpoolStorage::FlushDataCache: Failed to serialize data cache. Resetting cache.");
        ResetCacheLocked();
        throw SpoolStorageException("Failed to serialize data cache");
    }
    if (m_flushBuffer.empty())
    {
        ResetCacheLocked();
        return;
    }
    const std::uint32_t index = NextFileIndexLocked();
    const std::string path = FileName(index);
    const ino_t inode = FileStorage::Create(path, m_flushBuffer);
    m_files.push_back(Entry{index, inode, m_flushBuffer.size(), m_nextId++});
    m_diskUsage += m_flushBuffer.size();
    ResetCacheLocked();
    EDR_LOG_DEBUG("SpoolStorage: Flushed cache to disk: " << path);
    if (m_diskUsage > m_maxDiskSize.load(std::memory_order_relaxed))
    {
        try
        {
            CleanupLocked(false);
        }
        catch (const std::exception& e)
        {
            EDR_LOG_ERROR(e.what()); // the flush itself succeeded
        }
    }
}

void SpoolStorage::ResetCacheLocked()
{
    m_formatter->Reset();
    m_cacheSize = 0;
    m_cacheRecords = 0;
}

// ---- files -------------------------------------------------------------------

std::string SpoolStorage::FileName(std::uint32_t index) const
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
std::optional<std::uint32_t> SpoolStorage::ParseIndex(std::string_view name) const
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

void SpoolStorage::RefreshFileIndicesLocked()
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

std::uint32_t SpoolStorage::NextFileIndexLocked()
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
        CleanupLocked(true);
        if (m_files.empty())
        {
            return 1;
        }
    }
    DefragFileIndicesLocked();
    if (m_files.back().index < m_maxFileCount)
    {
        return m_files.back().index + 1;
    }
    throw SpoolStorageException("SpoolStorage: No free file index in " + m_directory);
}

// Renames the files, oldest first, to 1, 2, 3, ... Each target is free: it
// is below the file's own index and every lower file has already moved down.
// A crash half-way leaves the order intact.
void SpoolStorage::DefragFileIndicesLocked()
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

void SpoolStorage::Cleanup()
{
    std::lock_guard lock(m_mutex);
    CleanupLocked(false);
}

void SpoolStorage::CleanupLocked(bool freeOneName)
{
    EDR_LOG_DEBUG("SpoolStorage: Initiating cleanup...");
    const std::uint64_t maxDiskSize = m_maxDiskSize.load(std::memory_order_relaxed);
    while (!m_files.empty() &&
           (m_diskUsage > maxDiskSize || (freeOneName && m_files.size() >= m_maxFileCount)))
    {
        const Entry oldest = m_files.front();
        const std::string path = FileName(oldest.index);
        if (::unlink(path.c_str()) != 0 && errno != ENOENT)
        {
            EDR_LOG_ERROR("SpoolStorage: Failed to delete " << path << ": " << std::strerror(errno));
            throw SpoolStorageException("SpoolStorage::Cleanup: Failed to clean up spool files");
        }
        EDR_LOG_WARNING("SpoolStorage: Deleted " << path << " (" << oldest.size
                                                 << " bytes) not yet uploaded");
        m_files.pop_front();
        m_diskUsage -= oldest.size;
    }
    EDR_LOG_DEBUG("SpoolStorage: Cleanup completed. [Disk usage: " << m_diskUsage << " / " << maxDiskSize
                                                                   << "]");
}

// ---- reading -----------------------------------------------------------------

SpoolStorage::ReadStatus SpoolStorage::ReadOldestFile(File& file)
{
    std::lock_guard lock(m_mutex);
    while (!m_files.empty())
    {
        Entry& oldest = m_files.front();
        file.path = FileName(oldest.index);
        EDR_LOG_DEBUG("SpoolStorage: Read file: " << file.path);
        try
        {
            // The spool never writes a file near this size: anything larger
            // was planted and is not loaded into memory.
            const ino_t inode = FileStorage::Read(file.path, file.data, kLimitMaxFileSizeKb * kKiB * 2);
            if (inode != oldest.inode)
            {
                // Replaced outside the spool; what is there now is what goes.
                m_diskUsage = m_diskUsage - oldest.size + file.data.size();
                oldest.inode = inode;
                oldest.size = file.data.size();
            }
            file.index = oldest.index;
            file.inode = oldest.inode;
            file.id = oldest.id;
            EDR_LOG_DEBUG("SpoolStorage: Successfully read file: " << file.path);
            return ReadStatus::Ok;
        }
        catch (const FileStorageException& e)
        {
            EDR_LOG_ERROR("SpoolStorage: Failed to read file: " << file.path << " (" << e.what() << ")");
            if (IsTransient(e.Error()))
            {
                return ReadStatus::Failed;
            }
            const int error = e.Error();
            if (error != ENOENT && ::unlink(file.path.c_str()) != 0 && errno != ENOENT)
            {
                EDR_LOG_ERROR("SpoolStorage: Failed to delete " << file.path << ": " << std::strerror(errno));
                return ReadStatus::Failed;
            }
            m_diskUsage -= oldest.size;
            m_files.pop_front();
            if (error != ENOENT)
            {
                return ReadStatus::Failed;
            }
            // Gone already: go on with the next one.
        }
    }
    file = File{};
    return ReadStatus::Empty;
}

bool SpoolStorage::DeleteFile(const File& file)
{
    std::lock_guard lock(m_mutex);
    const auto same = [&](const Entry& e) { return e.inode == file.inode && e.id == file.id; };
    auto it =
        std::find_if(m_files.begin(), m_files.end(), [&](const Entry& e) { return e.index == file.index; });
    if (it == m_files.end() || !same(*it))
    {
        EDR_LOG_INFO("SpoolStorage: Files have been renamed. Searching for an inode match for " << file.path);
        it = std::find_if(m_files.begin(), m_files.end(), same);
    }
    if (it == m_files.end())
    {
        EDR_LOG_ERROR("Failed to delete file with index " << file.index);
        return false;
    }
    const std::string path = FileName(it->index);
    if (::unlink(path.c_str()) != 0 && errno != ENOENT)
    {
        EDR_LOG_ERROR("SpoolStorage: Failed to delete " << path << ": " << std::strerror(errno));
        return false;
    }
    m_diskUsage -= it->size;
    m_files.erase(it);
    return true;
}

// ---- settings and state --------------------------------------------------------

void SpoolStorage::Update(const Settings& settings)
{
    std::lock_guard lock(m_mutex);
    if (const auto disk = Resolve(settings.maxDiskSizeMb, kDefaultMaxDiskSizeMb, kLimitMaxDiskSizeMb))
    {
        m_maxDiskSize = *disk * kMiB;
    }
    else
    {
        EDR_LOG_WARNING("SpoolStorage::Update: Ignoring invalid max disk size setting");
    }
    if (const auto age = Resolve(settings.maxFileAgeSec, kDefaultMaxFileAgeSec, kLimitMaxFileAgeSec))
    {
        m_maxFileAgeSec = static_cast<std::int64_t>(*age);
        m_schedule->SetInterval(std::chrono::seconds(*age));
        if (m_cacheRecords > 0)
        {
            ArmSyncLocked(m_cacheStart + std::chrono::seconds(*age));
        }
    }
    else
    {
        EDR_LOG_WARNING("SpoolStorage::Update: Ignoring invalid max file age setting");
    }
    if (const auto size = Resolve(settings.maxFileSizeKb, kDefaultMaxFileSizeKb, kLimitMaxFileSizeKb))
    {
        m_maxFileSize = *size * kKiB;
    }
    else
    {
        EDR_LOG_WARNING("SpoolStorage::Update: Ignoring invalid max file size setting");
    }
    if (m_diskUsage > m_maxDiskSize.load(std::memory_order_relaxed))
    {
        try
        {
            CleanupLocked(false);
        }
        catch (const std::exception& e)
        {
            EDR_LOG_ERROR(e.what());
        }
    }
}

void SpoolStorage::Clear()
{
    std::lock_guard lock(m_mutex);
    ResetCacheLocked();
    bool failed = false;
    for (auto it = m_files.begin(); it != m_files.end();)
    {
        const std::string path = FileName(it->index);
        if (::unlink(path.c_str()) != 0 && errno != ENOENT)
        {
            EDR_LOG_ERROR("SpoolStorage: Failed to delete " << path << ": " << std::strerror(errno));
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

std::vector<std::uint32_t> SpoolStorage::FileIndices() const
{
    std::lock_guard lock(m_mutex);
    std::vector<std::uint32_t> indices;
    indices.reserve(m_files.size());
    for (const Entry& e : m_files)
    {
        indices.push_back(e.index);
    }
    return indices;
}

std::uint64_t SpoolStorage::DiskUsage() const
{
    std::lock_guard lock(m_mutex);
    return m_diskUsage;
}

std::size_t SpoolStorage::CacheSize() const
{
    std::lock_guard lock(m_mutex);
    return m_cacheSize;
}

} // namespace vantor::common
