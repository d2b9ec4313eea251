#include "ioc/PersistenceTag.h"

#include "ioc/EventFields.h"
#include "ioc/TagPatterns.h"

namespace vantor::ioc::internal
{

PersistenceTag::PersistenceTag()
    : Tag("Persistence")
    , m_path(AddPattern("pathRegex", TagPatterns::kPersistencePath))
{
}

bool PersistenceTag::IsApplicable(const edr::Event& event, const ProcessInfo&) const
{
    std::optional<std::string> path;
    switch (event.GetType())
    {
    case edr::EventType::Create:
    case edr::EventType::Write:
        path = EventFields::File(event);
        break;
    case edr::EventType::Rename:
        path = EventFields::NewFile(event);
        break;
    default:
        return false;
    }
    return path && Matches(m_path, *path);
}

} // namespace vantor::ioc::internal
