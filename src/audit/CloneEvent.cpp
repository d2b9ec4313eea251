#include "audit/CloneEvent.h"

#include <sys/syscall.h>

namespace vantor::audit::internal
{
namespace
{
constexpr uint64_t kCloneThread = 0x10000;
}

CloneEvent::CloneEvent(auparse_state_t* au, const SetAsideRecords& aside)
    : SyscallEvent(au, aside, 0)
{
    const int call = GetSyscall();
    if (call != SYS_clone && call != SYS_fork && call != SYS_vfork)
    {
        throw edr::EventException("Invalid syscall for Clone event: " + std::to_string(call));
    }
    if (call == SYS_clone && (m_records.syscall.args[0] & kCloneThread) != 0)
    {
        throw edr::EventException("Thread events are not tracked");
    }
}

std::unique_ptr<edr::Event> CloneEvent::Clone() const
{
    return std::make_unique<CloneEvent>(*this);
}

edr::EventType CloneEvent::GetType() const
{
    return edr::EventType::Clone;
}

std::string CloneEvent::GetActionName() const
{
    return "Clone";
}

uint32_t CloneEvent::GetCategory() const
{
    return static_cast<uint32_t>(edr::EventCategory::Process);
}

} // namespace vantor::audit::internal
