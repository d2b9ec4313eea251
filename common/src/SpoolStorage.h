#pragma once

#include "common/SpoolDataFormatter.h"
#include "common/SpoolStorageException.h"
#include "common/SpoolStorageSchedule.h"

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace vantor::common
{

class Scheduler;

namespace internal
{
class SpoolCache;
class SpoolFileIndex;
class SpoolReader;
class SpoolWriteQueue;
} // namespace internal

// A bounded queue of data files in one directory, for a component that
// produces records faster than it can upload them. Writers add records to an
// in-memory cache (held by the component's data formatter) that is flushed
// into numbered files prefix.0001, prefix.0002, ...; readers take the oldest
// file first and delete it once it is uploaded; a clean-up keeps the
// directory within its disk quota.
//
// A full or failing disk loses nothing the spool accepted while the quota
// allows: a cache that cannot be written is held in memory as a finished
// file and written, in order, once the disk takes it again (retried with a
// growing pause up to a minute, and with every flush). Held files count
// against the disk quota like written ones and are bounded in memory by
// kMaxHeldBytes; when the quota must give, the oldest files go first
// (written ones before held ones) and are counted in Dropped().
//
// Records, flushes, clean-ups and renames run one at a time (under one
// mutex); writes are queued to the spool's own task so that writers never
// wait for the disk. The parts: a write queue (internal::SpoolWriteQueue),
// the cache and its sync (internal::SpoolCache), the file index
// (internal::SpoolFileIndex) and the reader (internal::SpoolReader).
//
// All operations may be called from any thread.
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

    // Data lost before it was uploaded: files deleted by the quota, held
    // files dropped, caches that could not be serialised.
    struct DropCount
    {
        std::uint64_t files = 0;
        std::uint64_t bytes = 0;
    };

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
    // Held files never take more memory than this (nor than the quota).
    static constexpr std::uint64_t kMaxHeldBytes = 64 * 1024 * 1024;
    static constexpr std::chrono::seconds kFirstRetryPause{1};
    static constexpr std::chrono::seconds kMaxRetryPause{60};

    // The scheduler must outlive the spool.
    SpoolStorage(Scheduler& scheduler, const std::string& directory, const std::string& prefix,
                 std::unique_ptr<SpoolDataFormatter> dataFormatter, const Settings& settings,
                 std::uint64_t maxFileCount);
    ~SpoolStorage();

    SpoolStorage(const SpoolStorage&) = delete;
    SpoolStorage& operator=(const SpoolStorage&) = delete;

    // Where a record comes from: its writer's own, or text from outside that
    // the formatter checks.
    enum class Origin
    {
        Outside,
        Own
    };

    // Queues a record; the callback (may be empty) runs on the spool's task
    // once the record is in the cache (for a record still waiting for its
    // drain when the spool is destroyed: on the destroying thread). An Own
    // record was made by its writer in the formatter's form
    // (SpoolDataFormatter::AppendOwn).
    void WriteAsync(std::string data, WriteCallback callback, Origin origin = Origin::Outside);
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
    // Writes the held files and the cache to new files now; answers false
    // when some of it is still held in memory (logged).
    bool FlushDataCache();
    // Drops the cache and deletes every spool file.
    void Clear();

    std::string FileName(std::uint32_t index) const;
    std::vector<std::uint32_t> FileIndices() const;
    std::uint64_t DiskUsage() const;
    std::size_t CacheSize() const;
    // Finished files waiting in memory for the disk.
    std::size_t HeldFiles() const;
    std::uint64_t HeldBytes() const;
    DropCount Dropped() const;
    const std::string& Directory() const { return m_directory; }

private:
    // At least 1 MiB, or eight records of the largest size.
    std::size_t PendingLimit() const;
    void DrainPending();
    WriteResult AddRecordLocked(const std::string& data, bool own);
    // Answers whether the held files and the cache are now on disk;
    // failures are logged.
    bool FlushDataCacheLocked();
    // Writes one new file; throws on failure.
    void WriteFileLocked(const std::string& data);
    // Writes the held files, oldest first, up to the first failure; answers
    // whether none is left.
    bool WriteHeldLocked();
    void HoldLocked(std::string data);
    void ArmRetryLocked();
    void OnRetryTimer();
    // Deletes or drops the oldest files while over the quota or while the
    // held files take too much memory.
    void EnforceQuotaLocked();
    void CountDropped(std::uint64_t files, std::uint64_t bytes);
    void OnSyncTimer(std::chrono::steady_clock::time_point deadline);
    std::chrono::seconds MaxFileAge() const;

    Scheduler& m_scheduler;
    const std::string m_directory;
    const std::uint32_t m_maxFileCount;

    // Read without the mutex by writers, which must never wait for a flush.
    std::atomic<std::uint64_t> m_maxDiskSize;
    std::atomic<std::uint64_t> m_maxFileSize;
    std::atomic<std::int64_t> m_maxFileAgeSec;

    mutable std::mutex m_mutex;
    // Under m_mutex.
    std::unique_ptr<internal::SpoolCache> m_cache;
    std::unique_ptr<internal::SpoolFileIndex> m_files;
    std::unique_ptr<internal::SpoolReader> m_reader;
    std::deque<std::string> m_held; // oldest first; all newer than the files
    std::uint64_t m_heldBytes = 0;
    DropCount m_dropped;
    bool m_retryArmed = false;
    std::chrono::seconds m_retryPause = kFirstRetryPause;

    std::unique_ptr<internal::SpoolWriteQueue> m_writes;
    std::vector<WriteResult> m_drainResults; // the drain task's results

    std::shared_ptr<SpoolStorageSchedule> m_schedule;
};

} // namespace vantor::common
