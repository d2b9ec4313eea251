#include "audit/SyscallArguments.h"

#include <sys/syscall.h>

namespace vantor::audit
{

unsigned SyscallArguments::ReadBy(int64_t syscall)
{
    switch (syscall)
    {
    case SYS_clone:      // CLONE_THREAD in the flags: a thread, not tracked
    case SYS_exit_group: // the exit status
        return 1U << 0;
    case SYS_open: // O_CREAT and the access mode
        return 1U << 1;
    case SYS_openat:
    case SYS_open_by_handle_at:
        return 1U << 2;
    case SYS_utimensat: // AT_SYMLINK_NOFOLLOW
        return 1U << 3;
    default:
        return 0;
    }
}

} // namespace vantor::audit
