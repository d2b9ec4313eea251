#pragma once

#include "audit/SyscallEvent.h"
#include "edr/LibMagicWrapper.h"

#include <sys/stat.h>

#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

namespace vantor::audit::internal
{

// An event about one file system object: its absolute path, the identity the
// kernel recorded (PATH record), the parent directory and, unless the object
// is gone, a stat taken when the event is built.
class FileEvent : public SyscallEvent
{
public:
    enum class StatMode
    {
        None,
        Follow,
        NoFollow
    };

    // Asked before the stat whether any consumer routes events about a path:
    // an event that goes nowhere is not worth the system call.
    using StatGate = std::function<bool(std::string_view path)>;

    std::string GetFile() const override;
    TimePoint GetFileAccessTime() const override;
    TimePoint GetFileChangeTime() const override;
    std::string GetFileContent() const override;
    std::string GetFileContentHash(edr::HashType type) const override;
    TimePoint GetFileModificationTime() const override;
    uint64_t GetFileSize() const override;
    bool HasFileStat() const override { return m_stat.has_value(); }
    // From the stat, or for an object without one from its PATH record.
    uint32_t GetFileType() const override;
    std::string GetFileTypeDesc() const override;
    uint32_t GetCategory() const override;
    uint64_t GetParentInode() const override;
    uint64_t GetParentDeviceID() const override;
    std::string GetCwd() const override;
    edr::FileReadStatus GetFileReadStatus() const override;
    bool IsSymlink() const override;
    void Refresh() override;

protected:
    using Magic = std::shared_ptr<const edr::LibMagicWrapper>;

    // Parses SYSCALL, PATH and CWD records and makes every PATH name absolute.
    FileEvent(auparse_state_t* au, const SetAsideRecords& aside, Magic magic);
    FileEvent(const FileEvent&) = default;

    // Sets the object of the event and, unless mode is None, stats it. A stat
    // of another object (the file was replaced) throws "File ... differs from
    // the object of the audit event with ID ...". Both records are records of
    // this event (the event keeps their places, not copies). With a gate (not
    // empty) that routes neither the object nor alsoRouted (the event's other
    // path), no stat is taken, as for None.
    void SetObject(const PathRecord& object, const PathRecord* parent, StatMode mode,
                   const StatGate& gate = {}, const PathRecord* alsoRouted = nullptr);
    void SetObjectPath(const PathRecord& object, const PathRecord* parent);

    // Place of a record of this event in its PATH records; kNoPath for null.
    static constexpr size_t kNoPath = static_cast<size_t>(-1);
    size_t IndexOf(const PathRecord* record) const;
    // The same in the given records (of this event or one it was copied from).
    static size_t IndexIn(const std::vector<PathRecord>& paths, const PathRecord* record);
    // The record at a place; an empty record for kNoPath.
    const PathRecord& PathAt(size_t index) const;

    // The text thrown when a stat-based operation has no stat.
    virtual std::string MissingStatText() const;
    // Absolute path of a PATH record (names were made absolute on parsing).
    static const std::string& PathOf(const PathRecord& record) { return record.name; }

    // Numbers of PATH records by kind.
    struct Counts
    {
        unsigned normal = 0;
        unsigned create = 0;
        unsigned remove = 0;
        unsigned parent = 0;
        unsigned other = 0;
    };
    Counts CountPaths() const;
    const PathRecord* FindPath(PathRecord::NameType type) const;
    const PathRecord* FindLastPath(PathRecord::NameType type) const;

private:
    const struct stat& RequireStat() const;

    const PathRecord& Object() const { return PathAt(m_object); }
    const std::string& ObjectPath() const { return Object().name; }

    Magic m_magic;
    size_t m_object = kNoPath;
    size_t m_parent = kNoPath;
    StatMode m_statMode = StatMode::None;
    std::optional<struct stat> m_stat;
    mutable edr::FileReadStatus m_readStatus = edr::FileReadStatus::NotRead;
};

} // namespace vantor::audit::internal
