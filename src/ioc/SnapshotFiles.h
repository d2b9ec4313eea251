#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

namespace vantor::common
{
class SqlStorage;
}

namespace vantor::ioc::internal
{

// The "File" and "Directory" rows of the snapshot database: what was last
// reported of each file and directory. A row is keyed by the RowID of its
// path (RowIdOf), so a parent directory's id follows from its path alone
// and a file's row is found again by the path of a later event.
//
// Writes and deletes are held in memory until Flush, which stores them in
// one transaction, so that a batch of events costs one commit, not one per
// event; reads see the held rows first. The owner flushes when its
// batch is finished, so a crash loses no more rows than events. Times are
// milliseconds since the epoch, 0 when unknown. Storage failures are
// answered (false from Flush, std::runtime_error from reads), never hidden.
//
// Directory rows seen stored are remembered (up to kMaxKnownDirectories), so
// that the parent of every reported file is not read again, and so are file
// rows with their content (up to kMaxKnownFiles), so that a file reported
// again is not read again; whoever empties the snapshot's tables behind this
// object's back must call StoredRowsCleared.
//
// Not thread-safe: one thread (the batch's) uses it; only
// StoredRowsCleared may be called from any thread.
class SnapshotFiles
{
public:
    struct Times
    {
        int64_t creation = 0;
        int64_t lastWrite = 0;
        int64_t lastAccess = 0;
        int64_t lastChange = 0;
    };

    struct FileRow
    {
        std::string rowId;
        std::string parentId;
        int64_t size = 0;
        Times times;
        std::string md5;
        std::string sha1;
        std::string sha256;
    };

    struct DirectoryRow
    {
        std::string rowId;
        std::string path;
        Times times;
    };

    explicit SnapshotFiles(common::SqlStorage& snapshot);

    // Lower-case hex SHA-256 of the path's bytes.
    static std::string RowIdOf(std::string_view path);
    // RowIdOf a path that recurs from event to event (a parent directory,
    // an image, a library), remembered (up to kMaxRememberedRowIds) so that
    // it is not hashed again. The reference is valid until the next call.
    const std::string& RecurringRowIdOf(std::string_view path);

    // Throw std::runtime_error with the storage's reason when the table
    // cannot be read.
    std::optional<FileRow> ReadFile(const std::string& rowId);
    std::optional<DirectoryRow> ReadDirectory(const std::string& rowId) const;
    // Whether the directory has a row (held or stored).
    bool HasDirectory(const std::string& rowId);

    // Held until Flush; answer true (kept for the callers' failure paths).
    bool WriteFile(FileRow row);
    bool WriteDirectory(const DirectoryRow& row);
    bool DeleteFile(const std::string& rowId);
    bool DeleteDirectory(const std::string& rowId);

    // Stores what is held in one transaction; answers whether all of it was
    // stored (a failure stores none of it). Held rows are let go either way
    // (a failed write is logged, as a failed per-event write was).
    bool Flush();
    size_t HeldCount() const { return m_files.size() + m_directories.size(); }

    // The snapshot's tables were emptied: the next read forgets the rows it
    // remembered as stored. Thread-safe.
    void StoredRowsCleared() { m_cleared.store(true, std::memory_order_release); }

    static constexpr size_t kMaxKnownDirectories = 4096;
    static constexpr size_t kMaxKnownFiles = 4096;
    static constexpr size_t kMaxRememberedRowIds = 4096;

private:
    // Forgets the rows remembered as stored when the tables were cleared.
    void ForgetIfCleared();
    void RememberFile(FileRow row);

    // rowId -> the row to write, or nothing for a delete.
    template <typename Row>
    using Held = std::unordered_map<std::string, std::optional<Row>>;

    common::SqlStorage& m_snapshot;
    Held<FileRow> m_files;
    Held<DirectoryRow> m_directories;
    // Row ids of directories read as stored since the tables were last
    // known to be cleared.
    std::unordered_set<std::string> m_knownDirectories;
    // rowId -> the file row stored under it, likewise.
    std::unordered_map<std::string, FileRow> m_knownFiles;
    std::atomic<bool> m_cleared{false};
    // Looked up by std::string_view without a copy.
    struct PathHash
    {
        using is_transparent = void;
        size_t operator()(std::string_view path) const { return std::hash<std::string_view>()(path); }
    };
    // path -> RowIdOf(path)
    std::unordered_map<std::string, std::string, PathHash, std::equal_to<>> m_rowIds;
};

} // namespace vantor::ioc::internal
