#include "edr/daemon/DaemonComponents.h"

#include "audit/CapturePipeline.h"
#include "audit/KernelRuleWatchdog.h"
#include "audit/ProcessTree.h"
#include "audit/RuleEngine.h"
#include "common/Logging.h"
#include "common/LzmaHttpInterceptor.h"
#include "common/SigValidationHttpInterceptor.h"
#include "common/SqlStorage.h"
#include "edr/AHSServiceSettings.h"
#include "edr/AHSSqlDataFormatter.h"
#include "edr/PseudoRunningEvent.h"
#include "edr/PseudoTerminateEvent.h"
#include "edr/ResourceMonitor.h"
#include "edr/daemon/HealthSources.h"
#include "edr/daemon/ProcessTreeLookup.h"
#include "fim/Component.h"
#include "fim/Config.h"
#include "ioc/Component.h"
#include "ioc/Config.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

namespace vantor::edr
{

DaemonComponents::DaemonComponents(const CommonConfig& common, const EDR::Config& edr,
                                   common::Scheduler& scheduler)
    : m_common(common)
    , m_edr(edr)
    , m_scheduler(scheduler)
{
}

DaemonComponents::~DaemonComponents()
{
    StopCapture();
    DestroyComponents();
    DestroyAuditCore();
    DestroyUploaders();
}

void DaemonComponents::BuildAuditCore(int32_t outpostPid, const std::string& outpostPath)
{
    auto makeRunning = [](const audit::ProcessInfo& info) -> std::unique_ptr<Event>
    {
        PseudoRunningEvent::Process process;
        static_cast<ProcessLookup::Process&>(process) = ProcessTreeLookup::Copy(info);
        process.timestamp = static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                                      std::chrono::system_clock::now().time_since_epoch())
                                                      .count());
        return std::make_unique<PseudoRunningEvent>(std::move(process));
    };
    auto makeTerminate = [](const audit::ProcessInfo& info) -> std::unique_ptr<Event>
    {
        const auto now = std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::system_clock::now().time_since_epoch());
        return std::make_unique<PseudoTerminateEvent>(EventType::Exit, info.GetPid(), info.GetParentPid(),
                                                      info.GetImage(), static_cast<uint64_t>(now.count()));
    };
    m_processTree = std::make_shared<audit::ProcessTree>("/proc", makeRunning, makeTerminate);
    m_magic = std::make_shared<const LibMagicWrapper>(kMagicDatabasePath);
    m_ruleEngine = std::make_shared<audit::RuleEngine>(
        outpostPid, outpostPath, m_processTree, m_edr.AuditBacklogLimit(), m_common.AgentInstallPath());
}

std::shared_ptr<common::HttpService>
DaemonComponents::StartHttpService(std::shared_ptr<const common::HmacRequestSigner> requestSigner) const
{
    auto service = std::make_shared<common::HttpService>(m_common.HttpSettings(), std::move(requestSigner));
    // Request sides run in this order and answers in reverse: an answer's
    // signature is checked over the body as received, before decompression.
    service->AddInterceptor(std::make_shared<common::LzmaHttpInterceptor>());
    const std::string keyPath = m_common.ResponseKeyPath();
    try
    {
        service->AddInterceptor(std::make_shared<common::SigValidationHttpInterceptor>(keyPath));
    }
    catch (const std::runtime_error& e)
    {
        // Like a missing request key: the agent has not provisioned its keys
        // yet, and refusing every answer would only hold the spool back.
        EDR_LOG_ERROR(e.what() << "; answers are not validated");
    }
    service->Start();
    return service;
}

void DaemonComponents::BuildUploadersAndComponents(
    std::unique_ptr<fim::Config> fimConfig, std::unique_ptr<ioc::Ioc::Config> iocConfig,
    std::shared_ptr<const common::HmacRequestSigner> requestSigner)
{
    // One HTTP thread serves every uploader.
    m_httpService = StartHttpService(std::move(requestSigner));
    m_statusUploader = std::make_shared<common::HttpUploader>(m_httpService, kUploadRetries);
    OpenHealthStatusStore();
    m_fimBlackout =
        std::make_shared<const BlackoutManager>(BlackoutManager::kKind, m_common.BlackoutEvents());
    m_fimUploader = std::make_shared<common::HttpUploader>(m_httpService, kUploadRetries);
    m_fim = std::make_unique<fim::Component>(
        std::move(fimConfig), m_fimUploader, m_scheduler, m_ruleEngine, m_common.AgentInstallPath(),
        m_fimBlackout, std::make_shared<const ProcessTreeLookup>(m_processTree), m_healthStatus);

    // IOC's periods, built in their place in the start-up order, for the IOC
    // component that follows FIM.
    m_iocBlackout =
        std::make_shared<const BlackoutManager>(BlackoutManager::kKind, m_common.BlackoutEvents());
    m_iocUploader = std::make_shared<common::HttpUploader>(m_httpService, kUploadRetries);
    try
    {
        m_ioc = std::make_unique<ioc::Component>(
            m_processTree->GetBootTime(), std::move(iocConfig), m_magic, m_scheduler, m_iocUploader,
            *m_ruleEngine, m_edr.CpuLimit(), m_edr.MemoryLimit(),
            [blackout = m_iocBlackout] { return blackout->IsBlackout(); }, m_common.AgentInstallPath(),
            ioc::internal::protobuf::AgentIdentity::FromConfig(m_common));
    }
    catch (const std::exception& e)
    {
        // FIM and the health status go on without IOC.
        EDR_LOG_ERROR("Failed to create the IOC component: " << e.what());
        if (m_healthStatus)
        {
            m_healthStatus->Write(AHSContext::kIocComponent, AHSStatusCode::kComponentFailed,
                                  AHSState::Failed, {{"reason", std::string(e.what())}});
        }
    }

    if (m_healthStatus)
    {
        m_statusUpload = std::make_shared<AHSUploadSchedule>(m_healthStatus->Store(), m_statusUploader,
                                                             AHSServiceSettings::From(m_common, m_edr));
        m_scheduler.RegisterSchedule(m_statusUpload);
    }
}

