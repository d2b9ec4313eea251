#pragma once

#include "tests/support/TempDir.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace vantor::ioc::test
{

// A directory that stands in for /proc: the boot time and, per pid, a stat
// file with the parent, the state and the start ticks. Start times are then
// bootTime * 1000 + ticks * 1000 / CLK_TCK milliseconds.
class FakeProc
{
public:
    explicit FakeProc(int64_t bootTime = 1700000000) { SetBootTime(bootTime); }

    const std::string& Root() const { return m_dir.Path(); }

    void SetBootTime(int64_t bootTime)
    {
        m_bootTime = bootTime;
        std::ofstream(m_dir.File("stat")) << "cpu  1 2 3\nbtime " << bootTime << "\nprocesses 9\n";
    }

    void Run(pid_t pid, pid_t parentPid, uint64_t startTicks, const std::string& name = "proc")
    {
        std::filesystem::create_directories(m_dir.File(std::to_string(pid)));
        std::ofstream(m_dir.File(std::to_string(pid) + "/stat"))
            << pid << " (" << name << ") S " << parentPid << " 1 1 0 -1 4194304 0 0 0 0 0 0 0 0 20 0 1 0 "
            << startTicks << " 0 0\n";
    }

    void Exit(pid_t pid) { std::filesystem::remove_all(m_dir.File(std::to_string(pid))); }

    int64_t StartTime(uint64_t startTicks) const
    {
        return m_bootTime * 1000 + static_cast<int64_t>(startTicks * 1000 / sysconf(_SC_CLK_TCK));
    }

private:
    vantor::test::TempDir m_dir;
    int64_t m_bootTime = 0;
};

} // namespace vantor::ioc::test
