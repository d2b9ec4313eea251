#include "audit/AttributeEvent.h"

#include <fcntl.h>
#include <sys/syscall.h>

namespace vantor::audit::internal
{

AttributeEvent::AttributeEvent(auparse_state_t* au, const SetAsideRecords& aside, Magic magic,
                               const StatGate& gate)
    : FileEvent(au, aside, std::move(magic))
{
    StatMode mode = StatMode::Follow;
    switch (GetSyscall())
    {
    case SYS_chmod:
    case SYS_fchmod:
    case SYS_chown:
    case SYS_fchown:
    case SYS_utime:
    case SYS_setxattr:
    case SYS_fsetxattr:
    case SYS_removexattr:
    case SYS_fremovexattr:
    case SYS_utimes:
    case SYS_fchownat:
    case SYS_futimesat:
    case SYS_fchmodat:
        break;
    case SYS_utimensat:
        // utimensat(dirfd, path, times, flags): the flags may ask for the link.
        mode = (m_records.syscall.args[3] & AT_SYMLINK_NOFOLLOW) != 0 ? StatMode::NoFollow : StatMode::Follow;
        break;
    case SYS_lchown:
    case SYS_lsetxattr:
    case SYS_lremovexattr:
        mode = StatMode::NoFollow;
        break;
    default:
        throw edr::EventException("Invalid syscall for Attribute event: " + std::to_string(GetSyscall()));
    }
    if (m_records.paths.size() > 2)
    {
        throw edr::EventException("Too many PATH records in Attribute event");
    }
    const PathRecord* object = FindPath(PathRecord::NameType::Normal);
    if (object == nullptr)
    {
        throw edr::EventException("Missing normal PATH record for Attribute event");
    }
    SetObject(*object, FindPath(PathRecord::NameType::Parent), mode, gate);
}

std::unique_ptr<edr::Event> AttributeEvent::Clone() const
{
    return std::make_unique<AttributeEvent>(*this);
}

edr::EventType AttributeEvent::GetType() const
{
    return edr::EventType::Attribute;
}

std::string AttributeEvent::GetActionName() const
{
    return "Change";
}

} // namespace vantor::audit::internal
