#pragma once

#include <stdexcept>
#include <string>

namespace vantor::audit::internal
{

// A SYSCALL record that cannot be read; the text begins with
// "SyscallRecordException:".
class SyscallRecordException : public std::runtime_error
{
public:
    explicit SyscallRecordException(const std::string& what)
        : std::runtime_error("SyscallRecordException: " + what)
    {
    }
};

} // namespace vantor::audit::internal
