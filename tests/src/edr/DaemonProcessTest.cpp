// Runs the real corvid-edr binary against an agent socket served by the test.
// Each test gets a private mount namespace with its own /run (for the fixed
// agent socket path) and its own /dev/log, so that the daemon's syslog lines
// can be read back exactly.

#include "util/Json.h"

#include <gtest/gtest.h>

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <poll.h>
#include <sched.h>
#include <sstream>
#include <string>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace std::chrono_literals;

namespace
{

constexpr const char* kAgentSocket = "/var/run/corvid/outpost/sock/agent_edr.sock";
constexpr const char* kDaemon = CORVID_BINARY_DIR "/corvid-edr";
constexpr const char* kOutpost = CORVID_BINARY_DIR "/corvid-outpost";

sockaddr_un Address(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}

std::string ReadText(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

bool Eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition())
    {
        if (std::chrono::steady_clock::now() > deadline)
        {
            return false;
        }
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

std::string Command(const char* command, const std::string& configFile = {})
{
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    writer.StartObject();
    writer.Key("command");
    writer.String(command);
    if (!configFile.empty())
    {
        writer.Key("config_file");
        writer.String(configFile.c_str());
    }
    writer.EndObject();
    return buffer.GetString();
}

// Parent pid of a process, from /proc/<pid>/stat (-1 when gone).
pid_t ParentOf(pid_t pid, std::string& comm)
{
    const std::string stat = ReadText("/proc/" + std::to_string(pid) + "/stat");
    const auto open = stat.find('(');
    const auto close = stat.rfind(')');
    if (open == std::string::npos || close == std::string::npos)
    {
        return -1;
    }
    comm = stat.substr(open + 1, close - open - 1);
    std::istringstream rest(stat.substr(close + 2));
    char state = 0;
    pid_t parent = -1;
    rest >> state >> parent;
    return parent;
}

class DaemonProcessTest : public testing::Test
{
protected:
    void SetUp() override
    {
        if (::geteuid() != 0)
        {
            GTEST_SKIP() << "needs root for mount namespaces";
        }
        ASSERT_TRUE(std::filesystem::exists(kDaemon)) << kDaemon;
        // The daemon detaches; as subreaper the test still collects its status.
        ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
        char pattern[] = "/tmp/corvid-daemon-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        m_dir = pattern;

        m_originalNamespace = ::open("/proc/self/ns/mnt", O_RDONLY | O_CLOEXEC);
        ASSERT_GE(m_originalNamespace, 0);
        if (::unshare(CLONE_NEWNS) != 0)
        {
            GTEST_SKIP() << "cannot create a mount namespace: " << std::strerror(errno);
        }
        ASSERT_EQ(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        ASSERT_EQ(::mount("tmpfs", "/run", "tmpfs", 0, "mode=755"), 0) << std::strerror(errno);
        std::filesystem::create_directories(std::filesystem::path(kAgentSocket).parent_path());
        MountPrivateDev();
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
        if (m_syslogFd >= 0)
        {
            ::close(m_syslogFd);
        }
        if (m_originalNamespace >= 0)
        {
            // Leaving the namespace drops its mounts with it.
            EXPECT_EQ(::setns(m_originalNamespace, CLONE_NEWNS), 0) << std::strerror(errno);
            ::close(m_originalNamespace);
        }
        if (!m_dir.empty())
        {
            std::filesystem::remove_all(m_dir);
        }
    }

    // A /dev with the few nodes the daemon opens and our own syslog socket.
    void MountPrivateDev()
    {
        const std::string dev = m_dir + "/dev";
        std::filesystem::create_directory(dev);
        ASSERT_EQ(::mount("tmpfs", dev.c_str(), "tmpfs", 0, "mode=755"), 0);
        for (const char* node : {"null", "zero", "random", "urandom", "full"})
        {
            const std::string target = dev + "/" + node;
            std::ofstream{target};
            ASSERT_EQ(
                ::mount((std::string("/dev/") + node).c_str(), target.c_str(), nullptr, MS_BIND, nullptr), 0);
        }
        std::filesystem::create_directory_symlink("/proc/self/fd", dev + "/fd");
        m_syslogFd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        const sockaddr_un address = Address(dev + "/log");
        ASSERT_EQ(::bind(m_syslogFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        ASSERT_EQ(::mount(dev.c_str(), "/dev", nullptr, MS_BIND | MS_REC, nullptr), 0)
            << std::strerror(errno);
    }

    // The shipped default configuration, pointed at this test's directory.
    void WriteConfiguration(const std::function<void(rapidjson::Document&)>& change = {})
    {
        rapidjson::Document config;
        ASSERT_TRUE(vantor::util::ParseJson(config, ReadText(CORVID_SOURCE_DIR "/config/corvid-edr.json")));
        auto& allocator = config.GetAllocator();
        m_logFile = m_dir + "/edr.log";
        m_logConfig = m_dir + "/logging.properties";
        config["common_config"]["log_config_file"].SetString(m_logConfig.c_str(), allocator);
        config["common_config"]["agent_install_path"].SetString(m_dir.c_str(), allocator);
        config["outpost_pid"].SetInt(::getpid());
        if (change)
        {
            change(config);
        }
        rapidjson::StringBuffer buffer;
        rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
        config.Accept(writer);
        m_configFile = m_dir + "/corvid-edr.json";
        std::ofstream(m_configFile) << buffer.GetString();

        std::string logging = ReadText(CORVID_SOURCE_DIR "/config/logging.properties");
        const std::string shippedPath = "/var/log/corvid/edr.log";
        logging.replace(logging.find(shippedPath), shippedPath.size(), m_logFile);
        const std::string info = "l1.level = information";
        logging.replace(logging.find(info), info.size(), "l1.level = debug");
        std::ofstream(m_logConfig) << logging;
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
        m_daemonPid = FindChild("corvid-edr");
        ASSERT_GT(m_daemonPid, 0);
    }

    static pid_t FindChild(const std::string& name)
    {
        std::unique_ptr<DIR, int (*)(DIR*)> proc(::opendir("/proc"), ::closedir);
        while (const dirent* entry = ::readdir(proc.get()))
        {
            const pid_t pid = std::atoi(entry->d_name);
            std::string comm;
            if (pid > 0 && ParentOf(pid, comm) == ::getpid() && comm == name)
            {
                return pid;
            }
        }
        return -1;
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
        Send(Command("config", m_configFile));
        ASSERT_TRUE(Eventually([&] { return LogContains("Setting the proxy environment variables"); }, 5s))
            << ReadText(m_logFile) << Syslog();
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

    // Every syslog line received so far, one per line.
    std::string Syslog()
    {
        char buffer[4096];
        ssize_t n = 0;
        while ((n = ::recv(m_syslogFd, buffer, sizeof buffer, 0)) > 0)
        {
            m_syslog.append(buffer, static_cast<size_t>(n)).append("\n");
        }
        return m_syslog;
    }

    bool SyslogContains(const std::string& text) { return Syslog().find(text) != std::string::npos; }
    bool LogContains(const std::string& text) const
    {
        return ReadText(m_logFile).find(text) != std::string::npos;
    }

    std::string m_dir;
    std::string m_configFile;
    std::string m_logFile;
    std::string m_logConfig;
    int m_originalNamespace = -1;
    int m_syslogFd = -1;
    int m_listenFd = -1;
    int m_agentFd = -1;
    pid_t m_daemonPid = 0;
    std::string m_syslog;
};

TEST_F(DaemonProcessTest, RunsOnValidConfigurationAndStopsOnExitCommand)
{
    StartRunningDaemon();
    std::this_thread::sleep_for(1500ms);
    EXPECT_TRUE(IsRunning());
    EXPECT_TRUE(SyslogContains("Waiting for configuration from the Corvid Agent process."));
    EXPECT_TRUE(LogContains("M_MMAP_THRESHOLD: 4MB"));

    Send(Command("fim_status"));
    ASSERT_TRUE(Eventually([&] { return LogContains("Command 'fim_status' received from agent"); }, 3s));
    Send(Command("exit"));
    EXPECT_EQ(WaitForExit(3s), 0);
    EXPECT_TRUE(LogContains("Command 'exit' received from agent."));
    EXPECT_TRUE(LogContains("UnixClientStreamSockIOChannel: Stopped."));
}

TEST_F(DaemonProcessTest, BadCommandsAreLoggedAndTheDaemonKeepsRunning)
{
    StartRunningDaemon();
    Send("{\"command\": \"exit\"");
    ASSERT_TRUE(Eventually([&] { return LogContains("Invalid json received from the agent."); }, 3s));
    Send(Command("reboot"));
    ASSERT_TRUE(Eventually(
        [&] { return LogContains("Invalid command found in json received from agent: reboot"); }, 3s));
    Send(Command("config", m_dir + "/missing.json"));
    ASSERT_TRUE(Eventually(
        [&] { return LogContains("Failed to read config file: " + m_dir + "/missing.json"); }, 3s));
    Send(Command("config", m_configFile));
    ASSERT_TRUE(Eventually([&] { return LogContains("Updating log level to debug"); }, 3s));
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
    EXPECT_TRUE(SyslogContains("IOChannel: Invalid data")) << Syslog();
    EXPECT_TRUE(SyslogContains("Error: The corvid-edr binary could not Initialize."));
}

TEST_F(DaemonProcessTest, FirstMessageMustBeConfig)
{
    Listen();
    StartDaemon();
    AcceptDaemon();
    Send(Command("exit"));
    EXPECT_EQ(WaitForExit(5s), 4);
    EXPECT_TRUE(SyslogContains("Invalid json received from the agent.")) << Syslog();
    EXPECT_TRUE(SyslogContains("Error: The corvid-edr binary could not Initialize."));
}

TEST_F(DaemonProcessTest, InvalidEdrConfigFailsStartUp)
{
    WriteConfiguration([](rapidjson::Document& config)
                       { config["edr_config"]["cpu_limit"].SetDouble(50.5); });
    Listen();
    StartDaemon();
    AcceptDaemon();
    Send(Command("config", m_configFile));
    EXPECT_EQ(WaitForExit(5s), 4);
    EXPECT_TRUE(SyslogContains("EDR::Config: Invalid json")) << Syslog();
}

TEST_F(DaemonProcessTest, InvalidLoggingConfigFailsStartUp)
{
    Listen();
    std::ofstream(m_logConfig, std::ios::app) << "logging.channels.c2.class = NoSuchChannel\n";
    StartDaemon();
    AcceptDaemon();
    Send(Command("config", m_configFile));
    EXPECT_EQ(WaitForExit(5s), 5);
    EXPECT_TRUE(SyslogContains("Error:corvid-edr:log config is invalid.")) << Syslog();
}

TEST_F(DaemonProcessTest, AgentGoingAwayEndsTheDaemonAfterReconnectTimeout)
{
    StartRunningDaemon();
    const auto closed = std::chrono::steady_clock::now();
    CloseAgent();
    ::close(m_listenFd);
    m_listenFd = -1;
    ::unlink(kAgentSocket);
    ASSERT_TRUE(Eventually([&] { return LogContains("Trying to reconnect... 2"); }, 4s));
    EXPECT_TRUE(IsRunning());
    EXPECT_EQ(WaitForExit(40s), 0);
    const auto elapsed = std::chrono::steady_clock::now() - closed;
    EXPECT_GT(elapsed, 28s);
    EXPECT_LT(elapsed, 36s);
    EXPECT_TRUE(LogContains("Trying to reconnect... 30"));
    EXPECT_FALSE(LogContains("Trying to reconnect... 31"));
    EXPECT_TRUE(LogContains("Failed to establish communication with the Corvid Agent process."));
}

TEST_F(DaemonProcessTest, StandInAgentStartsAndStopsTheDaemon)
{
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
    EXPECT_TRUE(LogContains("Command 'ioc_status' received from agent"));
    EXPECT_TRUE(LogContains("Command 'exit' received from agent."));
}

} // namespace
