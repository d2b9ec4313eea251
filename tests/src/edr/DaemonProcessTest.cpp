// Runs the real corvid-edr binary against an agent socket served by the test.
// Each test gets a private mount namespace with its own /run (for the fixed
// agent socket path) and its own /dev/log, so that the daemon's syslog lines
// can be read back exactly.

#include "tests/support/DaemonHarness.h"

#include <gtest/gtest.h>

#include <rapidjson/document.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace std::chrono_literals;
using vantor::test::AgentCommand;
using vantor::test::DaemonHarness;
using vantor::test::Eventually;

namespace
{

constexpr const char* kAgentSocket = DaemonHarness::kAgentSocket;
constexpr const char* kDaemon = DaemonHarness::kDaemon;
constexpr const char* kOutpost = DaemonHarness::kOutpost;

sockaddr_un Address(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}

// A running daemon installs audit rules and loads the magic database; the
// start-up failures are tested anywhere.
#define SKIP_WITHOUT_CAPTURE()                                                                               \
    if (const std::string problem = vantor::test::DaemonHarness::CaptureProblem(); !problem.empty())         \
    GTEST_SKIP() << problem

class DaemonProcessTest : public testing::Test
{
protected:
    void SetUp() override
    {
        const std::string skip = m_harness.Enter();
        if (!skip.empty())
        {
            GTEST_SKIP() << skip;
        }
        m_dir = m_harness.Dir();
        ASSERT_NO_FATAL_FAILURE(m_harness.MountPrivateDev());
        WriteConfiguration();
    }

    void TearDown() override
    {
        if (m_daemonPid > 0 && ::kill(m_daemonPid, 0) == 0)
        {
            ::kill(m_daemonPid, SIGKILL);
            ::waitpid(m_daemonPid, nullptr, 0);
        }
        CloseAgent();
        if (m_listenFd >= 0)
        {
            ::close(m_listenFd);
        }
    }

    void WriteConfiguration(const std::function<void(rapidjson::Document&)>& change = {})
    {
        m_harness.WriteConfiguration(change);
        m_configFile = m_harness.ConfigFile();
        m_logConfig = m_harness.LogConfig();
    }

