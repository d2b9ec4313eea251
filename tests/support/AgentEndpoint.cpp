#include "tests/support/AgentEndpoint.h"

#include "tests/support/DaemonHarness.h"

#include <gtest/gtest.h>

#include <csignal>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vantor::test
{

AgentEndpoint::~AgentEndpoint()
{
    if (m_daemonPid > 0 && ::kill(m_daemonPid, 0) == 0)
    {
        ::kill(m_daemonPid, SIGKILL);
        ::waitpid(m_daemonPid, nullptr, 0);
    }
    Close();
    StopListening();
}

void AgentEndpoint::Listen()
{
    m_listenFd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string(DaemonHarness::kAgentSocket).copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(::bind(m_listenFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(::listen(m_listenFd, 1), 0);
}

void AgentEndpoint::StartDaemon()
{
    const pid_t launcher = ::fork();
    ASSERT_GE(launcher, 0);
    if (launcher == 0)
    {
        ::execl(DaemonHarness::kDaemon, DaemonHarness::kDaemon, static_cast<char*>(nullptr));
        ::_exit(127);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(launcher, &status, 0), launcher);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "daemon() failed: " << status;
    m_daemonPid = FindChild("corvid-edr");
    ASSERT_GT(m_daemonPid, 0);
}

void AgentEndpoint::AcceptDaemon()
{
    pollfd fd{m_listenFd, POLLIN, 0};
    ASSERT_EQ(::poll(&fd, 1, 5000), 1) << "the daemon did not connect";
    m_agentFd = ::accept4(m_listenFd, nullptr, nullptr, SOCK_CLOEXEC);
    ASSERT_GE(m_agentFd, 0);
    ucred peer{};
    socklen_t length = sizeof(peer);
    ASSERT_EQ(::getsockopt(m_agentFd, SOL_SOCKET, SO_PEERCRED, &peer, &length), 0);
    EXPECT_EQ(peer.pid, m_daemonPid);
}

void AgentEndpoint::Send(const std::string& text)
{
    ASSERT_EQ(::send(m_agentFd, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
}

void AgentEndpoint::Close()
{
    if (m_agentFd >= 0)
    {
        ::close(m_agentFd);
        m_agentFd = -1;
    }
}

void AgentEndpoint::StopListening()
{
    if (m_listenFd >= 0)
    {
        ::close(m_listenFd);
        m_listenFd = -1;
        ::unlink(DaemonHarness::kAgentSocket);
    }
}

int AgentEndpoint::WaitForExit(std::chrono::milliseconds timeout)
{
    int status = 0;
    if (!Eventually([&] { return ::waitpid(m_daemonPid, &status, WNOHANG) == m_daemonPid; }, timeout))
    {
        return -1;
    }
    m_daemonPid = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool AgentEndpoint::IsRunning() const
{
    return m_daemonPid > 0 && ::waitpid(m_daemonPid, nullptr, WNOHANG) == 0;
}

} // namespace vantor::test
