#pragma once

#include "common/SpoolDataFormatter.h"
#include "common/SpoolStorageSchedule.h"

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace vantor::common
{

class Scheduler;

class SpoolStorageException : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// A bounded queue of data files in one directory, for a component that
// produces records faster than it can upload them. Writers add records to an
// in-memory cache (held by the component's data formatter) that is flushed
// into numbered files prefix.0001, prefix.0002, ...; readers take the oldest
// file first and delete it once it is uploaded; a clean-up keeps the
// directory within its disk quota.
//
// Records, flushes, clean-ups and renames run one at a time (under one
// mutex); writes are queued to the spool's own task so that writers never
// wait for the disk.
class SpoolStorage
{
public:
    // The limits that can change at run time. 0 takes the default.
    struct Settings
    {
        std::uint64_t maxDiskSizeMb = 0; // default 10 MiB
        std::uint64_t maxFileAgeSec = 0; // default 600 s
        std::uint64_t maxFileSizeKb = 0; // default 100 KiB
    };

    enum class WriteStatus
    {
        Success = 0,
        Refused = 1, // the data formatter refused the record
        Failed = 2   // the spool is shutting down
    };

    struct WriteResult
    {
        WriteStatus status = WriteStatus::Success;
        std::string message;

        bool Succeeded() const { return status == WriteStatus::Success; }
    };

    using WriteCallback = std::function<void(const WriteResult&)>;

    // One spool file as read; index and inode (with the spool's own id, as
    // inodes are reused) identify it for DeleteFile after an upload, even if
    // a de-fragmentation has renamed it meanwhile.
    struct File
    {
        std::uint32_t index = 0;
        ino_t inode = 0;
        std::uint64_t id = 0;
        std::string path;
        std::string data;
    };

    enum class ReadStatus
    {
        Ok,
        Empty,
        Failed
    };

    static constexpr std::uint64_t kDefaultMaxDiskSizeMb = 10;
    static constexpr std::uint64_t kDefaultMaxFileAgeSec = 600;
    static constexpr std::uint64_t kDefaultMaxFileSizeKb = 100;
    // Larger values are refused: the cache of one file is held in memory, and
    // the schedule never sleeps longer than a day.
    static constexpr std::uint64_t kLimitMaxDiskSizeMb = 1024 * 1024;
    static constexpr std::uint64_t kLimitMaxFileAgeSec = 86400;
    static constexpr std::uint64_t kLimitMaxFileSizeKb = 64 * 1024;
    static constexpr std::uint64_t kMinFileCount = 2;
    static constexpr std::uint64_t kMaxFileCount = 10000;

    // The scheduler must outlive the spool.
    SpoolStorage(Scheduler& scheduler, const std::string& directory, const std::string& prefix,
                 std::unique_ptr<SpoolDataFormatter> dataFormatter, const Settings& settings,
                 std::uint64_t maxFileCount);
    ~SpoolStorage();

    SpoolStorage(const SpoolStorage&) = delete;
    SpoolStorage& operator=(const SpoolStorage&) = delete;

    // Queues a record; the callback (may be empty) runs on the spool's task
    // once the record is in the cache.
    void WriteAsync(std::string data, WriteCallback callback);
    // Queues a record and waits until it is in the cache. Must not be called
    // from a write callback.
    WriteResult Write(std::string data);
    // The keyed write of other storages; a spool has no keys.
    [[noreturn]] WriteResult Write(const std::string& key, const std::string& data);

    // Reads the oldest file into file. A file that cannot be read is deleted
    // (it would block every file behind it) and Failed is answered.
    ReadStatus ReadOldestFile(File& file);
    // Deletes a file that ReadOldestFile returned.
    bool DeleteFile(const File& file);

    void Update(const Settings& settings);
    // Deletes the oldest files until the spool is within its disk quota.
    void Cleanup();
    // Writes the cache to a new file now; answers false on failure (logged).
    bool FlushDataCache();
    // Drops the cache and deletes every spool file.
    void Clear();

    std::string FileName(std::uint32_t index) const;
    std::vector<std::uint32_t> FileIndices() const;
    std::uint64_t DiskUsage() const;
    std::size_t CacheSize() const;
    const std::string& Directory() const { return m_directory; }

private:
    using SteadyClock = std::chrono::steady_clock;

    struct Entry
    {
        std::uint32_t index;
        ino_t inode;
        std::uint64_t size;
        std::uint64_t id;
    };

    struct Waiter;

    // At least 1 MiB, or eight records of the largest size.
    std::size_t PendingLimit() const;

    struct PendingWrite
    {
        std::string data;
        WriteCallback callback;
        Waiter* waiter = nullptr;
    };

    void Enqueue(PendingWrite write);
    void DrainPending();
    void FailPending();
    static void Complete(PendingWrite& write, const WriteResult& result);

    WriteResult AddRecordLocked(const std::string& data);
    void FlushDataCacheLocked();
    void ResetCacheLocked();
    void ArmSyncLocked(SteadyClock::time_point deadline);
    void OnSyncTimer(SteadyClock::time_point deadline);
    void SyncCache();
    std::uint32_t NextFileIndexLocked();
    void CleanupLocked(bool freeOneName);
    void RefreshFileIndicesLocked();
    void DefragFileIndicesLocked();
    std::optional<std::uint32_t> ParseIndex(std::string_view name) const;

    Scheduler& m_scheduler;
    const std::string m_directory;
    const std::string m_prefix;
    const std::uint32_t m_maxFileCount;
    const std::unique_ptr<SpoolDataFormatter> m_formatter;

    // Read without the mutex by writers, which must never wait for a flush.
    std::atomic<std::uint64_t> m_maxDiskSize;
    std::atomic<std::uint64_t> m_maxFileSize;
    std::atomic<std::int64_t> m_maxFileAgeSec;

    mutable std::mutex m_mutex;
    std::deque<Entry> m_files; // oldest first, indices ascending
    std::uint64_t m_diskUsage = 0;
    std::uint64_t m_nextId = 1;
    std::size_t m_cacheSize = 0;
    std::size_t m_cacheRecords = 0;
    SteadyClock::time_point m_cacheStart{};
    std::optional<SteadyClock::time_point> m_syncDeadline;
    std::string m_flushBuffer;

    std::mutex m_pendingMutex;
    // Writers wait here while the records not yet moved into the cache hold
    // more than PendingLimit() bytes, so a slow disk holds back the
    // producers instead of growing memory without bound.
    std::condition_variable m_pendingCv;
    std::size_t m_pendingBytes = 0;
    std::vector<PendingWrite> m_pending;
    bool m_drainQueued = false;
    std::vector<PendingWrite> m_draining;    // the task's batch
    std::vector<WriteResult> m_drainResults; // the task's results

    std::shared_ptr<SpoolStorageSchedule> m_schedule;
};

} // namespace vantor::common
