#pragma once

#include "common/SpoolStorage.h"
#include "edr/Event.h"
#include "ioc/Config.h"
#include "ioc/ProcessInfo.h"
#include "ioc/protobuf/AgentIdentity.h"

#include <rapidjson/document.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>

namespace vantor::common
{
class HttpUploader;
class Scheduler;
class SqlStorage;
} // namespace vantor::common

namespace vantor::edr
{
class EventRuleEngine;
class LibMagicWrapper;
} // namespace vantor::edr

namespace vantor::ioc
{

class TtlProcessTree;

namespace internal
{
namespace protobuf
{
class DataFormatter;
}
class ConfigUpdateTask;
class Engine;
class EventProcessor;
class EventRuleManager;
class FilteringEngine;
class HashMatchingEngine;
class HeuristicsEngine;
class BatchWriter;
class ProcessingThread;
class UploadSchedule;
class TaggingEngine;
class SequenceNumber;
} // namespace internal

// Indicators of compromise: owns the IOC configuration, the rule manager with
// the policy of the configured manifests, the snapshot database
// ("SnapshotEdr.db" in <installPath>/edr, with the persistent batch
// sequence number), the spool of event batches and the queue of events to
// process, and ties them to the daemon's event rule engine under the tag
// "IOC": the kernel rules of the policy's file, directory, process and
// network rules are installed under that tag, and the events they produce
// reach the component's handler.
//
// Enabled while at least one manifest is loaded; a configuration without
// manifests disables it and clears the snapshot ("Disabling IOC"); one whose
// manifests all fail disables it until a usable one arrives. Disabled, it
// has no kernel rules and no handlers.
//
// The TTL process tree is loaded from the snapshot at construction and saved
// after each stale-process sweep and at destruction.
//
// The handler copies each event onto the queue of the processing thread
// ("EdrProcessingThread"), which runs it through the verdict chain
// (filtering, hash matching, heuristics and tagging engines, see
// EventProcessor). Reported events become messages of the open protobuf
// batch, which BatchWriter closes by size and age into the spool; the upload
// schedule sends spooled batches to the gateway (or the service URL) at the
// configured interval, and keeps a batch whose upload failed. Moving the
// spool (a new event_file_path or event_file_name) stops the thread, which
// closes its batch into the old spool, and starts it again over the new one.
// At destruction the rules go first, then the thread processes what is
// queued and closes its batch, then the tree is saved.
//
// A configuration update gives the engines the new policy: the filtering
// engine its rules, the tagging engine its tag settings, the hash
// matching engine its known executables (forgetting the hashes taken), the
// heuristics engine its switch and an empty cache.
//
// UpdateConfig may be called from any thread; updates run one at a time, in
// order, on an asynchronous task. The engine must outlive the component.
class Component
{
public:
    static constexpr const char* kTag = "IOC";
    static constexpr const char* kSnapshotDirectory = "/edr";
    static constexpr const char* kSnapshotDbName = "SnapshotEdr.db";
    static constexpr const char* kDefaultEventFileName = "ioc_events";
    static constexpr uint64_t kMaxSpoolFiles = 10000;

    using BlackoutCheck = std::function<bool()>;
    // Told, after an update, whether IOC is enabled (false also when the
    // update was refused).
    using UpdateCallback = std::function<void(bool enabled)>;

    // Throws std::runtime_error "ioc::Component: 'config' cannot be null" /
    // "ioc::Component: 'uploader' cannot be null", "ioc::component: sequence
    // number out of range." and the storages' exceptions. bootTime is the
    // host's boot time (seconds since the epoch); identity names the agent
    // in every batch and in the upload path; magic types the files of file
    // events; blackout holds uploads back. cpuLimit and memoryLimit are kept
    // (GetLimits). The spool lives in event_file_path + "ioc/" (installPath +
    // "/ioc/" when the path is empty). Loads the configured manifests before
    // it returns.
    Component(uint64_t bootTime, std::unique_ptr<Ioc::Config> config,
              std::shared_ptr<const edr::LibMagicWrapper> magic, common::Scheduler& scheduler,
              std::shared_ptr<common::HttpUploader> uploader, edr::EventRuleEngine& ruleEngine,
              uint64_t cpuLimit, uint64_t memoryLimit, BlackoutCheck blackout, const std::string& installPath,
              internal::protobuf::AgentIdentity identity = {});
    ~Component();

    Component(const Component&) = delete;
    Component& operator=(const Component&) = delete;

    // Queues a new "ioc_config"; it is applied on the update task: the
    // configuration, the spool limits, the manifests, the kernel rules and
    // the enabled state, in that order. An invalid configuration changes
    // nothing.
    void UpdateConfig(const rapidjson::Value& json, UpdateCallback callback = {});

