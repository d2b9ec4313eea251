#include "tests/support/AgentProcess.h"

#include "tests/support/DaemonHarness.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vantor::test
{

using namespace std::chrono_literals;

AgentProcess::AgentProcess(const std::string& output, const std::string& socketPath)
    : m_output(output)
    , m_outputMark(ReadText(output).size())
{
    int go[2];
    int control[2];
    if (::pipe2(go, O_CLOEXEC) != 0 || ::pipe2(control, O_CLOEXEC) != 0)
    {
        ADD_FAILURE() << "pipe: " << std::strerror(errno);
        return;
    }
    m_pid = ::fork();
    if (m_pid == 0)
    {
        ::close(go[1]);
        ::close(control[1]);
        char c = 0;
        char configFile[4096] = {};
        const ssize_t n = ::read(go[0], configFile, sizeof configFile - 1);
        if (n <= 0 || ::read(go[0], &c, 1) != 0)
        {
            ::_exit(126);
        }
        ::dup2(control[0], STDIN_FILENO);
        const int out = ::open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        ::dup2(out, STDOUT_FILENO);
        ::dup2(out, STDERR_FILENO);
        if (socketPath.empty())
        {
            ::execl(DaemonHarness::kOutpost, DaemonHarness::kOutpost, "--config", configFile, "--start",
                    DaemonHarness::kDaemon, static_cast<char*>(nullptr));
        }
        ::execl(DaemonHarness::kOutpost, DaemonHarness::kOutpost, "--config", configFile, "--socket",
                socketPath.c_str(), "--start", DaemonHarness::kDaemon, static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ::close(go[0]);
    ::close(control[0]);
    m_go = go[1];
    m_control = control[1];
}

AgentProcess::~AgentProcess()
{
    if (m_go >= 0)
    {
        ::close(m_go);
    }
    if (m_control >= 0)
    {
        ::close(m_control);
    }
    StopChild(m_pid, 5s);
    // Left to us, its subreaper, if the agent went first.
    if (m_daemonPid > 0 && ::waitpid(m_daemonPid, nullptr, WNOHANG) == 0)
    {
        StopChild(m_daemonPid, 5s);
    }
}

void AgentProcess::Start(const std::string& configFile)
{
    ASSERT_EQ(::write(m_go, configFile.data(), configFile.size()), static_cast<ssize_t>(configFile.size()));
    ::close(m_go);
    m_go = -1;
}

pid_t AgentProcess::DaemonPid()
{
    const std::string marker = "corvid-outpost: daemon connected, pid ";
    Eventually([&] { return ReadText(m_output).find(marker, m_outputMark) != std::string::npos; }, 10s);
    const std::string text = ReadText(m_output);
    const auto at = text.find(marker, m_outputMark);
    if (at != std::string::npos)
    {
        m_daemonPid = std::atoi(text.c_str() + at + marker.size());
    }
    return m_daemonPid;
}

int AgentProcess::Exit()
{
    const std::string word = "exit\n";
    EXPECT_EQ(::write(m_control, word.data(), word.size()), static_cast<ssize_t>(word.size()));
    const int status = WaitForChild(m_pid, 15s);
    if (status >= 0)
    {
        m_pid = 0;
    }
    return status;
}

} // namespace vantor::test
