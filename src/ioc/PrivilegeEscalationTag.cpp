#include "ioc/PrivilegeEscalationTag.h"

#include "ioc/EventFields.h"
#include "ioc/TagPatterns.h"

#include <string_view>

namespace vantor::ioc::internal
{

namespace
{

bool IsOwnProcEntry(const std::string& path, pid_t pid)
{
    constexpr std::string_view kProc = "/proc/";
    const std::string number = std::to_string(pid);
    return path.compare(0, kProc.size(), kProc) == 0 &&
           path.compare(kProc.size(), number.size(), number) == 0 &&
           path.size() > kProc.size() + number.size() && path[kProc.size() + number.size()] == '/';
}

} // namespace

PrivilegeEscalationTag::PrivilegeEscalationTag()
    : Tag("PrivilegeEscalation")
    , m_path(AddPattern("pathRegex", TagPatterns::kPrivilegeEscalationPath))
{
}

bool PrivilegeEscalationTag::IsApplicable(const edr::Event& event, const ProcessInfo& process) const
{
    if (!edr::IsFileEventType(event.GetType()))
    {
        return false;
    }
    const auto file = EventFields::File(event);
    return file && Matches(m_path, *file) && !IsOwnProcEntry(*file, process.pid);
}

} // namespace vantor::ioc::internal
