#include "audit/CreateEvent.h"

#include <fcntl.h>
#include <sys/syscall.h>

namespace vantor::audit::internal
{

CreateEvent::CreateEvent(auparse_state_t* au, const SetAsideRecords& aside, Magic magic, const StatGate& gate)
    : FileEvent(au, aside, std::move(magic))
{
    StatMode mode = StatMode::Follow;
    bool link = false;
    const auto& args = m_records.syscall.args;
    switch (GetSyscall())
    {
    case SYS_open:
        if ((args[1] & O_CREAT) == 0)
        {
            throw edr::EventException("open() must specify O_CREAT for Create event");
        }
        break;
    case SYS_openat:
    case SYS_open_by_handle_at:
        if ((args[2] & O_CREAT) == 0)
        {
            throw edr::EventException("openat()/open_by_handle_at() must specify O_CREAT for Create event");
        }
        break;
    case SYS_mkdir:
    case SYS_creat:
    case SYS_mknod:
    case SYS_mkdirat:
    case SYS_mknodat:
        break;
    case SYS_link:
    case SYS_linkat:
        link = true;
        break;
    case SYS_symlink:
    case SYS_symlinkat:
        // The new object is the link itself.
        mode = StatMode::NoFollow;
        break;
    default:
        throw edr::EventException("Invalid syscall for Create event: " + std::to_string(GetSyscall()));
    }
    for (const auto& path : m_records.paths)
    {
        const bool expected = path.nameType == PathRecord::NameType::Parent ||
                              path.nameType == PathRecord::NameType::Create ||
                              (link && path.nameType == PathRecord::NameType::Normal);
        if (!expected)
        {
            throw edr::EventException("Unsupported PATH record in Create event of type: " +
                                      path.nameTypeText);
        }
    }
    const PathRecord* object = FindLastPath(PathRecord::NameType::Create);
    if (object == nullptr)
    {
        throw edr::EventException("Missing create PATH record for Create event");
    }
    SetObject(*object, FindLastPath(PathRecord::NameType::Parent), mode, gate);
}

std::unique_ptr<edr::Event> CreateEvent::Clone() const
{
    return std::make_unique<CreateEvent>(*this);
}

edr::EventType CreateEvent::GetType() const
{
    return edr::EventType::Create;
}

std::string CreateEvent::GetActionName() const
{
    return "Create";
}

} // namespace vantor::audit::internal
