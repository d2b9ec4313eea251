#include "edr/PseudoRunningEvent.h"

#include <utility>

namespace vantor::edr
{

PseudoRunningEvent::PseudoRunningEvent(Process process)
    : m_process(std::move(process))
{
}

std::unique_ptr<Event> PseudoRunningEvent::Clone() const
{
    return std::make_unique<PseudoRunningEvent>(*this);
}

EventType PseudoRunningEvent::GetType() const
{
    return EventType::Running;
}

std::string PseudoRunningEvent::GetActionName() const
{
    return "Execve";
}

uint32_t PseudoRunningEvent::GetEventId() const
{
    return 0;
}

uint32_t PseudoRunningEvent::GetActorEuid() const
{
    return m_process.euid;
}

std::vector<std::string> PseudoRunningEvent::GetActorProcessArguments() const
{
    return m_process.arguments;
}

pid_t PseudoRunningEvent::GetActorProcessId() const
{
    return m_process.pid;
}

pid_t PseudoRunningEvent::GetActorParentProcessId() const
{
    return m_process.parentPid;
}

std::string PseudoRunningEvent::GetActorUserName() const
{
    return m_process.userName;
}

uint32_t PseudoRunningEvent::GetActorUserId() const
{
    return m_process.uid;
}

std::string PseudoRunningEvent::GetActorLoginName() const
{
    return m_process.loginName;
}

uint32_t PseudoRunningEvent::GetActorAuid() const
{
    return m_process.auid;
}

std::string PseudoRunningEvent::GetCommandLine() const
{
    throw EventException("GetCommandLine is not implemented");
}

std::string PseudoRunningEvent::GetImage() const
{
    return m_process.image;
}

uint32_t PseudoRunningEvent::GetCategory() const
{
    return static_cast<uint32_t>(EventCategory::Process);
}

std::string PseudoRunningEvent::GetCwd() const
{
    return m_process.cwd;
}

uint64_t PseudoRunningEvent::GetTimestamp() const
{
    return m_process.timestamp;
}

bool PseudoRunningEvent::HasProcess() const
{
    return true;
}

bool PseudoRunningEvent::IsSuccessful() const
{
    return true;
}

bool PseudoRunningEvent::IsThread() const
{
    return false;
}

void PseudoRunningEvent::UpdateActorProcessId(pid_t pid)
{
    m_process.pid = pid;
}

} // namespace vantor::edr
