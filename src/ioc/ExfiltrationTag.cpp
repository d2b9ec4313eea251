#include "ioc/ExfiltrationTag.h"

#include "ioc/TagPatterns.h"

namespace vantor::ioc::internal
{

ExfiltrationTag::ExfiltrationTag()
    : Tag("Exfiltration")
    , m_process(AddPattern("processRegex", TagPatterns::kExfiltrationProcess))
{
}

bool ExfiltrationTag::IsApplicable(const edr::Event&, const ProcessInfo& process) const
{
    return Matches(m_process, process.image.path);
}

} // namespace vantor::ioc::internal
