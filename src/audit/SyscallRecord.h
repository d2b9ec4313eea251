#pragma once

#include <auparse.h>
#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace vantor::audit::internal
{

// The fields of a SYSCALL record that the events use, copied out of
// libauparse.
class SyscallRecord
{
public:
    static constexpr uint32_t kUnsetAuid = 4294967295U;

    // Reads the current record of the state (which must be a SYSCALL
    // record) up to its end or a field "item"; the executable's path is
    // appended to text. Throws SyscallRecordException.
    static SyscallRecord Parse(auparse_state_t* au, std::string& text);

    int syscall = -1;
    bool success = false;
    int64_t exit = 0;
    // Only those that SyscallArguments says the syscall reads; 0 otherwise.
    std::array<uint64_t, 4> args{};
    uint32_t items = 0;
    // The record goes on with the fields of PATH records, from the field the
    // state is left on.
    bool pathsJoined = false;
    pid_t ppid = 0;
    pid_t pid = 0;
    uint32_t auid = kUnsetAuid;
    uint32_t uid = 0;
    uint32_t euid = 0;
    // Where the executable's path is in the text given to Parse.
    size_t exeAt = 0;
    size_t exeSize = 0;
};

} // namespace vantor::audit::internal
