#include "audit/Event.h"

#include "audit/ProcessInfo.h"
#include "audit/UserNameCache.h"
#include "common/Logging.h"

namespace vantor::audit::internal
{

Event::Event(auparse_state_t* au)
{
    if (au == nullptr)
    {
        throw edr::EventException("auparse state is NULL");
    }
    if (auparse_get_num_records(au) == 0)
    {
        throw edr::EventException("auparse state is invalid or has no records");
    }
    if (auparse_first_record(au) != 1)
    {
        throw edr::EventException("Failed to parse first record");
    }
    const au_event_t* stamp = auparse_get_timestamp(au);
    if (stamp == nullptr || stamp->serial == 0)
    {
        throw edr::EventException("Missing event ID or timestamp");
    }
    m_serial = static_cast<uint32_t>(stamp->serial);
    m_timestamp = static_cast<uint64_t>(stamp->sec) * 1000U + stamp->milli;
    EDR_LOG_TRACE("Parsing event with ID:" << m_serial << " Timestamp:" << m_timestamp);
}

uint32_t Event::GetEventId() const
{
    return m_serial;
}

uint64_t Event::GetTimestamp() const
{
    return m_timestamp;
}

bool Event::HasProcess() const
{
    return m_actor != nullptr;
}

std::vector<std::string> Event::GetActorProcessArguments() const
{
    return m_actor ? m_actor->GetArguments() : edr::Event::GetActorProcessArguments();
}

pid_t Event::GetActorParentProcessId() const
{
    return m_actor ? m_actor->GetParentPid() : edr::Event::GetActorParentProcessId();
}

std::string Event::GetCommandLine() const
{
    return m_actor ? m_actor->GetCommandLine() : edr::Event::GetCommandLine();
}

std::optional<edr::ProcessStat> Event::GetActorProcessStat() const
{
    return m_hasActorStat ? m_actorStat : edr::Event::GetActorProcessStat();
}

bool Event::IsElevated() const
{
    throw edr::EventException("IsElevated is not implemented");
}

const std::string& Event::CachedUserName(uint32_t uid) const
{
    if (m_userName.empty())
    {
        m_userName = UserNameCache::Instance().UserName(uid);
    }
    return m_userName;
}

const std::string& Event::CachedLoginName(uint32_t auid) const
{
    if (m_loginName.empty())
    {
        m_loginName = UserNameCache::Instance().LoginName(auid);
    }
    return m_loginName;
}

} // namespace vantor::audit::internal
