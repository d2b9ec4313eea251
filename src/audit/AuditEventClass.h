#pragma once

#include <cstdint>

namespace vantor::audit
{

// The audit event classes that a SYSCALL record's system call selects.
enum class AuditEventClass : uint8_t
{
    ReadWrite,
    Network,
    Clone,
    Running,
    Rename,
    Create,
    Delete,
    Attribute,
    Exit
};

} // namespace vantor::audit
