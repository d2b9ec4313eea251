// Indicators of compromise end to end: the real daemon, served by the test
// as its host agent, on the real kernel audit stream. The process and
// network rules of the IOC manifest become kernel rules under IOC's key
// while the daemon runs, the events they produce reach IOC's handler with
// their acting process, and bad manifests leave FIM and every spooled file
// alone.

#include "ioc/protobuf/IocEvents.pb.h"
#include "tests/src/audit/AuditKernelState.h"
#include "tests/support/AgentEndpoint.h"
#include "tests/support/DaemonHarness.h"

#include <gtest/gtest.h>

#include <rapidjson/document.h>

#include <arpa/inet.h>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vantor::ioc
{
namespace
{

using namespace std::chrono_literals;
using test::AgentCommand;
using test::DaemonHarness;
using test::Eventually;
using test::EventuallyWithTraffic;
using test::ReadText;
using test::RulesContaining;

const auto* const g_environment = testing::AddGlobalTestEnvironment(new test::AuditKernelStateEnvironment);

const std::string kGoodManifest = R"({"policyVersion": "2.0.0", "policyId": "e2e", "productId": "corvid-edr",
    "globalSettings": {}, "rules": [
    {"ruleId": "e2e-starts", "ruleType": "Process", "notify": ["start"]},
    {"ruleId": "e2e-connects", "ruleType": "Network", "notify": ["establish"],
     "inclusionFilters": [{"filterType": [{"objectType": "network", "protocol": "any",
                                           "remoteIPAddress": ["127\\.0\\.0\\.1"]}]}]}]})";

// Runs a program to its end; answers its pid. The test's own work is not
// audited: it stands for the host agent.
pid_t RunProgram(const char* path, const char* argument = nullptr)
{
    const pid_t pid = ::fork();
    if (pid == 0)
    {
        ::execl(path, path, argument, static_cast<char*>(nullptr));
        ::_exit(127);
    }
    int status = 0;
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << path;
    return pid;
}

// A child process that connects to a loopback listener and ends; answers
// its pid and the port.
pid_t ConnectOnLoopback(uint16_t& port)
{
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(listener, 1), 0);
    socklen_t length = sizeof address;
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    port = ntohs(address.sin_port);
    const pid_t pid = ::fork();
    if (pid == 0)
    {
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        ::_exit(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 ? 0 : 1);
    }
    int status = 0;
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "connect failed";
    ::close(listener);
    return pid;
}

