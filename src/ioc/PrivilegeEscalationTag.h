#pragma once

#include "ioc/Tag.h"

namespace vantor::ioc::internal
{

// "PrivilegeEscalation": a file event on another process's memory or memory
// maps (the "pathRegex" on the file, /proc/<pid>/mem, maps, smaps,
// map_files). A process that looks at its own entries shows nothing.
class PrivilegeEscalationTag : public Tag
{
public:
    PrivilegeEscalationTag();

    bool IsApplicable(const edr::Event& event, const ProcessInfo& process) const override;

private:
    const size_t m_path;
};

} // namespace vantor::ioc::internal
