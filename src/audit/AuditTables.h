#pragma once

#include "edr/EventRule.h"

#include <map>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace vantor::audit
{

// Fixed tables of audit capture, built once on first use.
class AuditTables
{
public:
    using SyscallTable = std::map<edr::EventRule::Action, std::vector<std::string>>;

    struct MessageType
    {
        std::string name;
        int type;
    };

    // Process action (9 running, 10 clone, 11 exit) -> system calls.
    static const SyscallTable& ProcessActionSyscalls();
    // Network action (1 accept, 12 connect, 13 bind) -> system calls.
    static const SyscallTable& NetworkActionSyscalls();
    // Record types dropped by the kernel's exclude filter.
    static const std::vector<MessageType>& ExclusionMessageTypes();
    // Process names of container runtimes.
    static const std::unordered_set<std::string>& ContainerRuntimeNames();
    // Process names of the host agent's own tools, whose events are dropped.
    // One entry is two tool names run together; it matches only as a whole.
    static const std::unordered_set<std::string>& OutpostToolNames();
    // Directories in which the host agent's tools are installed.
    static const std::vector<std::string>& ToolDirectories();
    // The type of a record by its name in the text ("SYSCALL",
    // "UNKNOWN[1234]", ...); -1 when the name is unknown. The names of
    // nearly every record cost no libaudit lookup.
    static int RecordType(std::string_view name);
};

} // namespace vantor::audit