class IocEndToEndProcessTest : public testing::Test
{
protected:
    void SetUp() override
    {
        if (const std::string skip = m_harness.EnterForCapture(); !skip.empty())
        {
            GTEST_SKIP() << skip;
        }
        ASSERT_FALSE(HasFatalFailure());
        m_state = test::AuditKernelState::Take();
        const std::string& dir = m_harness.Dir();
        m_watched = dir + "/watched";
        m_iocManifest = dir + "/ioc_manifest.json";
        m_iocSpool = dir + "/spool/ioc";
        m_fimSpool = dir + "/spool/fim";
        for (const auto& path : {m_watched, m_iocSpool, m_fimSpool})
        {
            std::filesystem::create_directories(path);
        }
        std::ofstream(dir + "/fim_manifest.json")
            << R"({"data": {"fim": {"policyVersion": "1.0", "rules": [{"ruleId": "e2e-fim", "ruleType": "directory",
                   "imagePath": ")"
            << m_watched << R"(", "recursiveDepth": "all", "notify": ["create"]}]}}})";
        m_harness.WriteConfiguration(
            [&](rapidjson::Document& config)
            {
                auto set = [&](rapidjson::Value& object, const char* key, const std::string& value)
                { test::SetString(config, object, key, value); };
                auto& fim = config["fim_config"];
                set(fim, "event_file_path", dir + "/spool/");
                set(fim, "manifest_path", dir + "/fim_manifest.json");
                set(fim, "service_url", "https://127.0.0.1:1/fim");
                fim["max_file_age_sec"].SetUint(1);
                auto& ioc = config["ioc_config"];
                set(ioc, "event_file_path", dir + "/spool/");
                set(ioc["manifests"][0], "manifest_path", m_iocManifest);
            });
    }

    void TearDown() override
    {
        if (m_agent.IsRunning())
        {
            m_agent.Send(AgentCommand("exit"));
            m_agent.WaitForExit(10s);
        }
        if (m_state)
        {
            EXPECT_TRUE(RulesContaining("key=IOC").empty()) << "the daemon left IOC's rules";
            m_state->Restore();
        }
    }

    void WriteIocManifest(const std::string& text) { std::ofstream(m_iocManifest, std::ios::trunc) << text; }

    void StartDaemon()
    {
        m_agent.Listen();
        m_agent.StartDaemon();
        m_agent.AcceptDaemon();
        m_agent.Send(AgentCommand("config", m_harness.ConfigFile()));
        ASSERT_TRUE(Eventually([&] { return m_harness.LogContains("Memory threshold: softLimit"); }, 10s))
            << m_harness.Log() << m_harness.Syslog();
    }

    void ExitDaemon()
    {
        m_agent.Send(AgentCommand("exit"));
        EXPECT_EQ(m_agent.WaitForExit(15s), 0) << m_harness.Log();
    }

    static std::string Rules(const std::string& key) { return testing::PrintToString(RulesContaining(key)); }

    // Declared first so that it goes last: the namespace is left once no
    // child of ours runs.
    DaemonHarness m_harness;
    test::AgentEndpoint m_agent;
    std::optional<test::AuditKernelState> m_state;
    std::string m_watched;
    std::string m_iocManifest;
    std::string m_iocSpool;
    std::string m_fimSpool;
};

TEST_F(IocEndToEndProcessTest, ProcessAndNetworkRulesLiveInTheKernelWhileTheDaemonRunsAndTheirEventsReachIoc)
{
    WriteIocManifest(kGoodManifest);
    ASSERT_NO_FATAL_FAILURE(StartDaemon());
    const auto rules = RulesContaining("key=IOC");
    ASSERT_EQ(rules.size(), 2u) << Rules("key=IOC");
    const auto has = [&](const std::string& text)
    {
        return std::any_of(rules.begin(), rules.end(),
                           [&](const auto& line) { return line.find(text) != std::string::npos; });
    };
    EXPECT_TRUE(has("-S execve")) << Rules("key=IOC");
    EXPECT_TRUE(has("connect")) << Rules("key=IOC");
    EXPECT_TRUE(has("accept")) << Rules("key=IOC");

    const pid_t started = RunProgram("/bin/true");
    uint16_t port = 0;
    const pid_t connected = ConnectOnLoopback(port);
    const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
    const std::string execve = "Execve event";
    // Both are first sightings of their executables, and their rules match:
    // the verdict chain reports them.
    const std::string startedBy = " of process " + std::to_string(started) + " (/usr/bin/true)";
    const std::string connectedBy = " of process " + std::to_string(connected) + " (" + self + ")";
    ASSERT_TRUE(EventuallyWithTraffic(
        [&] { return m_harness.LogContains(startedBy) && m_harness.LogContains(connectedBy); },
        [] { RunProgram("/bin/true"); }))
        << startedBy << "\n"
        << connectedBy << "\n"
        << m_harness.Log();
    const std::string log = m_harness.Log();
    const std::string reported = "Ioc::Component: Reported ";
    const auto startLine = log.rfind(reported, log.find(startedBy));
    EXPECT_EQ(log.substr(startLine + reported.size(), execve.size()), execve);
    const auto connectLine = log.rfind(reported, log.find(connectedBy));
    EXPECT_EQ(log.substr(connectLine + reported.size(), 13), "Connect event");

    ASSERT_NO_FATAL_FAILURE(ExitDaemon());
    EXPECT_TRUE(RulesContaining("key=IOC").empty()) << Rules("key=IOC");
    EXPECT_TRUE(m_harness.LogContains("Ioc component destroyed."));
}

} // namespace
} // namespace vantor::ioc
