#include "ioc/CredentialAccessTag.h"

#include "ioc/EventFields.h"
#include "ioc/TagPatterns.h"

namespace vantor::ioc::internal
{

CredentialAccessTag::CredentialAccessTag()
    : Tag("CredentialAccess")
    , m_path(AddPattern("pathRegex", TagPatterns::kCredentialAccessPath))
    , m_process(AddPattern("processRegex", TagPatterns::kCredentialAccessProcess))
{
}

bool CredentialAccessTag::IsApplicable(const edr::Event& event, const ProcessInfo& process) const
{
    if (!edr::IsFileEventType(event.GetType()) || !Matches(m_process, process.image.path))
    {
        return false;
    }
    const auto file = EventFields::File(event);
    return file && Matches(m_path, *file);
}

} // namespace vantor::ioc::internal
