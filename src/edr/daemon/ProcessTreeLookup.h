#pragma once

#include "edr/ProcessLookup.h"

#include <memory>

namespace vantor::audit
{
class ProcessInfo;
class ProcessTree;
} // namespace vantor::audit

namespace vantor::edr
{

// The audit process tree as the components read it. Thread-safe as the
// tree is.
class ProcessTreeLookup : public ProcessLookup
{
public:
    // Throws std::invalid_argument "ProcessTreeLookup: 'tree' cannot be null".
    explicit ProcessTreeLookup(std::shared_ptr<audit::ProcessTree> tree);

    std::optional<Process> FindProcess(pid_t pid) const override;
    std::vector<Process> GetAncestors(pid_t pid) const override;

    // What the lookup answers of a process of the capture's tree.
    static Process Copy(const audit::ProcessInfo& info);

private:
    const std::shared_ptr<audit::ProcessTree> m_tree;
};

} // namespace vantor::edr
