#pragma once

#include "common/HmacRequestSigner.h"
#include "common/HttpService.h"
#include "common/HttpUploader.h"
#include "common/IOChannel.h"
#include "common/Scheduler.h"
#include "edr/AHSRecordWriter.h"
#include "edr/AHSUploadSchedule.h"
#include "edr/BlackoutManager.h"
#include "edr/CommonConfig.h"
#include "edr/Config.h"
#include "edr/LibMagicWrapper.h"
#include "edr/daemon/HealthMonitor.h"

#include <cstdint>
#include <memory>
#include <string>

namespace vantor::common
{
class SqlStorage;
} // namespace vantor::common

namespace vantor::audit
{
class CapturePipeline;
class KernelRuleWatchdog;
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

class MemoryWatchdog;

// The daemon's long-lived working objects, built from its configuration in
// the start-up order (audit core; the health-status uploader and store, FIM,
// IOC and the health-status upload; capture; the health monitor) and taken
// down in the shutdown order, step by step, so that the daemon can put its
// own steps (the agent channel, the scheduler) in between.
//
// A health-status store that cannot be opened is made anew once; if that
// fails too the daemon runs without health-status records.
//
// Used by the main thread only; the objects it holds run their own threads.
class DaemonComponents
{
public:
    static constexpr const char* kMagicDatabasePath = "/etc/corvid/outpost/magic.mgc";
    static constexpr unsigned kUploadRetries = 3;

    // The configurations and the scheduler must outlive the object.
    DaemonComponents(const CommonConfig& common, const EDR::Config& edr, common::Scheduler& scheduler);
    ~DaemonComponents();

    DaemonComponents(const DaemonComponents&) = delete;
    DaemonComponents& operator=(const DaemonComponents&) = delete;

    // The process tree, the magic database and the audit rule engine that
    // the events need.
    void BuildAuditCore(int32_t outpostPid, const std::string& outpostPath);
    // The HTTP service, the uploaders, the health-status store and the
    // components, in their order, and the health-status upload, registered.
    void BuildUploadersAndComponents(std::unique_ptr<fim::Config> fimConfig,
                                     std::unique_ptr<ioc::Ioc::Config> iocConfig,
                                     std::shared_ptr<const common::HmacRequestSigner> requestSigner);
    // Parser and processing threads, then the audit channel that feeds them;
    // and the watchdog that puts back kernel rules somebody else removed.
    void StartAuditCapture(std::unique_ptr<common::IOChannel> auditChannel);
    // The sampler of every loss counter, registered; watchdog is read for
    // its strikes and must outlive the sampler's close (DestroyComponents).
    void StartHealthMonitor(const MemoryWatchdog& watchdog);

    // Shutdown steps, in the order the daemon calls them.
    void RemoveKernelRules();
    void StopCapture();
    // Takes a last sample of the counters first.
    void DestroyComponents();
    // After the scheduler stopped: the capture and the audit core, then (the
    // daemon's agent channel and scheduler go in between) the uploaders.
    void DestroyAuditCore();
    void DestroyUploaders();

    fim::Component* Fim() const { return m_fim.get(); }
    ioc::Component* Ioc() const { return m_ioc.get(); }
    audit::RuleEngine* RuleEngine() const { return m_ruleEngine.get(); }
    // Null when the daemon runs without health-status records.
    AHSRecordWriter* HealthStatus() const { return m_healthStatus.get(); }

private:
    // The one HTTP service of the uploaders, with the payload compression
    // and the answer validation that the back end expects; started.
    std::shared_ptr<common::HttpService>
    StartHttpService(std::shared_ptr<const common::HmacRequestSigner> requestSigner) const;
    void OpenHealthStatusStore();

    const CommonConfig& m_common;
    const EDR::Config& m_edr;
    common::Scheduler& m_scheduler;

    std::shared_ptr<audit::ProcessTree> m_processTree;
    std::shared_ptr<const LibMagicWrapper> m_magic;
    std::shared_ptr<audit::RuleEngine> m_ruleEngine;
    std::shared_ptr<common::HttpService> m_httpService;
    std::shared_ptr<common::HttpUploader> m_statusUploader;
    std::shared_ptr<AHSRecordWriter> m_healthStatus;
    // Reduced-activity periods of FIM's uploads and of IOC's.
    std::shared_ptr<const BlackoutManager> m_fimBlackout;
    std::shared_ptr<const BlackoutManager> m_iocBlackout;
    std::shared_ptr<common::HttpUploader> m_fimUploader;
    std::unique_ptr<fim::Component> m_fim;
    std::shared_ptr<common::HttpUploader> m_iocUploader;
    std::unique_ptr<ioc::Component> m_ioc;
    std::shared_ptr<AHSUploadSchedule> m_statusUpload;
    std::unique_ptr<audit::CapturePipeline> m_capture;
    std::shared_ptr<audit::KernelRuleWatchdog> m_ruleWatchdog;
    std::shared_ptr<HealthMonitor> m_healthMonitor;
};

} // namespace vantor::edr
