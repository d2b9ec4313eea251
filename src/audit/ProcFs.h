#pragma once

#include "edr/ProcessStat.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace vantor::audit
{

// Reads process facts from a proc file system. The root is a parameter so
// that a prepared directory tree can stand in for /proc.
class ProcFs
{
public:
    using TimePoint = std::chrono::system_clock::time_point;

    struct Status
    {
        std::string name;
        pid_t tgid = 0;
        pid_t parentPid = 0;
        uint32_t uid = 0;
        uint32_t euid = 0;
    };

    using Stat = edr::ProcessStat;

    // Reads the boot time ("btime" of <root>/stat); throws std::runtime_error
    // when it cannot.
    explicit ProcFs(std::string root = "/proc");

    const std::string& Root() const { return m_root; }
    // Seconds since the epoch.
    uint64_t BootTime() const { return m_bootTime; }

    std::optional<Stat> ReadStat(pid_t pid) const;
    std::optional<Status> ReadStatus(pid_t pid) const;
    // Target of the exe link with a trailing " (deleted)" removed.
    std::optional<std::string> ReadImage(pid_t pid) const;
    std::vector<std::string> ReadArguments(pid_t pid) const;
    // Audit login uid; unset when the file is missing.
    uint32_t ReadLoginUid(pid_t pid) const;
    // Whether tid is a thread of the process tgid.
    bool HasTask(pid_t tgid, pid_t tid) const;

    // The process's creation time from its start ticks.
    TimePoint CreationTime(uint64_t startTicks) const;

private:
    std::string PidPath(pid_t pid, const char* entry) const;

    std::string m_root;
    uint64_t m_bootTime = 0;
    long m_ticksPerSecond = 100;
};

} // namespace vantor::audit
