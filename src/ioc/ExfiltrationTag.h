#pragma once

#include "ioc/Tag.h"

namespace vantor::ioc::internal
{

// "Exfiltration": any event of a transfer or remote-access tool (the
// "processRegex" on the executable).
class ExfiltrationTag : public Tag
{
public:
    ExfiltrationTag();

    bool IsApplicable(const edr::Event& event, const ProcessInfo& process) const override;

private:
    const size_t m_process;
};

} // namespace vantor::ioc::internal
