#include "audit/SyscallEvent.h"

#include <algorithm>

namespace vantor::audit::internal
{

SyscallEvent::SyscallEvent(auparse_state_t* au, const SetAsideRecords& aside, unsigned wanted)
    : Event(au)
{
    m_records.Parse(au, wanted | AuditRecords::kProctitle, aside);
}

std::vector<std::string> SyscallEvent::GetActorProcessArguments() const
{
    if (GetActorProcess())
    {
        return Event::GetActorProcessArguments();
    }
    const std::string title = m_records.Proctitle();
    return title.empty() ? Event::GetActorProcessArguments() : AuditRecords::SplitArguments(title);
}

std::string SyscallEvent::GetCommandLine() const
{
    std::string line = m_records.Proctitle();
    if (line.empty())
    {
        return Event::GetCommandLine();
    }
    // The arguments joined by spaces.
    std::replace(line.begin(), line.end(), '\0', ' ');
    return line;
}

uint32_t SyscallEvent::GetActorEuid() const
{
    return m_records.syscall.euid;
}

pid_t SyscallEvent::GetActorProcessId() const
{
    return m_records.syscall.pid;
}

pid_t SyscallEvent::GetActorParentProcessId() const
{
    return m_records.syscall.ppid;
}

std::string SyscallEvent::GetActorUserName() const
{
    return CachedUserName(m_records.syscall.uid);
}

uint32_t SyscallEvent::GetActorUserId() const
{
    return m_records.syscall.uid;
}

std::string SyscallEvent::GetActorLoginName() const
{
    return CachedLoginName(m_records.syscall.auid);
}

uint32_t SyscallEvent::GetActorAuid() const
{
    return m_records.syscall.auid;
}

std::string SyscallEvent::GetImage() const
{
    return std::string(m_records.Exe());
}

bool SyscallEvent::IsSuccessful() const
{
    return m_records.syscall.success;
}

bool SyscallEvent::IsThread() const
{
    return false;
}

void SyscallEvent::UpdateActorProcessId(pid_t pid)
{
    m_records.syscall.pid = pid;
}

bool SyscallEvent::IsElevated() const
{
    return m_records.syscall.euid == 0 && m_records.syscall.uid != 0;
}

} // namespace vantor::audit::internal
