#pragma once

#include "ioc/Tag.h"

namespace vantor::ioc::internal
{

// "CredentialAccess": a viewing or copying tool (the "processRegex" on the
// executable) touches a credential or system configuration file (the
// "pathRegex" on the file): any file event, since copying and moving count
// as much as reading.
class CredentialAccessTag : public Tag
{
public:
    CredentialAccessTag();

    bool IsApplicable(const edr::Event& event, const ProcessInfo& process) const override;

private:
    const size_t m_path;
    const size_t m_process;
};

} // namespace vantor::ioc::internal
