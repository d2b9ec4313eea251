#include "audit/ExitEvent.h"

#include <sys/syscall.h>

namespace vantor::audit::internal
{

ExitEvent::ExitEvent(auparse_state_t* au, const SetAsideRecords& aside)
    : SyscallEvent(au, aside, 0)
{
    if (GetSyscall() != SYS_exit_group)
    {
        throw edr::EventException("Invalid syscall for Exit event: " + std::to_string(GetSyscall()));
    }
}

std::unique_ptr<edr::Event> ExitEvent::Clone() const
{
    return std::make_unique<ExitEvent>(*this);
}

edr::EventType ExitEvent::GetType() const
{
    return edr::EventType::Exit;
}

std::string ExitEvent::GetActionName() const
{
    return "Exit";
}

uint32_t ExitEvent::GetCategory() const
{
    return static_cast<uint32_t>(edr::EventCategory::Process);
}

bool ExitEvent::IsSuccessful() const
{
    return true;
}

} // namespace vantor::audit::internal
