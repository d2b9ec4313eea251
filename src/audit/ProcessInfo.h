#pragma once

#include "audit/ProcFs.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace vantor::edr
{
class Event;
}

namespace vantor::audit
{

// One process of the audit process tree: identity, image, arguments, users
// and creation time. Immutable once made, so that a record can be shared with
// the threads that read the tree.
class ProcessInfo
{
public:
    using TimePoint = std::chrono::system_clock::time_point;

    static constexpr uint32_t kUnsetAuid = 4294967295U;

    // From a process start (execve) or a clone event. A clone event's actor
    // is the caller; the new process is the call's result (pid: the child,
    // parent pid: the caller) and shares the caller's image and arguments
    // until it runs execve; a clone event that does not name its child
    // throws "ProcessInfo cannot find the new process of the Clone event".
    // Any other event throws std::runtime_error "ProcessInfo can only be
    // created from a Process Exec or Clone event"; an event without image
    // "ProcessInfo cannot find image information for PID:<pid>".
    ProcessInfo(const edr::Event& event, TimePoint creationTime);

    // From the proc file system; throws std::runtime_error with the reason
    // when the process is gone or has no image (kernel threads).
    ProcessInfo(const ProcFs& procFs, pid_t pid);

    pid_t GetPid() const { return m_pid; }
    pid_t GetParentPid() const { return m_parentPid; }
    const std::string& GetImage() const { return m_image; }
    const std::vector<std::string>& GetArguments() const { return m_arguments; }
    // The arguments joined by spaces.
    std::string GetCommandLine() const { return JoinArguments(m_arguments); }
    uint32_t GetUserId() const { return m_uid; }
    uint32_t GetEffectiveUserId() const { return m_euid; }
    uint32_t GetAuditUserId() const { return m_auid; }
    TimePoint GetCreationTime() const { return m_creationTime; }
    // Last component of the image path; the kernel's own name ("comm") is cut
    // at 15 characters, the image is not.
    std::string_view GetName() const;

    static std::string JoinArguments(const std::vector<std::string>& arguments);

    // Records are replaced, never updated in place: throws "Update is not
    // implemented".
    void Update(const edr::Event& event);

private:
    pid_t m_pid = 0;
    pid_t m_parentPid = 0;
    std::string m_image;
    std::vector<std::string> m_arguments;
    uint32_t m_uid = 0;
    uint32_t m_euid = 0;
    uint32_t m_auid = kUnsetAuid;
    TimePoint m_creationTime{};
};

} // namespace vantor::audit
