#include "audit/DeleteEvent.h"

#include "common/Logging.h"

#include <sys/syscall.h>

namespace vantor::audit::internal
{

DeleteEvent::DeleteEvent(auparse_state_t* au, const SetAsideRecords& aside, Magic magic)
    : FileEvent(au, aside, std::move(magic))
{
    const int call = GetSyscall();
    const bool rename = call == SYS_rename || call == SYS_renameat || call == SYS_renameat2;
    if (!rename && call != SYS_rmdir && call != SYS_unlink && call != SYS_unlinkat)
    {
        throw edr::EventException("Invalid syscall for delete event");
    }
    const PathRecord* object = FindPath(PathRecord::NameType::Delete);
    if (rename)
    {
        // The replaced target: the DELETE record that names the destination.
        const PathRecord* destination = FindLastPath(PathRecord::NameType::Create);
        object = nullptr;
        for (const auto& path : m_records.paths)
        {
            if (path.nameType == PathRecord::NameType::Delete && destination != nullptr &&
                path.name == destination->name)
            {
                object = &path;
            }
        }
    }
    if (object == nullptr)
    {
        throw edr::EventException("Missing delete PATH record for Delete event");
    }
    EDR_LOG_TRACE("Ignoring stat for delete event");
    SetObject(*object, FindLastPath(PathRecord::NameType::Parent), StatMode::None);
}

DeleteEvent::DeleteEvent(const FileEvent& rename, const PathRecord& replaced)
    : FileEvent(rename)
{
    if (!replaced.hasName)
    {
        throw edr::EventException("Missing path for child");
    }
    // The copy holds the rename's records in the same places.
    SetObjectPath(m_records.paths[IndexIn(rename.Records().paths, &replaced)],
                  FindLastPath(PathRecord::NameType::Parent));
}

std::unique_ptr<edr::Event> DeleteEvent::Clone() const
{
    return std::make_unique<DeleteEvent>(*this);
}

edr::EventType DeleteEvent::GetType() const
{
    return edr::EventType::Delete;
}

std::string DeleteEvent::GetActionName() const
{
    return "Delete";
}

} // namespace vantor::audit::internal
