#pragma once

#include <cstdint>

namespace vantor::audit
{

// Which of a SYSCALL record's first four arguments (a0..a3) the events built
// from that syscall read: the open flags of open and openat, the flags of
// clone and utimensat, the status of exit_group. Every other argument is
// neither parsed nor handed to libauparse, which costs a split and a copy per
// field. A reader of another argument must be added here.
//
// Stateless and thread-safe.
class SyscallArguments
{
public:
    // Bit i set: argument i is read.
    static unsigned ReadBy(int64_t syscall);

    // index 0..3.
    static bool IsRead(int64_t syscall, unsigned index) { return (ReadBy(syscall) >> index & 1U) != 0; }
};

} // namespace vantor::audit
