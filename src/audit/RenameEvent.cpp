#include "audit/RenameEvent.h"

#include <sys/syscall.h>

namespace vantor::audit::internal
{

RenameEvent::RenameEvent(auparse_state_t* au, const SetAsideRecords& aside, Magic magic, const StatGate& gate)
    : FileEvent(au, aside, std::move(magic))
{
    const int call = GetSyscall();
    if (call != SYS_rename && call != SYS_renameat && call != SYS_renameat2)
    {
        throw edr::EventException("Invalid syscall for Rename event: " + std::to_string(call));
    }
    // Two parents, the source (DELETE), the replaced target (DELETE) and the
    // destination (CREATE).
    if (m_records.paths.size() > 5)
    {
        throw edr::EventException("Too many PATH records in Rename event");
    }
    const PathRecord* source = nullptr;
    const PathRecord* destination = nullptr;
    const PathRecord* parent = nullptr;
    const PathRecord* replaced = nullptr;
    for (const auto& path : m_records.paths)
    {
        switch (path.nameType)
        {
        case PathRecord::NameType::Parent:
            parent = &path;
            break;
        case PathRecord::NameType::Delete:
            (source == nullptr ? source : replaced) = &path;
            break;
        case PathRecord::NameType::Create:
            destination = &path;
            break;
        default:
            throw edr::EventException("Unsupported PATH record in Rename event of type: " +
                                      path.nameTypeText);
        }
    }
    if (source == nullptr)
    {
        throw edr::EventException("Missing delete PATH record for Rename event");
    }
    if (destination == nullptr || parent == nullptr || !destination->hasName)
    {
        throw edr::EventException("Missing/incorrect destination PATH records in Rename event");
    }
    m_replaced = IndexOf(replaced);
    m_destinationParent = IndexOf(parent);
    m_destination = IndexOf(destination);
    // The source is gone; the object to examine is the destination, which is
    // the same inode. The rename moves a link itself, so it is not followed.
    m_source = IndexOf(source);
    SetObject(*destination, parent, StatMode::NoFollow, gate, source);
}

std::string RenameEvent::GetFile() const
{
    return PathAt(m_source).name;
}

std::unique_ptr<edr::Event> RenameEvent::Clone() const
{
    return std::make_unique<RenameEvent>(*this);
}

edr::EventType RenameEvent::GetType() const
{
    return edr::EventType::Rename;
}

std::string RenameEvent::GetActionName() const
{
    return "Rename";
}

std::string RenameEvent::GetNewFile() const
{
    return PathAt(m_destination).name;
}

uint64_t RenameEvent::GetParentInode() const
{
    return PathAt(m_destinationParent).inode;
}

uint64_t RenameEvent::GetParentDeviceID() const
{
    return PathAt(m_destinationParent).device;
}

std::string RenameEvent::MissingStatText() const
{
    return "Destination file stat information is not available";
}

} // namespace vantor::audit::internal
