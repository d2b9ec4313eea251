#pragma once

#include "ioc/Tag.h"

namespace vantor::ioc::internal
{

// "Persistence": a file is created, written or renamed into an autostart or
// configuration location (the "pathRegex" on the file; for a rename on the
// new name, where the file now lives).
class PersistenceTag : public Tag
{
public:
    PersistenceTag();

    bool IsApplicable(const edr::Event& event, const ProcessInfo& process) const override;

private:
    const size_t m_path;
};

} // namespace vantor::ioc::internal
