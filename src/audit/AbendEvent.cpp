#include "audit/AbendEvent.h"

#include "audit/AuparseField.h"

#include <libaudit.h>

namespace vantor::audit::internal
{

AbendEvent::AbendEvent(auparse_state_t* au)
    : Event(au)
{
    if (auparse_get_type(au) != AUDIT_ANOM_ABEND)
    {
        throw edr::EventException("Missing ANOM_ABEND record for Abend event");
    }
    if (auparse_first_field(au) == 1)
    {
        do
        {
            const char* name = auparse_get_field_name(au);
            if (name == nullptr)
            {
                continue;
            }
            if (AuparseField::Is(name, "pid"))
            {
                m_pid = AuparseField::Number<pid_t>(au).value_or(0);
            }
            else if (AuparseField::Is(name, "uid"))
            {
                m_uid = AuparseField::Number<uint32_t>(au).value_or(0);
            }
            else if (AuparseField::Is(name, "auid"))
            {
                m_auid = AuparseField::Number<uint32_t>(au).value_or(4294967295U);
            }
            else if (AuparseField::Is(name, "sig"))
            {
                m_signal = AuparseField::Number<int>(au).value_or(0);
            }
            else if (AuparseField::Is(name, "comm"))
            {
                m_comm = AuparseField::Text(au).value_or(std::string());
            }
            else if (AuparseField::Is(name, "exe"))
            {
                m_exe = AuparseField::Text(au).value_or(std::string());
            }
        } while (auparse_next_field(au) == 1);
    }
}

std::unique_ptr<edr::Event> AbendEvent::Clone() const
{
    return std::make_unique<AbendEvent>(*this);
}

edr::EventType AbendEvent::GetType() const
{
    return edr::EventType::AbnormalEnd;
}

std::string AbendEvent::GetActionName() const
{
    return "Abend";
}

pid_t AbendEvent::GetActorProcessId() const
{
    return m_pid;
}

std::string AbendEvent::GetActorUserName() const
{
    return CachedUserName(m_uid);
}

uint32_t AbendEvent::GetActorUserId() const
{
    return m_uid;
}

std::string AbendEvent::GetActorLoginName() const
{
    return CachedLoginName(m_auid);
}

uint32_t AbendEvent::GetActorAuid() const
{
    return m_auid;
}

std::string AbendEvent::GetImage() const
{
    return m_exe;
}

uint32_t AbendEvent::GetCategory() const
{
    return static_cast<uint32_t>(edr::EventCategory::AbnormalEnd);
}

bool AbendEvent::IsSuccessful() const
{
    return true;
}

bool AbendEvent::IsThread() const
{
    return false;
}

void AbendEvent::UpdateActorProcessId(pid_t pid)
{
    m_pid = pid;
}

} // namespace vantor::audit::internal
