#pragma once

#include "edr/ProcessStat.h"

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace vantor::ioc::internal
{

// Reads what the IOC process memory needs from a proc file system. The root
// is a parameter so that a prepared directory can stand in for /proc (a
// reboot or a reused pid are then a matter of writing files).
//
// Every read answers nothing (and logs why) when the file is missing or
// malformed; nothing throws. Thread-safe; the only state besides the root is
// the boot time that start times use, read again after a second.
class ProcReader
{
public:
    using Stat = edr::ProcessStat;
    struct Ids
    {
        int64_t uid = 0;
        int64_t euid = 0;
        int64_t gid = 0;
    };

    explicit ProcReader(std::string root = "/proc");

    const std::string& Root() const { return m_root; }

    // The host's boot time in seconds since the epoch ("btime" of <root>/stat).
    // Logs "Failed to find bootTime: " or "Failed to parse bootTime: ".
    std::optional<int64_t> BootTime() const;
    std::optional<Stat> ReadStat(pid_t pid) const;
    // The process's start time in milliseconds since the epoch; nothing when
    // the process does not run. Logs "Read process start time as " at debug
    // level, "Failed to parse startTime: " on a malformed stat.
    std::optional<int64_t> StartTime(pid_t pid) const;
    // As StartTime, from a stat already read.
    std::optional<int64_t> StartTimeOf(const Stat& stat) const;

    // The exe link ("Failed to get real file path: " on error), without a
    // trailing " (deleted)".
    std::optional<std::string> ReadImage(pid_t pid) const;
    std::optional<std::vector<std::string>> ReadArguments(pid_t pid) const;
    std::optional<std::string> ReadCwd(pid_t pid) const;
    // Real and effective uid and the real gid of the "Uid:" and "Gid:" lines.
    std::optional<Ids> ReadIds(pid_t pid) const;
    std::optional<int64_t> ReadLoginUid(pid_t pid) const;
    // The files mapped from the process's memory map that are shared
    // libraries, in map order, each once.
    std::optional<std::vector<std::string>> ReadLibraries(pid_t pid) const;

private:
    std::string PidPath(pid_t pid, const char* entry) const;
    std::optional<std::string> ReadLink(const std::string& path) const;

    // The boot time, read at most once a second: start times are needed at
    // every process start, and the kernel writes all of <root>/stat for it.
    // It moves only with a step of the wall clock.
    std::optional<int64_t> RecentBootTime() const;

    std::string m_root;
    long m_ticksPerSecond;
    mutable std::mutex m_bootMutex;
    mutable std::optional<int64_t> m_bootTime;
    mutable std::chrono::steady_clock::time_point m_bootTimeReadAt;
};

} // namespace vantor::ioc::internal
