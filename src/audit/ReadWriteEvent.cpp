#include "audit/ReadWriteEvent.h"

#include <fcntl.h>
#include <sys/syscall.h>

namespace vantor::audit::internal
{
namespace
{

bool OpensForWriting(uint64_t flags)
{
    return (flags & O_ACCMODE) != O_RDONLY;
}

} // namespace

ReadWriteEvent::ReadWriteEvent(auparse_state_t* au, const SetAsideRecords& aside, Magic magic,
                               const StatGate& gate)
    : FileEvent(au, aside, std::move(magic))
{
    const int call = GetSyscall();
    switch (call)
    {
    case SYS_read:
    case SYS_pread64:
    case SYS_readv:
    case SYS_preadv:
    case SYS_write:
    case SYS_pwrite64:
    case SYS_writev:
    case SYS_pwritev:
    case SYS_open:
    case SYS_openat:
    case SYS_open_by_handle_at:
        break;
    default:
        // truncate and ftruncate reach this class too; they are refused here.
        throw edr::EventException("Invalid syscall for Write event: " + std::to_string(call));
    }

    const PathRecord* object = nullptr;
    for (const auto& path : m_records.paths)
    {
        if (path.nameType != PathRecord::NameType::Parent)
        {
            object = &path;
            break;
        }
    }
    if (object == nullptr)
    {
        throw edr::EventException("Missing/incorrect PATH records in file event");
    }
    if (object->nameType != PathRecord::NameType::Normal && object->nameType != PathRecord::NameType::Create)
    {
        throw edr::EventException("Invalid type of PATH record for Write event: " + object->nameTypeText);
    }

    m_type =
        object->nameType == PathRecord::NameType::Create ? edr::EventType::Create : edr::EventType::Write;
    const auto& args = m_records.syscall.args;
    switch (call)
    {
    case SYS_read:
    case SYS_pread64:
    case SYS_readv:
    case SYS_preadv:
        m_type = edr::EventType::Read;
        break;
    case SYS_open:
        m_type = OpensForWriting(args[1]) ? m_type : edr::EventType::Read;
        break;
    case SYS_openat:
    case SYS_open_by_handle_at:
        m_type = OpensForWriting(args[2]) ? m_type : edr::EventType::Read;
        break;
    default:
        break;
    }
    SetObject(*object, FindLastPath(PathRecord::NameType::Parent), StatMode::Follow, gate);
}

std::unique_ptr<edr::Event> ReadWriteEvent::Clone() const
{
    return std::make_unique<ReadWriteEvent>(*this);
}

edr::EventType ReadWriteEvent::GetType() const
{
    return m_type;
}

std::string ReadWriteEvent::GetActionName() const
{
    switch (m_type)
    {
    case edr::EventType::Create:
        return "Create";
    case edr::EventType::Read:
        return "Read";
    default:
        return "Write";
    }
}

} // namespace vantor::audit::internal
