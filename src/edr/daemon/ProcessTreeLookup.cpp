#include "edr/daemon/ProcessTreeLookup.h"

#include "audit/ProcessInfo.h"
#include "audit/ProcessTree.h"

#include <stdexcept>

namespace vantor::edr
{

ProcessLookup::Process ProcessTreeLookup::Copy(const audit::ProcessInfo& info)
{
    ProcessLookup::Process process;
    process.pid = info.GetPid();
    process.parentPid = info.GetParentPid();
    process.image = info.GetImage();
    process.arguments = info.GetArguments();
    process.uid = info.GetUserId();
    process.euid = info.GetEffectiveUserId();
    process.auid = info.GetAuditUserId();
    return process;
}

ProcessTreeLookup::ProcessTreeLookup(std::shared_ptr<audit::ProcessTree> tree)
    : m_tree(std::move(tree))
{
    if (!m_tree)
    {
        throw std::invalid_argument("ProcessTreeLookup: 'tree' cannot be null");
    }
}

std::optional<ProcessLookup::Process> ProcessTreeLookup::FindProcess(pid_t pid) const
{
    const auto info = m_tree->GetProcess(pid);
    if (!info)
    {
        return std::nullopt;
    }
    return Copy(*info);
}

std::vector<ProcessLookup::Process> ProcessTreeLookup::GetAncestors(pid_t pid) const
{
    std::vector<Process> ancestors;
    for (const auto& info : m_tree->GetAncestors(pid))
    {
        ancestors.push_back(Copy(*info));
    }
    return ancestors;
}

} // namespace vantor::edr
