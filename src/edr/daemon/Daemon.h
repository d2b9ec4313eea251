#pragma once

#include "common/HmacRequestSigner.h"
#include "common/IOChannel.h"
#include "common/Scheduler.h"
#include "edr/CommonConfig.h"
#include "edr/Config.h"
#include "edr/ResourceMonitor.h"
#include "edr/daemon/DaemonComponents.h"
#include "edr/daemon/MemoryWatchdog.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace vantor::edr
{

class AgentCommand;

// The process: detaches, connects to the host agent, waits for its
// configuration, builds the long-lived objects in a fixed order, runs the main
// loop (agent commands, memory watchdog, shutdown flag) and tears everything
// down in order.
class Daemon
{
public:
    static constexpr const char* kAgentSocketPath = "/var/run/corvid/outpost/sock/agent_edr.sock";
    // Names another agent socket, for a stand-in agent that must not take
    // the real agent's place (a demo beside an installed agent).
    static constexpr const char* kAgentSocketVariable = "CORVID_EDR_AGENT_SOCKET";
    static constexpr const char* kMemtestPath = "/tmp/memtest";
    static constexpr int kAgentReconnectTimeout = 30;

    enum ExitStatus : int
    {
        kExitOk = 0,
        kExitDaemonFailed = 3,
        kExitNoConfiguration = 4,
        kExitBadLogConfig = 5,
        kExitMalloptFailed = 6,
        kExitSetgidFailed = 7
    };

    Daemon();
    ~Daemon();

    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    // The whole life of the process; answers its exit status.
    int Run();

    // kAgentSocketVariable when set and not empty, else kAgentSocketPath.
    static std::string AgentSocketPath();

private:
    int StartUp();
    bool WaitForConfiguration();
    // The first message: must be a "config" command naming a complete file.
    bool Initialize();
    void MainLoop(std::unique_lock<std::mutex>& lock);
    // Runs with the daemon mutex held, for every message after the first.
    void HandleCommand();
    void ApplyConfig(const AgentCommand& command);
    // Answers why the command was refused; empty when it was applied.
    std::string ApplyConfigFile(const AgentCommand& command);
    // The outcome of a configuration as a health-status record.
    void RecordConfig(int64_t statusCode, const std::string& reason);
    void ExportProxyEnvironment();
    void ShutDown();

    void OnAgentData(std::vector<uint8_t> data);
    void OnAgentError(common::IOChannel::Error error);

    std::mutex m_mutex;
    std::condition_variable m_cv;
    bool m_initialized = false;
    std::vector<uint8_t> m_pending;
    int32_t m_outpostPid = 0;
    std::string m_outpostPath;

    std::unique_ptr<CommonConfig> m_commonConfig;
    std::unique_ptr<EDR::Config> m_edrConfig;
    std::unique_ptr<fim::Config> m_fimConfig;
    std::unique_ptr<ioc::Ioc::Config> m_iocConfig;
    std::shared_ptr<const common::HmacRequestSigner> m_requestSigner;

    std::unique_ptr<common::Scheduler> m_scheduler;
    std::unique_ptr<common::IOChannel> m_agentChannel;
    // Built with the configuration, handed to the capture pipeline at start.
    std::unique_ptr<common::IOChannel> m_auditChannel;
    std::unique_ptr<DaemonComponents> m_components;
    std::unique_ptr<ResourceMonitor> m_resourceMonitor;
    std::unique_ptr<MemoryWatchdog> m_watchdog;
    std::FILE* m_memtest = nullptr;
};

} // namespace vantor::edr
