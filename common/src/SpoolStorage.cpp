#include "common/SpoolStorage.h"

#include "common/FileStorage.h"
#include "common/Logging.h"
#include "common/Scheduler.h"
#include "common/SpoolCache.h"
#include "common/SpoolFileIndex.h"
#include "common/SpoolReader.h"
#include "common/SpoolWriteQueue.h"

#include <sys/stat.h>

#include <algorithm>
#include <optional>

namespace vantor::common
{

namespace
{

constexpr std::uint64_t kMiB = 1024 * 1024;
constexpr std::uint64_t kKiB = 1024;

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

} // namespace

SpoolStorage::SpoolStorage(Scheduler& scheduler, const std::string& directory, const std::string& prefix,
                           std::unique_ptr<SpoolDataFormatter> dataFormatter, const Settings& settings,
                           std::uint64_t maxFileCount)
    : m_scheduler(scheduler)
    , m_directory(directory)
    , m_maxFileCount(static_cast<std::uint32_t>(std::min<std::uint64_t>(maxFileCount, kMaxFileCount)))
{
    if (maxFileCount < kMinFileCount || maxFileCount > kMaxFileCount)
    {
        throw SpoolStorageException("SpoolStorage: Max file count must be between 2 and 10000");
    }
    if (m_directory.empty())
    {
        throw SpoolStorageException("SpoolStorage: Path cannot be empty");
    }
    if (prefix.empty())
    {
        throw SpoolStorageException("SpoolStorage: Prefix cannot be empty");
    }
    if (prefix.find_first_of(std::string_view("/\0", 2)) != std::string::npos)
    {
        // The spool's files must lie in its directory, where the scan finds them.
        throw SpoolStorageException("SpoolStorage: Prefix cannot contain '/'");
    }
    if (!dataFormatter)
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

    m_cache = std::make_unique<internal::SpoolCache>(
        std::move(dataFormatter), [this](std::chrono::steady_clock::time_point deadline)
        { return m_schedule->AddTaskAt(deadline, [this, deadline] { OnSyncTimer(deadline); }); });
    m_files = std::make_unique<internal::SpoolFileIndex>(m_directory, prefix, m_maxFileCount);
    m_reader = std::make_unique<internal::SpoolReader>(*m_files);
    m_writes = std::make_unique<internal::SpoolWriteQueue>(
        [this](std::chrono::steady_clock::duration delay)
        {
            return delay == std::chrono::steady_clock::duration::zero()
                       ? m_schedule->AddTask([this] { DrainPending(); })
                       : m_schedule->AddTaskAt(std::chrono::steady_clock::now() + delay,
                                               [this] { DrainPending(); });
        },
        [this] { return PendingLimit(); });
    {
        std::lock_guard lock(m_mutex);
        m_files->Refresh();
    }
    m_schedule = std::make_shared<SpoolStorageSchedule>([this] { FlushDataCache(); }, MaxFileAge());
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
    // Runs the writes already queued; later ones are refused. Shutdown drops
    // a drain that was still waiting for its time: it is done here.
    m_schedule->Shutdown();
    DrainPending();
    m_writes->FailAll();
    {
        std::lock_guard lock(m_mutex);
        if (!FlushDataCacheLocked())
        {
            EDR_LOG_ERROR("SpoolStorage: Dropping " << m_heldBytes << " bytes in " << m_held.size()
                                                    << " files that the disk did not take for "
                                                    << m_directory);
            CountDropped(m_held.size(), m_heldBytes);
        }
    }
    EDR_LOG_INFO("Destroying SpoolStorage for " << m_directory);
}

std::chrono::seconds SpoolStorage::MaxFileAge() const
{
    return std::chrono::seconds(m_maxFileAgeSec.load(std::memory_order_relaxed));
}

// ---- writing ---------------------------------------------------------------

void SpoolStorage::WriteAsync(std::string data, WriteCallback callback, Origin origin)
{
    if (data.size() > m_maxFileSize.load(std::memory_order_relaxed))
    {
        throw SpoolStorageException("SpoolStorage::WriteAsync: data is larger than max file size");
    }
    m_writes->WriteAsync(std::move(data), std::move(callback), origin == Origin::Own);
}

SpoolStorage::WriteResult SpoolStorage::Write(std::string data)
{
    if (data.size() > m_maxFileSize.load(std::memory_order_relaxed))
    {
        throw SpoolStorageException("SpoolStorage::Write: data is larger than max file size");
    }
    return m_writes->Write(std::move(data));
}

SpoolStorage::WriteResult SpoolStorage::Write(const std::string&, const std::string&)
{
    throw SpoolStorageException("SpoolStorage::Write is not implemented");
}

std::size_t SpoolStorage::PendingLimit() const
{
    return std::max<std::size_t>(std::size_t{1} << 20, 8 * m_maxFileSize.load(std::memory_order_relaxed));
}

void SpoolStorage::DrainPending()
{
    auto& batch = m_writes->TakeBatch();
    m_drainResults.resize(batch.size());
    {
        std::lock_guard lock(m_mutex);
        for (std::size_t i = 0; i < batch.size(); ++i)
        {
            m_drainResults[i] = AddRecordLocked(batch[i].data, batch[i].own);
        }
    }
    m_writes->CompleteBatch(m_drainResults);
}

SpoolStorage::WriteResult SpoolStorage::AddRecordLocked(const std::string& data, bool own)
{
    const std::uint64_t maxFileSize = m_maxFileSize.load(std::memory_order_relaxed);
    if (!m_cache->Empty() && m_cache->Size() + data.size() > maxFileSize)
    {
        // Leaves the cache empty: written, or held until the disk takes it.
        FlushDataCacheLocked();
    }
    try
    {
        m_cache->Append(data, MaxFileAge(), own);
    }
    catch (const std::exception& e)
    {
        return WriteResult{WriteStatus::Refused, e.what()};
    }
    if (m_cache->Size() >= maxFileSize)
    {
        // A full cache goes to disk at once rather than with the next record.
        FlushDataCacheLocked();
    }
    return WriteResult{};
}

// ---- the cache ---------------------------------------------------------------

void SpoolStorage::OnSyncTimer(std::chrono::steady_clock::time_point deadline)
{
    std::lock_guard lock(m_mutex);
    if (m_cache->SyncDue(deadline, MaxFileAge()))
    {
        FlushDataCacheLocked();
    }
}

bool SpoolStorage::FlushDataCache()
{
    std::lock_guard lock(m_mutex);
    return FlushDataCacheLocked();
}

bool SpoolStorage::FlushDataCacheLocked()
{
    // Held files are older than the cache: they go first, and while one is
    // refused the cache joins them rather than overtake them.
    const bool heldWritten = WriteHeldLocked();
    bool serialized = true;
    if (!m_cache->Empty())
    {
        const std::size_t size = m_cache->Size();
        const std::string* data = nullptr;
        try
        {
            data = &m_cache->Serialize();
        }
        catch (const std::exception& e)
        {
            EDR_LOG_ERROR("SpoolStorage: Failed to flush cached data: " << e.what());
            CountDropped(1, size);
            serialized = false;
        }
        if (data != nullptr && !data->empty())
        {
            try
            {
                if (!heldWritten)
                {
                    throw SpoolStorageException("earlier files still wait for the disk");
                }
                WriteFileLocked(*data);
            }
            catch (const std::exception& e)
            {
                EDR_LOG_ERROR("SpoolStorage: Failed to flush cached data: "
                              << e.what() << "; holding " << data->size() << " bytes in memory");
                HoldLocked(*data);
            }
        }
        m_cache->Reset();
    }
    EnforceQuotaLocked();
    return serialized && m_held.empty();
}

void SpoolStorage::WriteFileLocked(const std::string& data)
{
    const std::uint32_t index = m_files->NextIndex(m_maxDiskSize.load(std::memory_order_relaxed));
    const std::string path = m_files->FileName(index);
    const ino_t inode = FileStorage::Create(path, data);
    m_files->Add(index, inode, data.size());
    EDR_LOG_DEBUG("SpoolStorage: Flushed cache to disk: " << path);
}

bool SpoolStorage::WriteHeldLocked()
{
    if (m_held.empty())
    {
        return true;
    }
    std::size_t written = 0;
    while (!m_held.empty())
    {
        try
        {
            WriteFileLocked(m_held.front());
        }
        catch (const std::exception& e)
        {
            EDR_LOG_DEBUG("SpoolStorage: The disk still refuses held data: " << e.what());
            ArmRetryLocked();
            break;
        }
        m_heldBytes -= m_held.front().size();
        m_held.pop_front();
        ++written;
    }
    if (written > 0)
    {
        EDR_LOG_INFO("SpoolStorage: Wrote " << written << " held files to disk; " << m_held.size()
                                            << " still held for " << m_directory);
    }
    if (m_held.empty())
    {
        m_retryPause = kFirstRetryPause;
    }
    return m_held.empty();
}

void SpoolStorage::HoldLocked(std::string data)
{
    m_heldBytes += data.size();
    m_held.push_back(std::move(data));
    ArmRetryLocked();
}

void SpoolStorage::ArmRetryLocked()
{
    if (m_retryArmed)
    {
        return;
    }
    m_retryArmed =
        m_schedule->AddTaskAt(std::chrono::steady_clock::now() + m_retryPause, [this] { OnRetryTimer(); });
}

void SpoolStorage::OnRetryTimer()
{
    std::lock_guard lock(m_mutex);
    m_retryArmed = false;
    if (!m_held.empty())
    {
        m_retryPause = std::min(m_retryPause * 2, kMaxRetryPause);
        WriteHeldLocked();
    }
}

void SpoolStorage::EnforceQuotaLocked()
{
    const std::uint64_t quota = m_maxDiskSize.load(std::memory_order_relaxed);
    if (m_files->DiskUsage() + m_heldBytes > quota)
    {
        try
        {
            // The written files are older than the held ones: they go first.
            m_files->Cleanup(quota > m_heldBytes ? quota - m_heldBytes : 0, false);
        }
        catch (const std::exception& e)
        {
            EDR_LOG_ERROR(e.what()); // what triggered the clean-up itself succeeded
        }
    }
    const std::uint64_t heldLimit = std::min(quota, kMaxHeldBytes);
    while (!m_held.empty() && (m_files->DiskUsage() + m_heldBytes > quota || m_heldBytes > heldLimit))
    {
        EDR_LOG_WARNING("SpoolStorage: Dropped " << m_held.front().size()
                                                 << " bytes held in memory, not yet written, for "
                                                 << m_directory);
        CountDropped(1, m_held.front().size());
        m_heldBytes -= m_held.front().size();
        m_held.pop_front();
    }
}

void SpoolStorage::CountDropped(std::uint64_t files, std::uint64_t bytes)
{
    m_dropped.files += files;
    m_dropped.bytes += bytes;
}

// ---- files -------------------------------------------------------------------

std::string SpoolStorage::FileName(std::uint32_t index) const
{
    return m_files->FileName(index);
}

void SpoolStorage::Cleanup()
{
    std::lock_guard lock(m_mutex);
    m_files->Cleanup(m_maxDiskSize.load(std::memory_order_relaxed), false);
}

SpoolStorage::ReadStatus SpoolStorage::ReadOldestFile(File& file)
{
    std::lock_guard lock(m_mutex);
    return m_reader->ReadOldest(file);
}

bool SpoolStorage::DeleteFile(const File& file)
{
    std::lock_guard lock(m_mutex);
    return m_reader->Delete(file);
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
        m_cache->Rearm(std::chrono::seconds(*age));
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
    EnforceQuotaLocked();
}

void SpoolStorage::Clear()
{
    std::lock_guard lock(m_mutex);
    m_cache->Reset();
    m_held.clear();
    m_heldBytes = 0;
    m_files->DeleteAll();
}

std::vector<std::uint32_t> SpoolStorage::FileIndices() const
{
    std::lock_guard lock(m_mutex);
    return m_files->Indices();
}

std::uint64_t SpoolStorage::DiskUsage() const
{
    std::lock_guard lock(m_mutex);
    return m_files->DiskUsage();
}

std::size_t SpoolStorage::CacheSize() const
{
    std::lock_guard lock(m_mutex);
    return m_cache->Size();
}

std::size_t SpoolStorage::HeldFiles() const
{
    std::lock_guard lock(m_mutex);
    return m_held.size();
}

std::uint64_t SpoolStorage::HeldBytes() const
{
    std::lock_guard lock(m_mutex);
    return m_heldBytes;
}

SpoolStorage::DropCount SpoolStorage::Dropped() const
{
    std::lock_guard lock(m_mutex);
    return DropCount{m_dropped.files + m_files->DroppedFiles(), m_dropped.bytes + m_files->DroppedBytes()};
}

} // namespace vantor::common
