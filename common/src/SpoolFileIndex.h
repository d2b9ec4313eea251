#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vantor::common::internal
{

// The files of one spool directory: which numbered files exist (oldest
// first, indices ascending), their inodes and sizes, and the disk usage
// they add up to. It names the files (directory/prefix.0001, ...), scans
// the directory, hands out the index of the next file (de-fragmenting the
// indices when they have run up to the max file count) and deletes the
// oldest files to keep within a quota.
//
// Not thread-safe: the spool calls it under its mutex.
class SpoolFileIndex
{
public:
    struct Entry
    {
        std::uint32_t index;
        ino_t inode;
        std::uint64_t size;
        // Unique within the spool: inodes are reused.
        std::uint64_t id;
    };

    SpoolFileIndex(std::string directory, std::string prefix, std::uint32_t maxFileCount);

    // Throws SpoolStorageException "SpoolStorage: File index out of range"
    // outside 1..max file count.
    std::string FileName(std::uint32_t index) const;

    // Rebuilds the list from the directory; removes the temporary files of
    // interrupted writes.
    void Refresh();

    // The index for a new file after the newest. When every name is taken
    // the oldest file is deleted first (with a clean-up to maxDiskSize);
    // when the indices have run up to the max file count, the files are
    // renamed down to 1, 2, 3, ... Throws SpoolStorageException when no
    // index can be freed.
    std::uint32_t NextIndex(std::uint64_t maxDiskSize);
    void Add(std::uint32_t index, ino_t inode, std::uint64_t size);

    // Deletes the oldest files while the usage is over maxDiskSize (and, with
    // freeOneName, while every name is taken), counting them as dropped.
    // Throws SpoolStorageException "SpoolStorage::Cleanup: Failed to clean
    // up spool files" when a file cannot be deleted.
    void Cleanup(std::uint64_t maxDiskSize, bool freeOneName);

    // The oldest entry, or null.
    Entry* Oldest();
    // The entry now at index, or null.
    Entry* FindIndex(std::uint32_t index);
    // The entry with this inode and id, wherever a rename moved it, or null.
    Entry* FindIdentity(ino_t inode, std::uint64_t id);
    // The file changed outside the spool; its entry takes what is there now.
    void Replace(Entry& entry, ino_t inode, std::uint64_t size);
    // Forgets the entry (its file is gone).
    void Forget(const Entry& entry);
    // Deletes the entry's file and forgets it; false (logged) when the file
    // cannot be deleted.
    bool Delete(const Entry& entry);
    // Deletes every file; throws SpoolStorageException when some remain.
    void DeleteAll();

    // unlink(2) that takes a missing file as deleted; logs a failure.
    static bool Unlink(const std::string& path);

    std::vector<std::uint32_t> Indices() const;
    std::uint64_t DiskUsage() const { return m_diskUsage; }
    // The files the clean-ups deleted before they were uploaded.
    std::uint64_t DroppedFiles() const { return m_droppedFiles; }
    std::uint64_t DroppedBytes() const { return m_droppedBytes; }
    const std::string& Directory() const { return m_directory; }

private:
    std::optional<std::uint32_t> ParseIndex(std::string_view name) const;
    void Defragment();

    const std::string m_directory;
    const std::string m_prefix;
    const std::uint32_t m_maxFileCount;
    std::deque<Entry> m_files; // oldest first, indices ascending
    std::uint64_t m_diskUsage = 0;
    std::uint64_t m_nextId = 1;
    std::uint64_t m_droppedFiles = 0;
    std::uint64_t m_droppedBytes = 0;
};

} // namespace vantor::common::internal
