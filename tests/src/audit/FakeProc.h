#pragma once

#include "tests/support/TempDir.h"

#include <filesystem>
#include <string>
#include <sys/types.h>
#include <unistd.h>
#include <vector>

namespace vantor::test
{

// A directory laid out like /proc for the processes a test describes.
class FakeProc
{
public:
    static constexpr uint64_t kBootTime = 1700000000;

    FakeProc()
    {
        m_dir.Write("stat", "cpu  1 2 3 4\nintr 0\nbtime " + std::to_string(kBootTime) + "\nprocesses 9\n");
    }

    const std::string& Root() const { return m_dir.Path(); }

    // Describes (or replaces) a process; tgid defaults to pid.
    void AddProcess(pid_t pid, pid_t ppid, const std::string& exe, uint64_t startTicks,
                    const std::vector<std::string>& arguments = {}, pid_t tgid = 0)
    {
        const std::string dir = std::to_string(pid);
        std::filesystem::create_directories(m_dir.File(dir));
        const std::string name = exe.substr(exe.rfind('/') + 1).substr(0, 15);
        std::string stat = dir + " (" + name + ") S " + std::to_string(ppid);
        for (int field = 5; field <= 21; ++field)
        {
            stat += " 0";
        }
        m_dir.Write(dir + "/stat", stat + " " + std::to_string(startTicks) + " 0 0\n");
        m_dir.Write(dir + "/status", "Name:\t" + name + "\nTgid:\t" + std::to_string(tgid ? tgid : pid) +
                                         "\nPPid:\t" + std::to_string(ppid) +
                                         "\nUid:\t1000\t1001\t1000\t1000\n");
        std::string cmdline;
        for (const auto& argument : arguments)
        {
            cmdline += argument + '\0';
        }
        m_dir.Write(dir + "/cmdline", cmdline);
        m_dir.Write(dir + "/loginuid", "1000");
        const std::string link = m_dir.File(dir + "/exe");
        std::filesystem::remove(link);
        std::filesystem::create_symlink(exe, link);
    }

    void RemoveProcess(pid_t pid) { std::filesystem::remove_all(m_dir.File(std::to_string(pid))); }

private:
    TempDir m_dir;
};

} // namespace vantor::test