    void Listen()
    {
        m_listenFd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_un address = Address(kAgentSocket);
        ASSERT_EQ(::bind(m_listenFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        ASSERT_EQ(::listen(m_listenFd, 1), 0);
    }

    // Starts the daemon; answers once its launcher has returned.
    void StartDaemon()
    {
        const pid_t launcher = ::fork();
        ASSERT_GE(launcher, 0);
        if (launcher == 0)
        {
            ::execl(kDaemon, kDaemon, static_cast<char*>(nullptr));
            ::_exit(127);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(launcher, &status, 0), launcher);
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "daemon() failed: " << status;
        // The detached daemon is now our child.
        m_daemonPid = vantor::test::FindChild("corvid-edr");
        ASSERT_GT(m_daemonPid, 0);
    }

    // Accepts the daemon's connection and checks it is the process we started.
    void AcceptDaemon()
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

    void Send(const std::string& text)
    {
        ASSERT_EQ(::send(m_agentFd, text.data(), text.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(text.size()));
    }

    void CloseAgent()
    {
        if (m_agentFd >= 0)
        {
            ::close(m_agentFd);
            m_agentFd = -1;
        }
    }

    // Starts a daemon with a valid configuration and waits for its main loop.
    void StartRunningDaemon()
    {
        Listen();
        StartDaemon();
        AcceptDaemon();
        Send(AgentCommand("config", m_configFile));
        ASSERT_TRUE(
            Eventually([&] { return m_harness.LogContains("Setting the proxy environment variables"); }, 5s))
            << m_harness.Log() << m_harness.Syslog();
    }

    // The exit status of the daemon, or -1 if it is still running after timeout.
    int WaitForExit(std::chrono::milliseconds timeout)
    {
        int status = 0;
        const bool exited =
            Eventually([&] { return ::waitpid(m_daemonPid, &status, WNOHANG) == m_daemonPid; }, timeout);
        if (!exited)
        {
            return -1;
        }
        m_daemonPid = 0;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    bool IsRunning() const { return m_daemonPid > 0 && ::waitpid(m_daemonPid, nullptr, WNOHANG) == 0; }

    DaemonHarness m_harness;
    std::string m_dir;
    std::string m_configFile;
    std::string m_logConfig;
    int m_listenFd = -1;
    int m_agentFd = -1;
    pid_t m_daemonPid = 0;
};

TEST_F(DaemonProcessTest, RunsOnValidConfigurationAndStopsOnExitCommand)
{
    SKIP_WITHOUT_CAPTURE();
    StartRunningDaemon();
    std::this_thread::sleep_for(1500ms);
    EXPECT_TRUE(IsRunning());
    EXPECT_TRUE(m_harness.SyslogContains("Waiting for configuration from the Corvid Agent process."));
    EXPECT_TRUE(m_harness.LogContains("M_MMAP_THRESHOLD: 4MB"));

    Send(AgentCommand("fim_status"));
    ASSERT_TRUE(
        Eventually([&] { return m_harness.LogContains("Command 'fim_status' received from agent"); }, 3s));
    Send(AgentCommand("exit"));
    EXPECT_EQ(WaitForExit(3s), 0);
    EXPECT_TRUE(m_harness.LogContains("Command 'exit' received from agent."));
    EXPECT_TRUE(m_harness.LogContains("UnixClientStreamSockIOChannel: Stopped."));
}

TEST_F(DaemonProcessTest, BadCommandsAreLoggedAndTheDaemonKeepsRunning)
{
    SKIP_WITHOUT_CAPTURE();
    StartRunningDaemon();
    Send("{\"command\": \"exit\"");
    ASSERT_TRUE(
        Eventually([&] { return m_harness.LogContains("Invalid json received from the agent."); }, 3s));
    Send(AgentCommand("reboot"));
    ASSERT_TRUE(Eventually(
        [&] { return m_harness.LogContains("Invalid command found in json received from agent: reboot"); },
        3s));
    Send(AgentCommand("config", m_dir + "/missing.json"));
    ASSERT_TRUE(Eventually(
        [&] { return m_harness.LogContains("Failed to read config file: " + m_dir + "/missing.json"); }, 3s));
    Send(AgentCommand("config", m_configFile));
    ASSERT_TRUE(Eventually([&] { return m_harness.LogContains("Updating log level to debug"); }, 3s));
    EXPECT_TRUE(IsRunning());
    ::kill(m_daemonPid, SIGTERM);
    EXPECT_EQ(WaitForExit(3s), 0);
}

class DaemonSignalProcessTest : public DaemonProcessTest, public testing::WithParamInterface<int>
{
};

TEST_P(DaemonSignalProcessTest, TerminationSignalEndsTheMainLoopButHangupDoesNot)
{
    StartRunningDaemon();
    ::kill(m_daemonPid, SIGHUP);
    std::this_thread::sleep_for(1200ms);
    ASSERT_TRUE(IsRunning()) << "SIGHUP ended the daemon";

    const auto sent = std::chrono::steady_clock::now();
    ::kill(m_daemonPid, GetParam());
    EXPECT_EQ(WaitForExit(3s), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - sent, 2500ms);
}

INSTANTIATE_TEST_SUITE_P(Signals, DaemonSignalProcessTest, testing::Values(SIGTERM, SIGINT));

TEST_F(DaemonProcessTest, MissingAgentSocketFailsStartUp)
{
    StartDaemon();
    EXPECT_EQ(WaitForExit(5s), 4);
    EXPECT_TRUE(m_harness.SyslogContains("IOChannel: Invalid data")) << m_harness.Syslog();
    EXPECT_TRUE(m_harness.SyslogContains("Error: The corvid-edr binary could not Initialize."));
}

TEST_F(DaemonProcessTest, FirstMessageMustBeConfig)
{
    Listen();
    StartDaemon();
    AcceptDaemon();
    Send(AgentCommand("exit"));
    EXPECT_EQ(WaitForExit(5s), 4);
    EXPECT_TRUE(m_harness.SyslogContains("Invalid json received from the agent.")) << m_harness.Syslog();
    EXPECT_TRUE(m_harness.SyslogContains("Error: The corvid-edr binary could not Initialize."));
}

TEST_F(DaemonProcessTest, InvalidEdrConfigFailsStartUp)
{
    WriteConfiguration([](rapidjson::Document& config)
                       { config["edr_config"]["cpu_limit"].SetDouble(50.5); });
    Listen();
    StartDaemon();
    AcceptDaemon();
    Send(AgentCommand("config", m_configFile));
    EXPECT_EQ(WaitForExit(5s), 4);
    EXPECT_TRUE(m_harness.SyslogContains("EDR::Config: Invalid json")) << m_harness.Syslog();
}

TEST_F(DaemonProcessTest, InvalidLoggingConfigFailsStartUp)
{
    Listen();
    std::ofstream(m_logConfig, std::ios::app) << "logging.channels.c2.class = NoSuchChannel\n";
    StartDaemon();
    AcceptDaemon();
    Send(AgentCommand("config", m_configFile));
    EXPECT_EQ(WaitForExit(5s), 5);
    EXPECT_TRUE(m_harness.SyslogContains("Error:corvid-edr:log config is invalid.")) << m_harness.Syslog();
}

TEST_F(DaemonProcessTest, AgentGoingAwayEndsTheDaemonAfterReconnectTimeout)
{
    SKIP_WITHOUT_CAPTURE();
    StartRunningDaemon();
    const auto closed = std::chrono::steady_clock::now();
    CloseAgent();
    ::close(m_listenFd);
    m_listenFd = -1;
    ::unlink(kAgentSocket);
    ASSERT_TRUE(Eventually([&] { return m_harness.LogContains("Trying to reconnect... 2"); }, 4s));
    EXPECT_TRUE(IsRunning());
    EXPECT_EQ(WaitForExit(40s), 0);
    const auto elapsed = std::chrono::steady_clock::now() - closed;
    EXPECT_GT(elapsed, 28s);
    EXPECT_LT(elapsed, 36s);
    EXPECT_TRUE(m_harness.LogContains("Trying to reconnect... 30"));
    EXPECT_FALSE(m_harness.LogContains("Trying to reconnect... 31"));
    EXPECT_TRUE(m_harness.LogContains("Failed to establish communication with the Corvid Agent process."));
}

TEST_F(DaemonProcessTest, StandInAgentStartsAndStopsTheDaemon)
{
    SKIP_WITHOUT_CAPTURE();
    ASSERT_TRUE(std::filesystem::exists(kOutpost)) << kOutpost;
    int out[2];
    ASSERT_EQ(::pipe2(out, O_CLOEXEC), 0);
    const pid_t tool = ::fork();
    ASSERT_GE(tool, 0);
    if (tool == 0)
    {
        ::dup2(out[1], STDOUT_FILENO);
        const int devNull = ::open("/dev/null", O_RDONLY);
        ::dup2(devNull, STDIN_FILENO);
        ::execl(kOutpost, kOutpost, "--config", m_configFile.c_str(), "--start", kDaemon, "--then",
                "ioc_status", "--after", "1.5", "--then", "exit", "--after", "0.5",
                static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ::close(out[1]);
    std::string output;
    char buffer[512];
    ssize_t n = 0;
    while ((n = ::read(out[0], buffer, sizeof buffer)) > 0)
    {
        output.append(buffer, static_cast<size_t>(n));
    }
    ::close(out[0]);
    int status = 0;
    ASSERT_EQ(::waitpid(tool, &status, 0), tool);
    ASSERT_TRUE(WIFEXITED(status)) << output;
    EXPECT_EQ(WEXITSTATUS(status), 0) << output;

    const auto connected = output.find("corvid-outpost: daemon connected, pid ");
    ASSERT_NE(connected, std::string::npos) << output;
    const std::string pid = output.substr(connected + 38, output.find('\n', connected) - connected - 38);
    EXPECT_NE(output.find("\"command\":\"config\",\"config_file\":\"" + m_configFile + "\""),
              std::string::npos);
    EXPECT_NE(output.find("corvid-outpost: daemon disconnected"), std::string::npos) << output;
    EXPECT_NE(output.find("corvid-outpost: process " + pid + " exited with status 0"), std::string::npos)
        << output;
    EXPECT_TRUE(m_harness.LogContains("Command 'ioc_status' received from agent"));
    EXPECT_TRUE(m_harness.LogContains("Command 'exit' received from agent."));
}

} // namespace
