#pragma once

#include "common/HmacRequestSigner.h"
#include "common/HttpService.h"
#include "common/HttpUploader.h"
#include "common/IOChannel.h"
#include "common/Scheduler.h"
#include "edr/BlackoutManager.h"
#include "edr/CommonConfig.h"
#include "edr/Config.h"
#include "edr/LibMagicWrapper.h"
#include "edr/ResourceMonitor.h"
#include "edr/daemon/MemoryWatchdog.h"

#include <rapidjson/document.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace vantor::audit
{
class CapturePipeline;
class ProcessTree;
class RuleEngine;
} // namespace vantor::audit

namespace vantor::fim
{
class Component;
class Config;
} // namespace vantor::fim

namespace vantor::ioc
{
class Component;
namespace Ioc
{
class Config;
}
} // namespace vantor::ioc

namespace vantor::edr
{

// The process: detaches, connects to the host agent, waits for its
// configuration, builds the long-lived objects in a fixed order, runs the main
// loop (agent commands, memory watchdog, shutdown flag) and tears everything
// down in order.
class Daemon
{
public:
    static constexpr const char* kAgentSocketPath = "/var/run/corvid/outpost/sock/agent_edr.sock";
    static constexpr const char* kMagicDatabasePath = "/etc/corvid/outpost/magic.mgc";
    static constexpr const char* kMemtestPath = "/tmp/memtest";
    static constexpr int kAgentReconnectTimeout = 30;
    static constexpr unsigned kUploadRetries = 3;

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

private:
    int StartUp();
    bool WaitForConfiguration();
    // The first message: must be a "config" command naming a complete file.
    bool Initialize();
    void MainLoop(std::unique_lock<std::mutex>& lock);
    // Runs with the daemon mutex held, for every message after the first.
    void HandleCommand();
    void ApplyConfig(const rapidjson::Value& command);
    void ExportProxyEnvironment();
    // The audit rule engine with the process tree and the magic database
    // that the events need.
    void BuildAuditCore();
    void BuildUploadersAndComponents();
    // The one HTTP service of the uploaders, with the payload compression
    // and the answer validation that the back end expects; started.
    std::shared_ptr<common::HttpService> StartHttpService() const;
    // Parser and processing threads, then the audit channel that feeds them.
    void StartAuditCapture();
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
    std::shared_ptr<audit::ProcessTree> m_processTree;
    std::shared_ptr<const LibMagicWrapper> m_magic;
    std::shared_ptr<audit::RuleEngine> m_ruleEngine;
    std::shared_ptr<common::HttpService> m_httpService;
    // Reduced-activity periods of FIM's uploads and of IOC's.
    std::shared_ptr<const BlackoutManager> m_fimBlackout;
    std::shared_ptr<const BlackoutManager> m_iocBlackout;
    std::shared_ptr<common::HttpUploader> m_fimUploader;
    std::unique_ptr<fim::Component> m_fim;
    std::shared_ptr<common::HttpUploader> m_iocUploader;
    std::unique_ptr<ioc::Component> m_ioc;
    // Built with the configuration, handed to the capture pipeline at start.
    std::unique_ptr<common::IOChannel> m_auditChannel;
    std::unique_ptr<audit::CapturePipeline> m_capture;
    std::unique_ptr<ResourceMonitor> m_resourceMonitor;
    std::unique_ptr<MemoryWatchdog> m_watchdog;
    std::FILE* m_memtest = nullptr;
};

} // namespace vantor::edr
