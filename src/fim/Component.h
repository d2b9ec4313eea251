#pragma once

#include "edr/AHSRecordWriter.h"
#include "edr/BlackoutManager.h"
#include "edr/EventRuleEngine.h"
#include "edr/ProcessLookup.h"
#include "fim/Config.h"

#include <rapidjson/document.h>

#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>

namespace vantor::common
{
class HttpUploader;
class Scheduler;
class SpoolStorage;
class SqlStorage;
} // namespace vantor::common

namespace vantor::fim
{

namespace internal
{
class EventProcessor;
class EventRuleManager;
class UploadSchedule;
} // namespace internal

// File integrity monitoring: owns the FIM configuration, the rule manager,
// the spool of event documents, the upload schedule, the event processor and
// the baseline store, and ties them to the daemon's rule engine under the
// FIM tag.
//
// Enabled after construction when the manifest could be used; disabled on
// an unusable manifest or on request; a later "config" with a usable
// manifest enables it again. Each rule a manifest adds gets the baseline
// pass over its path. Documents are built on the processor's own thread;
// destruction builds what still waits before the spool goes.
//
// With a health-status writer it records how each configuration and
// manifest went (loaded, or refused and why).
//
// Thread-safe: UpdateConfig, Disable and the accessors may be called from
// any thread while events arrive.
class Component
{
public:
    static constexpr const char* kTag = "FIM";
    static constexpr const char* kBaselineDbName = "BaselineEvents.db";
    static constexpr uint64_t kMaxSpoolFiles = 10000;

    using UpdateCallback = std::function<void(bool success)>;

    // What FIM lost or held back so far, as totals.
    struct LossCounts
    {
        // Documents built before their files settled (none is lost).
        uint64_t documentOverflows = 0;
        // Objects whose content could not be read for a document.
        uint64_t unreadableContent = 0;
        // Events and documents that never reached the spool.
        uint64_t failedDocuments = 0;
        // Spool files (and bytes) given up before their upload.
        uint64_t spoolDroppedFiles = 0;
        uint64_t spoolDroppedBytes = 0;
    };

    // Throws std::runtime_error "FimComponent: 'config' cannot be null" /
    // "FimComponent: 'uploader' cannot be null" / "FimComponent: 'ruleEngine'
    // cannot be null", and the storages' exceptions when the spool or the
    // baseline store cannot be set up. The scheduler must outlive the
    // component. ruleEngine is the daemon's engine (whichever capture
    // backs it): the component adds its rules and handlers there under kTag.
    // The spool lives in event_file_path + "fim/" (created when missing), the
    // baseline store in installPath. blackout holds the periods in which
    // uploads wait (null: none); processes is the daemon's process tree
    // (null: none known); healthStatus receives the component's
    // health-status records (null: none are written).
    Component(std::unique_ptr<Config> config, std::shared_ptr<common::HttpUploader> uploader,
              common::Scheduler& scheduler, std::shared_ptr<edr::EventRuleEngine> ruleEngine,
              const std::string& installPath, std::shared_ptr<const edr::BlackoutManager> blackout = nullptr,
              std::shared_ptr<const edr::ProcessLookup> processes = nullptr,
              std::shared_ptr<edr::AHSRecordWriter> healthStatus = nullptr);
    ~Component();

    Component(const Component&) = delete;
    Component& operator=(const Component&) = delete;

    // Applies a new "fim_config" and reloads the manifest. Throws
    // std::invalid_argument "Fim::Config::Update: Invalid json" (after
    // reporting failure through the callback); nothing changes then.
    void UpdateConfig(const rapidjson::Value& json, const UpdateCallback& callback = {});

    // Stops reporting: unregisters the handlers and the rules, stops the
    // uploads and clears the spool.
    void Disable();

    // Queues the baseline pass over every watched path. It also runs by
    // itself for the rules a manifest adds (at start and on each "config"),
    // on the component's document thread at a bounded rate.
    void RunBaseline();

    // Builds every document that waits for its file to settle, now.
    void FlushDocuments();

    // Events whose documents were built before their files settled because
    // too many were waiting.
    uint64_t GetDocumentOverflowCount() const;
    LossCounts GetLossCounts() const;

    bool IsEnabled() const;
    const Config& GetConfig() const { return *m_config; }
    common::SpoolStorage& GetSpool() { return *m_spool; }
    const std::shared_ptr<const edr::BlackoutManager>& GetBlackout() const { return m_blackout; }
    // The daemon's process tree as handed; null when none was.
    const std::shared_ptr<const edr::ProcessLookup>& GetProcesses() const { return m_processes; }

private:
    void Enable();
    void DisableLocked();
    void UnregisterLocked();
    void BaselineAddedRulesLocked();
    void Record(const char* contextId, int64_t statusCode, edr::AHSState state,
                const std::vector<edr::AHSRecordWriter::Field>& fields) const;

    // In construction order; destroyed in reverse.
    std::unique_ptr<Config> m_config;
    std::shared_ptr<common::HttpUploader> m_uploader;
    std::shared_ptr<edr::EventRuleEngine> m_ruleEngine;
    const std::shared_ptr<const edr::BlackoutManager> m_blackout;
    const std::shared_ptr<const edr::ProcessLookup> m_processes;
    const std::shared_ptr<edr::AHSRecordWriter> m_healthStatus;
    common::Scheduler& m_scheduler;
    std::unique_ptr<internal::EventRuleManager> m_ruleManager;
    std::unique_ptr<common::SpoolStorage> m_spool;
    std::shared_ptr<internal::UploadSchedule> m_uploadSchedule;
    std::unique_ptr<common::SqlStorage> m_baseline;
    std::unique_ptr<internal::EventProcessor> m_processor;

    mutable std::mutex m_mutex;
    bool m_enabled = false;
    bool m_registered = false;
    // Rules (id and path) whose paths had their baseline pass.
    std::set<std::string> m_baselinedRules;
};

} // namespace vantor::fim
