#pragma once

#include "edr/EventException.h"
#include "edr/ProcessStat.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace vantor::edr
{

// Event type values; the same values are the actions of rules.
enum class EventType : uint32_t
{
    Accept = 1,
    Create = 2,
    Delete = 3,
    Read = 4,
    Write = 5,
    Attribute = 7,
    Rename = 8,
    Running = 9,
    Clone = 10,
    Exit = 11,
    Connect = 12,
    Bind = 13,
    AbnormalEnd = 16
};

// Whether events of the type concern a file-system object (and carry a path).
constexpr bool IsFileEventType(EventType type)
{
    switch (type)
    {
    case EventType::Create:
    case EventType::Delete:
    case EventType::Read:
    case EventType::Write:
    case EventType::Attribute:
    case EventType::Rename:
        return true;
    default:
        return false;
    }
}

// Event class numbers (GetCategory). Unsuccessful calls still matter for the
// first two: an abnormal end has no success flag and a refused connection is
// worth reporting.
enum class EventCategory : uint32_t
{
    AbnormalEnd = 1,
    Network = 2,
    Process = 3,
    File = 4
};

enum class HashType
{
    Md5,
    Sha1,
    Sha256
};

enum class FileReadStatus
{
    NotRead,
    ReadSuccessful,
    ReadFailure,
    MaxSizeLimitReached
};

// The event every consumer reads. Every operation that a class does not
// support throws EventException "<operation> is not implemented"; the
// defaults here do exactly that, so a class overrides only what it carries.
// The order of the virtual operations is fixed.
class Event
{
public:
    using TimePoint = std::chrono::system_clock::time_point;

    virtual ~Event() = default;

    virtual std::unique_ptr<Event> Clone() const;
    virtual EventType GetType() const;
    virtual std::string GetActionName() const;
    virtual uint32_t GetEventId() const;
    virtual uint32_t GetActorEuid() const;
    virtual std::vector<std::string> GetActorProcessArguments() const;
    virtual pid_t GetActorProcessId() const;
    virtual pid_t GetActorParentProcessId() const;
    virtual std::string GetActorUserName() const;
    virtual uint32_t GetActorUserId() const;
    virtual std::string GetActorLoginName() const;
    virtual uint32_t GetActorAuid() const;
    virtual std::string GetCommandLine() const;
    // Path of the file a file event is about.
    virtual std::string GetFile() const;
    virtual TimePoint GetFileAccessTime() const;
    virtual TimePoint GetFileChangeTime() const;
    virtual std::string GetFileContent() const;
    virtual std::string GetFileContentHash(HashType type) const;
    virtual TimePoint GetFileModificationTime() const;
    virtual uint64_t GetFileSize() const;
    // The st_mode file type bits (S_IFREG, S_IFDIR, ...).
    virtual uint32_t GetFileType() const;
    virtual std::string GetFileTypeDesc() const;
    virtual std::string GetImage() const;
    // Destination path of a rename.
    virtual std::string GetNewFile() const;
    virtual uint32_t GetCategory() const;
    virtual uint64_t GetParentInode() const;
    virtual uint64_t GetParentDeviceID() const;
    virtual std::string GetCwd() const;
    virtual std::string GetSecondaryImage() const;
    // Milliseconds since the epoch.
    virtual uint64_t GetTimestamp() const;
    virtual std::string GetNetworkAddress() const;
    virtual uint16_t GetNetworkPort() const;
    virtual FileReadStatus GetFileReadStatus() const;
    virtual bool HasProcess() const;
    virtual bool IsSymlink() const;
    virtual bool IsSuccessful() const;
    virtual bool IsThread() const;
    virtual void Refresh();
    virtual void UpdateActorProcessId(pid_t pid);

    // After the operations above, whose order is fixed: false when the
    // file's size and times are known to be missing, so that their getters
    // would throw; hot paths skip them without an exception. True means only
    // "ask the getters".
    virtual bool HasFileStat() const { return true; }
    // Whether capture read the acting process's /proc stat for this event
    // (it does when it records a process start); false by default.
    virtual bool HasActorProcessStat() const { return false; }
    // That reading: nothing when the process had already gone. Throws
    // "GetActorProcessStat is not implemented" where HasActorProcessStat is
    // false.
    virtual std::optional<ProcessStat> GetActorProcessStat() const;
};

} // namespace vantor::edr
