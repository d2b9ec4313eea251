#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vantor::edr
{

// The processes that the capture knows, as the components may read them:
// the daemon hands its process tree to the components through this view,
// since they see the capture only through the shared model.
//
// Implementations are thread-safe; the answers are copies.
class ProcessLookup
{
public:
    struct Process
    {
        pid_t pid = 0;
        pid_t parentPid = 0;
        std::string image;
        std::vector<std::string> arguments;
        uint32_t uid = 0;
        uint32_t euid = 0;
        uint32_t auid = 4294967295U; // unset
    };

    virtual ~ProcessLookup() = default;

    // The live process of pid, or nothing when it is unknown.
    virtual std::optional<Process> FindProcess(pid_t pid) const = 0;
    // The process and its ancestors, nearest first; empty for an unknown pid.
    virtual std::vector<Process> GetAncestors(pid_t pid) const = 0;
};

} // namespace vantor::edr