void DaemonComponents::OpenHealthStatusStore()
{
    const std::string directory = m_common.AgentInstallPath();
    const auto open = [&directory]
    {
        return std::make_shared<common::SqlStorage>(directory, AHSRecordWriter::kDbFileName,
                                                    std::make_unique<AHSSqlDataFormatter>(), false);
    };
    std::shared_ptr<common::SqlStorage> store;
    try
    {
        store = open();
    }
    catch (const std::exception& e)
    {
        // Records not yet uploaded are lost with the file, but a store that
        // cannot be read would keep every later record from the back end.
        EDR_LOG_ERROR("Failed to open the health-status store: " << e.what() << "; making it anew");
        std::remove((directory + "/" + AHSRecordWriter::kDbFileName).c_str());
        try
        {
            store = open();
        }
        catch (const std::exception& again)
        {
            EDR_LOG_ERROR("No health-status records: " << again.what());
            return;
        }
    }
    m_healthStatus = std::make_shared<AHSRecordWriter>(std::move(store));
}

void DaemonComponents::StartHealthMonitor(const MemoryWatchdog& watchdog)
{
    if (!m_healthStatus)
    {
        return;
    }
    // Often enough that a loss is placed in time, never less often than the
    // records are uploaded.
    const auto uploadInterval = m_statusUpload->Settings().interval;
    m_healthMonitor = std::make_shared<HealthMonitor>(
        m_healthStatus, std::min<std::chrono::seconds>(uploadInterval, std::chrono::seconds(60)));
    const auto add = [this](HealthSources::Sources sources)
    {
        for (auto& source : sources)
        {
            m_healthMonitor->AddSource(std::move(source));
        }
    };
    m_healthMonitor->AddSource(HealthSources::KernelAudit());
    if (m_capture)
    {
        add(HealthSources::Capture(*m_capture, *m_ruleEngine));
        m_healthMonitor->AddSource(HealthSources::KernelRules(*m_ruleWatchdog));
    }
    if (m_fim)
    {
        add(HealthSources::Fim(*m_fim));
    }
    if (m_ioc)
    {
        add(HealthSources::Ioc(*m_ioc));
    }
    add(HealthSources::Uploads(AHSContext::kFimUpload, m_fimUploader, true));
    add(HealthSources::Uploads(AHSContext::kIocUpload, m_iocUploader, true));
    // Successes of its own uploads would give every upload a record to send.
    add(HealthSources::Uploads(AHSContext::kStatusUpload, m_statusUploader, false));
    m_healthMonitor->AddSource(HealthSources::StatusStore(*m_statusUpload));
    m_healthMonitor->AddSource(HealthSources::Memory(watchdog));
    m_scheduler.RegisterSchedule(m_healthMonitor);
}

void DaemonComponents::StartAuditCapture(std::unique_ptr<common::IOChannel> auditChannel)
{
    const uint64_t cpuLimit = m_edr.CpuLimit();
    const uint64_t memoryLimit = m_edr.MemoryLimit();
    const uint64_t totalKb = ResourceMonitor(cpuLimit, memoryLimit).TotalMemoryKb();
    m_capture = std::make_unique<audit::CapturePipeline>(
        std::move(auditChannel), m_magic, m_ruleEngine->GetEventProcessor(),
        audit::CapturePipeline::Limits{cpuLimit, memoryLimit, totalKb},
        [cpuLimit, memoryLimit]() -> audit::CapturePipeline::CpuUsage
        {
            auto monitor = std::make_shared<ResourceMonitor>(cpuLimit, memoryLimit);
            return [monitor] { return monitor->CpuUsage(); };
        });
    m_capture->Start();
    m_ruleWatchdog = std::make_shared<audit::KernelRuleWatchdog>(m_ruleEngine);
    m_scheduler.RegisterSchedule(m_ruleWatchdog);
}

void DaemonComponents::RemoveKernelRules()
{
    if (m_ruleWatchdog)
    {
        m_scheduler.UnregisterSchedule(m_ruleWatchdog);
    }
    if (m_ruleEngine)
    {
        m_ruleEngine->RemoveKernelRules();
    }
}

void DaemonComponents::StopCapture()
{
    if (m_capture)
    {
        m_capture->Stop();
    }
}

void DaemonComponents::DestroyComponents()
{
    if (m_healthMonitor)
    {
        // What the stop of the capture dropped is counted too; the sources
        // go from here on.
        m_healthMonitor->Close();
        m_scheduler.UnregisterSchedule(m_healthMonitor);
        m_healthMonitor.reset();
    }
    m_fim.reset();
    m_ioc.reset();
}

void DaemonComponents::DestroyAuditCore()
{
    m_ruleWatchdog.reset();
    m_capture.reset();
    m_ruleEngine.reset();
    m_processTree.reset();
    m_magic.reset();
}

void DaemonComponents::DestroyUploaders()
{
    // Its run waits for an answer of the HTTP service: stopped before that.
    m_statusUpload.reset();
    // Uploads still in flight complete (or are cancelled) before the
    // uploaders go.
    if (m_httpService)
    {
        m_httpService->Stop();
    }
    m_fimUploader.reset();
    m_iocUploader.reset();
    m_statusUploader.reset();
    m_healthStatus.reset();
    m_httpService.reset();
    m_fimBlackout.reset();
    m_iocBlackout.reset();
}

} // namespace vantor::edr
