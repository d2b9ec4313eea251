#include "tests/support/DaemonHarness.h"

#include "tests/src/audit/AuditKernelState.h"

#include "common/util/Json.h"

#include <gtest/gtest.h>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sched.h>
#include <sstream>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace vantor::test
{

namespace
{

sockaddr_un Address(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}

} // namespace

std::string ReadText(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string AgentCommand(const char* command, const std::string& configFile)
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

pid_t FindChild(const std::string& name)
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

DaemonHarness::~DaemonHarness()
{
    m_syslogFd.Reset();
    if (m_originalNamespace)
    {
        // Leaving the namespace drops its mounts with it.
        EXPECT_EQ(::setns(m_originalNamespace.Get(), CLONE_NEWNS), 0) << std::strerror(errno);
        m_originalNamespace.Reset();
    }
    if (!m_dir.empty())
    {
        std::error_code ec;
        std::filesystem::remove_all(m_dir, ec);
    }
}

std::string DaemonHarness::CaptureProblem()
{
    std::string problem = UsabilityProblem();
    if (!problem.empty())
    {
        return problem;
    }
    if (StatusValue("enabled") == 2)
    {
        return "audit configuration is locked";
    }
    if (!std::filesystem::exists(kMagicDatabase))
    {
        return std::string("no magic database at ") + kMagicDatabase + " (make magic-db)";
    }
    return {};
}

std::string DaemonHarness::Enter()
{
    if (::geteuid() != 0)
    {
        return "needs root for mount namespaces";
    }
    if (!std::filesystem::exists(kDaemon))
    {
        ADD_FAILURE() << kDaemon << " is not built";
        return "no daemon binary";
    }
    if (::prctl(PR_SET_CHILD_SUBREAPER, 1) != 0)
    {
        ADD_FAILURE() << "PR_SET_CHILD_SUBREAPER: " << std::strerror(errno);
        return "cannot become subreaper";
    }
    char pattern[] = "/tmp/corvid-daemon-XXXXXX";
    if (::mkdtemp(pattern) == nullptr)
    {
        ADD_FAILURE() << "mkdtemp: " << std::strerror(errno);
        return "no directory";
    }
    m_dir = pattern;

    m_originalNamespace.Reset(::open("/proc/self/ns/mnt", O_RDONLY | O_CLOEXEC));
    if (!m_originalNamespace)
    {
        ADD_FAILURE() << "/proc/self/ns/mnt: " << std::strerror(errno);
        return "no mount namespace";
    }
    if (::unshare(CLONE_NEWNS) != 0)
    {
        const int error = errno;
        m_originalNamespace.Reset();
        return std::string("cannot create a mount namespace: ") + std::strerror(error);
    }
    EXPECT_EQ(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0) << std::strerror(errno);
    EXPECT_EQ(::mount("tmpfs", "/run", "tmpfs", 0, "mode=755"), 0) << std::strerror(errno);
    std::filesystem::create_directories(std::filesystem::path(kAgentSocket).parent_path());
    return {};
}

void SetString(rapidjson::Document& config, rapidjson::Value& object, const char* key,
               const std::string& value)
{
    object[key].SetString(value.c_str(), static_cast<rapidjson::SizeType>(value.size()),
                          config.GetAllocator());
}

std::string DaemonHarness::EnterForCapture()
{
    if (std::string problem = CaptureProblem(); !problem.empty())
    {
        return problem;
    }
    if (std::string skip = Enter(); !skip.empty())
    {
        return skip;
    }
    MountPrivateDev();
    return {};
}

void DaemonHarness::MountPrivateDev()
{
    const std::string dev = m_dir + "/dev";
    std::filesystem::create_directory(dev);
    ASSERT_EQ(::mount("tmpfs", dev.c_str(), "tmpfs", 0, "mode=755"), 0);
    for (const char* node : {"null", "zero", "random", "urandom", "full"})
    {
        const std::string target = dev + "/" + node;
        std::ofstream{target};
        ASSERT_EQ(::mount((std::string("/dev/") + node).c_str(), target.c_str(), nullptr, MS_BIND, nullptr),
                  0);
    }
    std::filesystem::create_directory_symlink("/proc/self/fd", dev + "/fd");
    m_syslogFd.Reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_un address = Address(dev + "/log");
    ASSERT_EQ(::bind(m_syslogFd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(::mount(dev.c_str(), "/dev", nullptr, MS_BIND | MS_REC, nullptr), 0) << std::strerror(errno);
}

void DaemonHarness::WriteConfiguration(const std::function<void(rapidjson::Document&)>& change,
                                       const std::string& logFile)
{
    rapidjson::Document config;
    ASSERT_TRUE(util::ParseJson(config, ReadText(CORVID_SOURCE_DIR "/config/corvid-edr.json")));
    auto& allocator = config.GetAllocator();
    m_logFile = logFile.empty() ? m_dir + "/edr.log" : logFile;
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

bool DaemonHarness::LogContains(const std::string& text) const
{
    if (Log().find(text) != std::string::npos)
    {
        return true;
    }
    // A flood logged at debug level rotates the log: the archives count too.
    for (int archive = 0; std::filesystem::exists(m_logFile + "." + std::to_string(archive)); ++archive)
    {
        if (ReadText(m_logFile + "." + std::to_string(archive)).find(text) != std::string::npos)
        {
            return true;
        }
    }
    return false;
}

std::string DaemonHarness::Syslog()
{
    char buffer[4096];
    ssize_t n = 0;
    while (m_syslogFd && (n = ::recv(m_syslogFd.Get(), buffer, sizeof buffer, 0)) > 0)
    {
        m_syslog.append(buffer, static_cast<size_t>(n)).append("\n");
    }
    return m_syslog;
}

bool DaemonHarness::SyslogContains(const std::string& text)
{
    return Syslog().find(text) != std::string::npos;
}

} // namespace vantor::test
