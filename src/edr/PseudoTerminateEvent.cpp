#include "edr/PseudoTerminateEvent.h"

#include <utility>

namespace vantor::edr
{

PseudoTerminateEvent::PseudoTerminateEvent(EventType type, pid_t pid, pid_t parentPid, std::string image,
                                           uint64_t timestamp)
    : m_type(type)
    , m_pid(pid)
    , m_parentPid(parentPid)
    , m_image(std::move(image))
    , m_timestamp(timestamp)
{
}

std::unique_ptr<Event> PseudoTerminateEvent::Clone() const
{
    return std::make_unique<PseudoTerminateEvent>(*this);
}

EventType PseudoTerminateEvent::GetType() const
{
    return m_type;
}

std::string PseudoTerminateEvent::GetActionName() const
{
    return "Exit";
}

uint32_t PseudoTerminateEvent::GetEventId() const
{
    return 0;
}

pid_t PseudoTerminateEvent::GetActorProcessId() const
{
    return m_pid;
}

pid_t PseudoTerminateEvent::GetActorParentProcessId() const
{
    return m_parentPid;
}

std::string PseudoTerminateEvent::GetImage() const
{
    return m_image;
}

uint32_t PseudoTerminateEvent::GetCategory() const
{
    return static_cast<uint32_t>(EventCategory::Process);
}

uint64_t PseudoTerminateEvent::GetTimestamp() const
{
    return m_timestamp;
}

bool PseudoTerminateEvent::HasProcess() const
{
    return false;
}

bool PseudoTerminateEvent::IsSuccessful() const
{
    return true;
}

bool PseudoTerminateEvent::IsThread() const
{
    return false;
}

void PseudoTerminateEvent::UpdateActorProcessId(pid_t pid)
{
    m_pid = pid;
}

} // namespace vantor::edr
