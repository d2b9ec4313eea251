#include "edr/daemon/Daemon.h"

#include "audit/DispatcherIOChannel.h"
#include "audit/KernelIOChannel.h"
#include "audit/RuleEngine.h"
#include "common/Logging.h"
#include "common/SignalHandler.h"
#include "common/UnixClientStreamSockIOChannel.h"
#include "edr/daemon/AgentCommand.h"
#include "edr/daemon/ConfigurationFile.h"
#include "fim/Component.h"
#include "fim/Config.h"
#include "ioc/Component.h"
#include "ioc/Config.h"

#include <Poco/Exception.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <optional>
#include <string_view>
#include <syslog.h>
#include <unistd.h>

namespace vantor::edr
{

namespace
{
// Set by SIGINT/SIGTERM, the "exit" command, the agent channel's error
// callback and the memory watchdog; read by the main loop after every wake-up.
std::atomic<bool> g_shutdown{false};

void OnTerminationSignal(int)
{
    g_shutdown.store(true, std::memory_order_seq_cst);
}

constexpr const char* kCouldNotInitialize = "Error: The corvid-edr binary could not Initialize.";
constexpr const char* kInvalidAgentJson = "Invalid json received from the agent.";

std::string_view AsText(const std::vector<uint8_t>& bytes)
{
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

void Syslog(int priority, const std::string& text)
{
    ::syslog(priority, "%s", text.c_str());
}

} // namespace

Daemon::Daemon() = default;

Daemon::~Daemon()
{
    if (m_memtest != nullptr)
    {
        std::fclose(m_memtest);
    }
}

std::string Daemon::AgentSocketPath()
{
    const char* path = std::getenv(kAgentSocketVariable);
    return path != nullptr && *path != '\0' ? path : kAgentSocketPath;
}

int Daemon::Run()
{
    ::openlog("corvid-edr", LOG_PID, LOG_DAEMON);
    try
    {
        const int status = StartUp();
        if (status != kExitOk)
        {
            if (m_agentChannel)
            {
                m_agentChannel->Stop();
            }
            return status;
        }
        std::unique_lock lock(m_mutex);
        MainLoop(lock);
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("Uncaught exception: " << e.what());
        EDR_LOG_ERROR("Shutting down EDR ...");
    }
    ShutDown();
    return kExitOk;
}

int Daemon::StartUp()
{
    if (::daemon(0, 0) != 0)
    {
        Syslog(LOG_CRIT, "Error: The corvid-edr binary could not run as a daemon.");
        return kExitDaemonFailed;
    }
    common::SignalHandler::Block({SIGINT, SIGTERM});
    common::SignalHandler::Install(SIGINT, OnTerminationSignal);
    common::SignalHandler::Install(SIGTERM, OnTerminationSignal);
    common::SignalHandler::Ignore(SIGHUP);

    m_scheduler = std::make_unique<common::Scheduler>();

    try
    {
        auto channel = std::make_unique<common::UnixClientStreamSockIOChannel>(AgentSocketPath(),
                                                                               kAgentReconnectTimeout);
        channel->SetErrorCallback([this](common::IOChannel::Error error) { OnAgentError(error); });
        channel->SetDataCallback([this](std::vector<uint8_t> data) { OnAgentData(std::move(data)); });
        m_agentChannel = std::move(channel);
        m_agentChannel->Start();
    }
    catch (const common::IOChannelException& e)
    {
        Syslog(LOG_ALERT, e.what());
        Syslog(LOG_CRIT, kCouldNotInitialize);
        return kExitNoConfiguration;
    }

    if (!WaitForConfiguration() || !Initialize())
    {
        Syslog(LOG_CRIT, kCouldNotInitialize);
        return kExitNoConfiguration;
    }

    try
    {
        common::Logging::Initialize(m_commonConfig->LogConfigFile());
    }
    catch (const Poco::Exception&)
    {
        Syslog(LOG_CRIT, "Error:corvid-edr:log config is invalid.");
        return kExitBadLogConfig;
    }
    EDR_LOG_INFO("corvid-edr " << CORVID_VERSION << " starting");

    if (::setgid(m_commonConfig->AgentEffectiveGid()) != 0)
    {
        EDR_LOG_ERROR("setgid() failed: " << std::strerror(errno));
        return kExitSetgidFailed;
    }

    if (::mallopt(M_MMAP_THRESHOLD, 4194304) > 0)
    {
        EDR_LOG_DEBUG("M_MMAP_THRESHOLD: 4MB");
    }
    else
    {
        EDR_LOG_ERROR("Unable to set malloc threshold to 4MB");
        return kExitMalloptFailed;
    }

    {
        std::lock_guard lock(m_mutex);
        m_initialized = true;
    }
    m_scheduler->Start();

    m_components = std::make_unique<DaemonComponents>(*m_commonConfig, *m_edrConfig, *m_scheduler);
    m_components->BuildAuditCore(m_outpostPid, m_outpostPath);
    ExportProxyEnvironment();
    m_components->BuildUploadersAndComponents(std::move(m_fimConfig), std::move(m_iocConfig),
                                              std::move(m_requestSigner));
    m_components->StartAuditCapture(std::move(m_auditChannel));

    common::SignalHandler::Unblock({SIGINT, SIGTERM});

    m_resourceMonitor =
        std::make_unique<ResourceMonitor>(m_edrConfig->CpuLimit(), m_edrConfig->MemoryLimit());
    m_watchdog =
        std::make_unique<MemoryWatchdog>(m_resourceMonitor->TotalMemoryKb(), m_edrConfig->MemoryLimit(),
                                         [this] { return m_resourceMonitor->MemoryUsage(); });
    const auto& limits = m_watchdog->GetLimits();
    EDR_LOG_DEBUG("Memory threshold: softLimit: " << limits.softKb << " KB "
                                                  << " HardLimit: " << limits.hardKb << " KB.");
    m_components->StartHealthMonitor(*m_watchdog);
    RecordConfig(AHSStatusCode::kConfigLoaded, {});
    return kExitOk;
}

bool Daemon::WaitForConfiguration()
{
    std::unique_lock lock(m_mutex);
    if (!m_pending.empty())
    {
        return true;
    }
    Syslog(LOG_ALERT, "Waiting for configuration from the Corvid Agent process.");
    const auto deadline = std::chrono::system_clock::now() + std::chrono::seconds(30);
    m_cv.wait_until(lock, deadline, [this] { return !m_pending.empty(); });
    if (m_pending.empty())
    {
        Syslog(LOG_ALERT, "Failed to receive initial configuration from the Corvid Agent process.");
        return false;
    }
    return true;
}

bool Daemon::Initialize()
{
    std::vector<uint8_t> pending;
    {
        std::lock_guard lock(m_mutex);
        pending.swap(m_pending);
    }
    const AgentCommand message(AsText(pending));
    const std::optional<std::string> configFile = message.ConfigFile();
    if (message.GetKind() != AgentCommand::Kind::Config || !configFile)
    {
        Syslog(LOG_CRIT, kInvalidAgentJson);
        return false;
    }

    const std::string& path = *configFile;
    ConfigurationFile file;
    switch (file.Load(path))
    {
    case ConfigurationFile::Status::Unreadable:
        Syslog(LOG_CRIT, "Failed to read config file: " + path);
        return false;
    case ConfigurationFile::Status::Invalid:
        Syslog(LOG_CRIT, "Invalid configuration file.");
        return false;
    case ConfigurationFile::Status::Ok:
        break;
    }
    if (!file.HasSections({"common_config", "fim_config", "ioc_config", "edr_config"}))
    {
        Syslog(LOG_CRIT, "Incomplete configuration file " + path);
        return false;
    }
    const rapidjson::Document& root = file.Root();

    try
    {
        m_commonConfig = std::make_unique<CommonConfig>(root["common_config"]);
        m_fimConfig = std::make_unique<fim::Config>(root["fim_config"]);
        m_iocConfig = std::make_unique<ioc::Ioc::Config>(root["ioc_config"]);
        m_edrConfig = std::make_unique<EDR::Config>(root["edr_config"]);
        if (m_edrConfig->UseDispatcher())
        {
            m_auditChannel =
                std::make_unique<audit::DispatcherIOChannel>(m_edrConfig->DispatcherSocketPath());
        }
        else
        {
            auto kernel = std::make_unique<audit::KernelIOChannel>();
            kernel->SetEnableAudit(true);
            m_auditChannel = std::move(kernel);
        }
        try
        {
            m_requestSigner =
                std::make_shared<const common::HmacRequestSigner>(m_commonConfig->HmacKeyPath());
        }
        catch (const std::runtime_error& e)
        {
            // Without the agent's key the back end refuses the uploads, but
            // the events are still spooled and go out once a key exists.
            Syslog(LOG_ERR, std::string(e.what()) + "; uploads go out unsigned");
        }
    }
    catch (const std::invalid_argument& e)
    {
        Syslog(LOG_CRIT, e.what());
        return false;
    }
    catch (const common::IOChannelException& e)
    {
        Syslog(LOG_CRIT, e.what());
        return false;
    }

    if (!file.ReadOutpost(m_outpostPid, m_outpostPath))
    {
        Syslog(LOG_CRIT, "Invalid outpost pid and path information");
        return false;
    }
    return true;
}

void Daemon::ExportProxyEnvironment()
{
    EDR_LOG_INFO("Setting the proxy environment variables");
    for (const char* name : {"corvid_https_tls_proxy", "corvid_https_proxy", "https_proxy", "http_proxy"})
    {
        if (m_commonConfig->HasEnvironmentVariable(name))
        {
            ::setenv(name, m_commonConfig->EnvironmentVariable(name).c_str(), 1);
        }
    }
}

void Daemon::MainLoop(std::unique_lock<std::mutex>& lock)
{
    m_watchdog->Reset();
    m_memtest = std::fopen(kMemtestPath, "a");
    while (!g_shutdown.load())
    {
        m_cv.wait_until(lock, std::chrono::system_clock::now() + std::chrono::seconds(1));
        if (!g_shutdown.load() && !m_pending.empty())
        {
            HandleCommand();
        }
        if (m_watchdog->Check())
        {
            EDR_LOG_DEBUG("MEMCHECK: Shutting down as memory usage is beyond set hard limit.");
            if (auto* status = m_components->HealthStatus())
            {
                // Uploaded by the next daemon: the store outlives this one.
                status->Write(AHSContext::kDaemonMemory, AHSStatusCode::kMemoryShutdown, AHSState::Failed,
                              {{"strikes", uint64_t{m_watchdog->Strikes()}},
                               {"hardLimitKb", m_watchdog->GetLimits().hardKb}});
            }
            g_shutdown.store(true);
        }
    }
}

void Daemon::HandleCommand()
{
    const AgentCommand message(AsText(m_pending));
    m_pending.clear();
    switch (message.GetKind())
    {
    case AgentCommand::Kind::Invalid:
        EDR_LOG_ERROR(kInvalidAgentJson);
        break;
    case AgentCommand::Kind::Unnamed:
        break;
    case AgentCommand::Kind::FimStatus:
        EDR_LOG_INFO("Command 'fim_status' received from agent");
        break;
    case AgentCommand::Kind::IocStatus:
        EDR_LOG_INFO("Command 'ioc_status' received from agent");
        break;
    case AgentCommand::Kind::Config:
        ApplyConfig(message);
        break;
    case AgentCommand::Kind::Exit:
        EDR_LOG_INFO("Command 'exit' received from agent.");
        g_shutdown.store(true);
        break;
    case AgentCommand::Kind::Unknown:
        EDR_LOG_ERROR("Invalid command found in json received from agent: " << message.Name());
        break;
    }
}

void Daemon::ApplyConfig(const AgentCommand& command)
{
    EDR_LOG_INFO("Command 'config' received from agent");
    const std::string refused = ApplyConfigFile(command);
    if (refused.empty())
    {
        RecordConfig(AHSStatusCode::kConfigLoaded, {});
        return;
    }
    EDR_LOG_ERROR(refused);
    RecordConfig(AHSStatusCode::kConfigRefused, refused);
}

std::string Daemon::ApplyConfigFile(const AgentCommand& command)
{
    const std::optional<std::string> configFile = command.ConfigFile();
    if (!configFile)
    {
        return "Incomplete 'config' command received from the agent";
    }
    const std::string& path = *configFile;
    ConfigurationFile file;
    switch (file.Load(path))
    {
    case ConfigurationFile::Status::Unreadable:
        return "Failed to read config file: " + path;
    case ConfigurationFile::Status::Invalid:
        return "Invalid configuration file.";
    case ConfigurationFile::Status::Ok:
        break;
    }
    const rapidjson::Document& root = file.Root();
    int32_t outpostPid = 0;
    std::string outpostPath;
    if (!file.HasSections({"common_config", "fim_config", "ioc_config"}) ||
        !file.ReadOutpost(outpostPid, outpostPath))
    {
        return "Incomplete configuration file: " + path;
    }
    try
    {
        common::Logging::RefreshLevels(m_commonConfig->LogConfigFile());
        fim::Component* fim = m_components ? m_components->Fim() : nullptr;
        ioc::Component* ioc = m_components ? m_components->Ioc() : nullptr;
        audit::RuleEngine* ruleEngine = m_components ? m_components->RuleEngine() : nullptr;
        if (fim != nullptr)
        {
            fim->UpdateConfig(root["fim_config"]);
        }
        if (ioc != nullptr)
        {
            ioc->UpdateConfig(root["ioc_config"]);
        }
        m_outpostPid = outpostPid;
        m_outpostPath = outpostPath;
        if (ruleEngine != nullptr && !ruleEngine->RefreshOutpostExclusionRules(outpostPid, outpostPath))
        {
            EDR_LOG_ERROR("RuleEngine: Failed to refresh exclusion rules in audit with new outpost pid");
        }
    }
    catch (const std::exception& e)
    {
        // Updates applied so far stay applied; the later ones are skipped.
        return std::string("Failed to update configuration: ") + e.what();
    }
    return {};
}

void Daemon::RecordConfig(int64_t statusCode, const std::string& reason)
{
    AHSRecordWriter* status = m_components ? m_components->HealthStatus() : nullptr;
    if (status == nullptr)
    {
        return;
    }
    if (reason.empty())
    {
        status->Write(AHSContext::kDaemonConfig, statusCode, AHSState::Ok);
    }
    else
    {
        status->Write(AHSContext::kDaemonConfig, statusCode, AHSState::Failed, {{"reason", reason}});
    }
}

void Daemon::ShutDown()
{
    if (m_memtest != nullptr)
    {
        std::fclose(m_memtest);
        m_memtest = nullptr;
    }
    // The kernel rules go first: the audit state is the host's, and nothing
    // later in the shutdown (a slow stop, a kill by an impatient agent) may
    // leave rules of ours in it.
    if (m_components)
    {
        m_components->RemoveKernelRules();
        m_components->StopCapture();
    }
    if (m_agentChannel)
    {
        m_agentChannel->Stop();
    }
    if (m_components)
    {
        m_components->DestroyComponents();
    }
    if (m_scheduler)
    {
        m_scheduler->Stop();
    }
    if (m_components)
    {
        m_components->DestroyAuditCore();
    }
    m_agentChannel.reset();
    m_scheduler.reset();
    if (m_components)
    {
        m_components->DestroyUploaders();
    }
    m_components.reset();
}

void Daemon::OnAgentData(std::vector<uint8_t> data)
{
    {
        std::lock_guard lock(m_mutex);
        m_pending.insert(m_pending.end(), data.begin(), data.end());
    }
    EDR_LOG_INFO("Received configuration data from the Corvid Agent process: "
                 << std::string_view(reinterpret_cast<const char*>(data.data()), data.size()));
    m_cv.notify_all();
}

void Daemon::OnAgentError(common::IOChannel::Error)
{
    {
        std::lock_guard lock(m_mutex);
        if (m_initialized)
        {
            EDR_LOG_FATAL("Failed to establish communication with the Corvid Agent process.");
        }
        else
        {
            Syslog(LOG_ALERT, "Failed to establish communication with the Corvid Agent process.");
        }
        g_shutdown.store(true);
    }
    m_cv.notify_all();
}

} // namespace vantor::edr
