// The real binary against an agent socket served by the test, in a private
// mount namespace with its own /run and /dev/log.

#include "tests/support/AgentEndpoint.h"
#include "tests/support/DaemonHarness.h"

#include <gtest/gtest.h>

#include <rapidjson/document.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

using namespace std::chrono_literals;
using vantor::test::AgentCommand;
using vantor::test::DaemonHarness;
using vantor::test::Eventually;

namespace
{

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
        ASSERT_NO_FATAL_FAILURE(m_harness.MountPrivateDev());
        m_harness.WriteConfiguration();
    }

    // Starts a daemon with a valid configuration and waits for its main loop.
    void StartRunningDaemon()
    {
        m_agent.Listen();
        m_agent.StartDaemon();
        m_agent.AcceptDaemon();
        m_agent.Send(AgentCommand("config", m_harness.ConfigFile()));
        ASSERT_TRUE(
            Eventually([&] { return m_harness.LogContains("Setting the proxy environment variables"); }, 5s))
            << m_harness.Log() << m_harness.Syslog();
    }

    // Starts a daemon that must fail its start on the first message with
    // status, syslogText logged; then the agent's end is closed again.
    void ExpectStartUpFailure(const std::string& first, int status, const char* syslogText)
    {
        m_agent.Listen();
        m_agent.StartDaemon();
        m_agent.AcceptDaemon();
        m_agent.Send(first);
        ASSERT_EQ(m_agent.WaitForExit(5s), status) << syslogText;
        EXPECT_TRUE(m_harness.SyslogContains(syslogText)) << m_harness.Syslog();
        m_agent.Close();
        m_agent.StopListening();
    }

    DaemonHarness m_harness;
    vantor::test::AgentEndpoint m_agent;
};

// Bad commands are logged and the daemon goes on; SIGTERM's clean end is
// DaemonSignalProcessTest's.
TEST_F(DaemonProcessTest, RunsOnValidConfigurationSurvivesBadCommandsAndStopsOnExitCommand)
{
    SKIP_WITHOUT_CAPTURE();
    StartRunningDaemon();
    std::this_thread::sleep_for(1500ms);
    EXPECT_TRUE(m_agent.IsRunning());
    EXPECT_TRUE(m_harness.SyslogContains("Waiting for configuration from the Corvid Agent process."));
    EXPECT_TRUE(m_harness.LogContains("M_MMAP_THRESHOLD: 4MB"));

    m_agent.Send("{\"command\": \"exit\"");
    ASSERT_TRUE(
        Eventually([&] { return m_harness.LogContains("Invalid json received from the agent."); }, 3s));
    m_agent.Send(AgentCommand("reboot"));
    ASSERT_TRUE(Eventually(
        [&] { return m_harness.LogContains("Invalid command found in json received from agent: reboot"); },
        3s));
    const std::string missing = m_harness.Dir() + "/missing.json";
    m_agent.Send(AgentCommand("config", missing));
    ASSERT_TRUE(
        Eventually([&] { return m_harness.LogContains("Failed to read config file: " + missing); }, 3s));
    m_agent.Send(AgentCommand("config", m_harness.ConfigFile()));
    ASSERT_TRUE(Eventually([&] { return m_harness.LogContains("Updating log level to debug"); }, 3s));
    EXPECT_TRUE(m_agent.IsRunning());

    m_agent.Send(AgentCommand("fim_status"));
    ASSERT_TRUE(
        Eventually([&] { return m_harness.LogContains("Command 'fim_status' received from agent"); }, 3s));
    m_agent.Send(AgentCommand("exit"));
    EXPECT_EQ(m_agent.WaitForExit(3s), 0);
    EXPECT_TRUE(m_harness.LogContains("Command 'exit' received from agent."));
    EXPECT_TRUE(m_harness.LogContains("UnixClientStreamSockIOChannel: Stopped."));
}

class DaemonSignalProcessTest : public DaemonProcessTest, public testing::WithParamInterface<int>
{
};

TEST_P(DaemonSignalProcessTest, TerminationSignalEndsTheMainLoopButHangupDoesNot)
{
    StartRunningDaemon();
    ::kill(m_agent.DaemonPid(), SIGHUP);
    std::this_thread::sleep_for(1200ms);
    ASSERT_TRUE(m_agent.IsRunning()) << "SIGHUP ended the daemon";

    const auto sent = std::chrono::steady_clock::now();
    ::kill(m_agent.DaemonPid(), GetParam());
    EXPECT_EQ(m_agent.WaitForExit(3s), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - sent, 2500ms);
}

INSTANTIATE_TEST_SUITE_P(Signals, DaemonSignalProcessTest, testing::Values(SIGTERM, SIGINT));

TEST_F(DaemonProcessTest, StartUpFailsWithoutAnAgentOrWhenTheFirstMessageIsNoValidConfiguration)
{
    m_agent.StartDaemon();
    ASSERT_EQ(m_agent.WaitForExit(5s), 4);
    EXPECT_TRUE(m_harness.SyslogContains("IOChannel: Invalid data")) << m_harness.Syslog();
    EXPECT_TRUE(m_harness.SyslogContains("Error: The corvid-edr binary could not Initialize."));

    ASSERT_NO_FATAL_FAILURE(
        ExpectStartUpFailure(AgentCommand("exit"), 4, "Invalid json received from the agent."));
    const std::string config = AgentCommand("config", m_harness.ConfigFile());
    m_harness.WriteConfiguration([](rapidjson::Document& config)
                                 { config["edr_config"]["cpu_limit"].SetDouble(50.5); });
    ASSERT_NO_FATAL_FAILURE(ExpectStartUpFailure(config, 4, "EDR::Config: Invalid json"));
    m_harness.WriteConfiguration();
    std::ofstream(m_harness.LogConfig(), std::ios::app) << "logging.channels.c2.class = NoSuchChannel\n";
    ExpectStartUpFailure(config, 5, "Error:corvid-edr:log config is invalid.");
}

TEST_F(DaemonProcessTest, AgentGoingAwayEndsTheDaemonAfterReconnectTimeout)
{
    SKIP_WITHOUT_CAPTURE();
    StartRunningDaemon();
    const auto closed = std::chrono::steady_clock::now();
    m_agent.Close();
    m_agent.StopListening();
    ASSERT_TRUE(Eventually([&] { return m_harness.LogContains("Trying to reconnect... 2"); }, 4s));
    EXPECT_TRUE(m_agent.IsRunning());
    EXPECT_EQ(m_agent.WaitForExit(40s), 0);
    const auto elapsed = std::chrono::steady_clock::now() - closed;
    EXPECT_GT(elapsed, 28s);
    EXPECT_LT(elapsed, 36s);
    EXPECT_TRUE(m_harness.LogContains("Trying to reconnect... 30"));
    EXPECT_FALSE(m_harness.LogContains("Trying to reconnect... 31"));
    EXPECT_TRUE(m_harness.LogContains("Failed to establish communication with the Corvid Agent process."));
}

} // namespace