    bool IsEnabled() const;
    uint64_t GetSequenceNumber() const;
    const Ioc::Config& GetConfig() const { return *m_config; }
    const internal::EventRuleManager& GetRuleManager() const { return *m_ruleManager; }
    common::SpoolStorage& GetSpool() const { return *m_spool; }
    TtlProcessTree& GetProcessTree() const { return *m_processTree; }
    // Events the verdict chain reported since construction.
    uint64_t GetReportedCount() const { return m_reportedCount.load(); }
    // Totals since construction: events dropped because the processing
    // queue was full, and messages of batches the spool refused or that
    // could not be serialized.
    uint64_t GetDroppedEventCount() const;
    uint64_t GetLostBatchEventCount() const;
    // Batches the spools' disk quota gave up before they were uploaded,
    // since construction (a spool move keeps the count).
    common::SpoolStorage::DropCount GetSpoolDropCount() const;

    // The CPU and memory limits (percent) of the daemon.
    struct Limits
    {
        uint64_t cpu = 0;
        uint64_t memory = 0;
    };
    const Limits& GetLimits() const { return m_limits; }
    // Whether uploads must wait now (a blackout period).
    bool IsBlackout() const { return m_blackout && m_blackout(); }
    const std::shared_ptr<const edr::LibMagicWrapper>& GetMagic() const { return m_magic; }

private:
    void ApplyConfig(const std::string& json, const UpdateCallback& callback);
    // Reads the manifests and sets rules, handlers and state accordingly.
    void ApplyManifestsLocked();
    void InstallRulesLocked();
    void RemoveRulesLocked();
    void ClearSnapshotLocked();
    void WriteBootTime();
    void ApplySpoolSettingsLocked();
    void ConfigureEnginesLocked();
    void MakeEngines();

    void OnEvent(const edr::Event& event);
    void OnRulesInvalidated();
    // The batch formatter, its writer, the processing thread and the upload
    // schedule over the current spool.
    void MakeBatchPipelineLocked();
    void DropBatchPipelineLocked();
    void OnReported(const std::shared_ptr<const edr::Event>& event);
    void OnSwept();

    // In construction order; destroyed in reverse.
    const uint64_t m_bootTime;
    std::unique_ptr<Ioc::Config> m_config;
    std::shared_ptr<common::HttpUploader> m_uploader;
    std::shared_ptr<const edr::LibMagicWrapper> m_magic;
    common::Scheduler& m_scheduler;
    edr::EventRuleEngine& m_ruleEngine;
    const Limits m_limits;
    const BlackoutCheck m_blackout;
    const std::string m_installPath;
    std::unique_ptr<common::SqlStorage> m_snapshot;
    std::unique_ptr<internal::SequenceNumber> m_sequenceNumber;
    std::unique_ptr<TtlProcessTree> m_processTree;
    std::unique_ptr<common::SpoolStorage> m_spool;
    std::unique_ptr<internal::EventRuleManager> m_ruleManager;
    // The verdict chain; each engine guards itself, so updates reach them
    // while events are processed.
    std::unique_ptr<internal::FilteringEngine> m_filteringEngine;
    std::unique_ptr<internal::HashMatchingEngine> m_hashMatchingEngine;
    std::unique_ptr<internal::HeuristicsEngine> m_heuristicsEngine;
    std::unique_ptr<internal::TaggingEngine> m_taggingEngine;
    std::unique_ptr<internal::EventProcessor> m_processor;
    std::atomic<uint64_t> m_reportedCount{0};
    const internal::protobuf::AgentIdentity m_identity;
    std::unique_ptr<internal::protobuf::DataFormatter> m_formatter;
    std::unique_ptr<internal::BatchWriter> m_batchWriter;
    // The actor of the event being reported, reused so that its copy seldom
    // allocates; only the processing thread reports.
    ProcessInfo m_reportedActor;
    // Held shared by the handler while it hands an event to the processing
    // thread, and exclusively while an update replaces the batch pipeline:
    // no event finds the thread half gone, or none at all.
    std::shared_mutex m_pipelineMutex;
    std::unique_ptr<internal::ProcessingThread> m_processingThread;
    std::shared_ptr<internal::UploadSchedule> m_uploadSchedule;
    // Losses of earlier batch pipelines (a spool move replaces them).
    uint64_t m_droppedBefore = 0;
    uint64_t m_lostBefore = 0;
    common::SpoolStorage::DropCount m_spoolDroppedBefore;

    mutable std::mutex m_mutex;
    bool m_enabled = false;
    bool m_registered = false;
    std::string m_spoolDirectory;
    std::string m_spoolPrefix;

    // Last: no update runs once the members above start to go.
    std::unique_ptr<internal::ConfigUpdateTask> m_updates;
};

} // namespace vantor::ioc
