#include "bench/DaemonUnderTest.h"

#include <rapidjson/document.h>
#include <rapidjson/istreamwrapper.h>
#include <rapidjson/ostreamwrapper.h>
#include <rapidjson/prettywriter.h>
#include <sqlite3.h>

#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>

namespace vantor::bench
{

namespace
{

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// Nothing listens there: uploads fail at once and the records stay.
constexpr const char* kNowhere = "https://127.0.0.1:9";
// Readings that are levels or limits, not totals to add up.
constexpr const char* kLevels[] = {"backlog", "backlogLimit", "hardLimitKb"};

std::runtime_error Failure(const std::string& what)
{
    return std::runtime_error("DaemonUnderTest: " + what +
                              (errno != 0 ? ": " + std::string(std::strerror(errno)) : ""));
}

rapidjson::Document ReadJson(const std::string& path)
{
    std::ifstream in(path);
    rapidjson::IStreamWrapper stream(in);
    rapidjson::Document document;
    document.ParseStream(stream);
    if (!in.is_open() || document.HasParseError() || !document.IsObject())
    {
        throw std::runtime_error("DaemonUnderTest: cannot read " + path);
    }
    return document;
}

void Set(rapidjson::Value& object, const char* key, const std::string& value,
         rapidjson::Document::AllocatorType& allocator)
{
    rapidjson::Value text(value.c_str(), static_cast<rapidjson::SizeType>(value.size()), allocator);
    if (auto member = object.FindMember(key); member != object.MemberEnd())
    {
        member->value = text;
    }
    else
    {
        object.AddMember(rapidjson::Value(key, allocator), text, allocator);
    }
}

struct SqliteCloser
{
    void operator()(sqlite3* db) const { ::sqlite3_close_v2(db); }
};
struct StatementFinalizer
{
    void operator()(sqlite3_stmt* statement) const { ::sqlite3_finalize(statement); }
};

} // namespace

DaemonUnderTest::DaemonUnderTest(Options options)
    : m_options(std::move(options))
{
    WriteConfiguration();
    const std::string socketPath = m_options.workDir + "/dispatcher.sock";
    m_listen = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socketPath.size() >= sizeof address.sun_path)
    {
        throw std::runtime_error("DaemonUnderTest: socket path too long: " + socketPath);
    }
    std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
    if (m_listen < 0 || ::bind(m_listen, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(m_listen, 1) != 0)
    {
        throw Failure("dispatcher socket " + socketPath);
    }
    StartAgent();
    try
    {
        AcceptDaemon();
    }
    catch (...)
    {
        Stop();
        throw;
    }
}

DaemonUnderTest::~DaemonUnderTest()
{
    Stop();
}

void DaemonUnderTest::WriteConfiguration() const
{
    const std::string& work = m_options.workDir;
    const std::string config = m_options.sourceDir + "/config/";
    // The agent's directory holds the health-status database; the agent
    // makes it, the daemon does not.
    std::filesystem::create_directories(work + "/outpost");
    {
        std::ifstream in(config + "logging.properties");
        std::ofstream out(work + "/logging.properties");
        for (std::string line; std::getline(in, line);)
        {
            out << (line.rfind("logging.channels.c1.path", 0) == 0
                        ? "logging.channels.c1.path = " + work + "/edr.log"
                        : line)
                << "\n";
        }
    }
    auto document = ReadJson(config + "corvid-edr.json");
    auto& allocator = document.GetAllocator();
    auto& common = document["common_config"];
    Set(common, "log_config_file", work + "/logging.properties", allocator);
    Set(common, "agent_install_path", work + "/outpost", allocator);
    Set(common, "service_url", kNowhere, allocator);
    auto& edr = document["edr_config"];
    Set(edr, "dispatcher_socket_path", work + "/dispatcher.sock", allocator);
    if (m_options.cpuLimit >= 0)
    {
        edr["cpu_limit"].SetUint64(static_cast<uint64_t>(m_options.cpuLimit));
    }
    auto& fim = document["fim_config"];
    Set(fim, "event_file_path", work + "/spool/", allocator);
    Set(fim, "service_url", std::string(kNowhere) + "/fim", allocator);
    Set(fim, "manifest_path", config + "fim_manifest.json", allocator);
    auto& ioc = document["ioc_config"];
    Set(ioc, "event_file_path", work + "/spool/", allocator);
    Set(ioc, "service_url", std::string(kNowhere) + "/ioc", allocator);
    auto& manifests = ioc["manifests"];
    manifests.SetArray();
    if (m_options.withIoc)
    {
        rapidjson::Value manifest(rapidjson::kObjectType);
        Set(manifest, "manifest_path", config + "ioc_manifest.json", allocator);
        Set(manifest, "manifest_type", "ioc", allocator);
        manifests.PushBack(manifest, allocator);
    }
    std::ofstream out(work + "/corvid-edr.json");
    rapidjson::OStreamWrapper stream(out);
    rapidjson::PrettyWriter<rapidjson::OStreamWrapper> writer(stream);
    document.Accept(writer);
}

void DaemonUnderTest::StartAgent()
{
    const std::string& work = m_options.workDir;
    const std::string agent = m_options.buildDir + "/corvid-outpost";
    const std::string daemon = m_options.buildDir + "/corvid-edr";
    const std::string config = work + "/corvid-edr.json";
    const std::string socket = work + "/agent_edr.sock";
    const std::string output = work + "/agent.out";
    m_agentPid = ::fork();
    if (m_agentPid < 0)
    {
        throw Failure("fork");
    }
    if (m_agentPid == 0)
    {
        const int in = ::open("/dev/null", O_RDONLY);
        const int out = ::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ::dup2(in, 0);
        ::dup2(out, 1);
        ::dup2(out, 2);
        ::setenv("CORVID_EDR_AGENT_SOCKET", socket.c_str(), 1);
        ::execl(agent.c_str(), "corvid-outpost", "--config", config.c_str(), "--start", daemon.c_str(),
                nullptr);
        ::_exit(127);
    }
}

void DaemonUnderTest::AcceptDaemon()
{
    pollfd wait{m_listen, POLLIN, 0};
    if (::poll(&wait, 1, 60000) != 1)
    {
        // The work directory goes with the caller's unwinding: keep what the
        // agent said.
        std::ifstream in(m_options.workDir + "/agent.out");
        const std::string said((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        errno = 0;
        throw Failure(
            "the daemon did not connect to the dispatcher socket within a minute; the agent said:\n" + said);
    }
    m_client = ::accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC);
    ucred peer{};
    socklen_t size = sizeof peer;
    if (m_client < 0 || ::getsockopt(m_client, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0)
    {
        throw Failure("accept");
    }
    m_daemonPid = peer.pid;
}

void DaemonUnderTest::Send(std::string_view data)
{
    while (!data.empty())
    {
        const ssize_t n = ::send(m_client, data.data(), data.size(), MSG_NOSIGNAL);
        if (n < 0)
        {
            if (errno == EINTR)
            {
                continue;
            }
            throw Failure("send");
        }
        data.remove_prefix(static_cast<size_t>(n));
    }
}

uint64_t DaemonUnderTest::Unread() const
{
    int queued = 0;
    if (::ioctl(m_client, SIOCOUTQ, &queued) != 0)
    {
        throw Failure("SIOCOUTQ");
    }
    return static_cast<uint64_t>(queued);
}

double DaemonUnderTest::CpuSeconds() const
{
    std::ifstream in("/proc/" + std::to_string(m_daemonPid) + "/stat");
    std::string stat;
    std::getline(in, stat);
    // After the name, whatever it holds: state, then fields 4..13; utime and
    // stime are fields 14 and 15.
    const size_t close = stat.rfind(')');
    if (close == std::string::npos)
    {
        throw std::runtime_error("DaemonUnderTest: the daemon is gone");
    }
    std::istringstream fields(stat.substr(close + 2));
    std::string skip;
    for (int i = 3; i < 14; ++i)
    {
        fields >> skip;
    }
    uint64_t user = 0;
    uint64_t system = 0;
    fields >> user >> system;
    return static_cast<double>(user + system) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

double DaemonUnderTest::RunningSeconds() const
{
    uint64_t nanoseconds = 0;
    std::error_code ec;
    for (const auto& task :
         std::filesystem::directory_iterator("/proc/" + std::to_string(m_daemonPid) + "/task", ec))
    {
        uint64_t running = 0;
        std::ifstream(task.path() / "schedstat") >> running;
        nanoseconds += running;
    }
    return static_cast<double>(nanoseconds) / 1e9;
}

uint64_t DaemonUnderTest::StatusKb(const char* key) const
{
    std::ifstream in("/proc/" + std::to_string(m_daemonPid) + "/status");
    const std::string prefix = std::string(key) + ":";
    for (std::string line; std::getline(in, line);)
    {
        if (line.rfind(prefix, 0) == 0)
        {
            return std::stoull(line.substr(prefix.size()));
        }
    }
    return 0;
}

bool DaemonUnderTest::WaitQuiet(double quiet, double quietShare, double timeoutSeconds) const
{
    const auto start = Clock::now();
    std::deque<std::pair<Clock::time_point, double>> samples;
    while (Clock::now() - start < std::chrono::duration<double>(timeoutSeconds))
    {
        const auto now = Clock::now();
        samples.emplace_back(now, CpuSeconds());
        while (samples.size() > 1 && now - samples[1].first >= std::chrono::duration<double>(quiet))
        {
            samples.pop_front();
        }
        const double span = std::chrono::duration<double>(now - samples.front().first).count();
        if (span >= quiet && samples.back().second - samples.front().second < quietShare * span)
        {
            return true;
        }
        std::this_thread::sleep_for(100ms);
    }
    return false;
}

int DaemonUnderTest::Stop()
{
    int status = 0;
    if (m_agentPid > 0)
    {
        ::kill(m_agentPid, SIGTERM);
        const auto deadline = Clock::now() + 60s;
        while (::waitpid(m_agentPid, &status, WNOHANG) == 0)
        {
            if (Clock::now() > deadline)
            {
                ::kill(m_agentPid, SIGKILL);
                ::waitpid(m_agentPid, &status, 0);
                break;
            }
            std::this_thread::sleep_for(50ms);
        }
        m_agentPid = -1;
    }
    for (int* fd : {&m_client, &m_listen})
    {
        if (*fd >= 0)
        {
            ::close(*fd);
            *fd = -1;
        }
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::map<std::string, uint64_t> DaemonUnderTest::HealthTotals() const
{
    std::map<std::string, uint64_t> totals;
    const std::string file = m_options.workDir + "/outpost/EDRStatus.db";
    sqlite3* raw = nullptr;
    const int opened = ::sqlite3_open_v2(file.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr);
    std::unique_ptr<sqlite3, SqliteCloser> db(raw);
    sqlite3_stmt* rawStatement = nullptr;
    if (opened != SQLITE_OK ||
        ::sqlite3_prepare_v2(db.get(), "SELECT ContextId, StatusCode, AdditionalFields FROM AgentStatus", -1,
                             &rawStatement, nullptr) != SQLITE_OK)
    {
        throw std::runtime_error("DaemonUnderTest: cannot read " + file);
    }
    std::unique_ptr<sqlite3_stmt, StatementFinalizer> statement(rawStatement);
    while (::sqlite3_step(statement.get()) == SQLITE_ROW)
    {
        const auto* context = reinterpret_cast<const char*>(::sqlite3_column_text(statement.get(), 0));
        const int64_t code = ::sqlite3_column_int64(statement.get(), 1);
        const auto* fields = reinterpret_cast<const char*>(::sqlite3_column_text(statement.get(), 2));
        rapidjson::Document json;
        if (context == nullptr || fields == nullptr || json.Parse(fields).HasParseError() || !json.IsObject())
        {
            continue;
        }
        for (const auto& member : json.GetObject())
        {
            const std::string name = member.name.GetString();
            bool level = false;
            for (const char* key : kLevels)
            {
                level = level || name == key;
            }
            if (!level && member.value.IsUint64())
            {
                totals[std::string(context) + "/" + std::to_string(code) + "/" + name] +=
                    member.value.GetUint64();
            }
        }
    }
    return totals;
}

uint64_t DaemonUnderTest::ParserQueueMaxKb() const
{
    std::ifstream in(m_options.workDir + "/edr.log");
    constexpr std::string_view kLine = "Setting parser queue size to ";
    uint64_t kb = 0;
    for (std::string line; std::getline(in, line);)
    {
        if (const size_t at = line.find(kLine); at != std::string::npos)
        {
            kb = std::stoull(line.substr(at + kLine.size()));
        }
    }
    return kb;
}

} // namespace vantor::bench
