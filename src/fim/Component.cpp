#include "fim/Component.h"

#include "common/HttpUploader.h"
#include "common/Logging.h"
#include "common/Scheduler.h"
#include "common/SpoolStorage.h"
#include "common/SqlStorage.h"
#include "fim/BaselineEvent.h"
#include "fim/BaselineEventSqlDataFormatter.h"
#include "fim/EventProcessor.h"
#include "fim/EventRuleManager.h"
#include "fim/JsonDataFormatter.h"
#include "fim/UploadSchedule.h"

#include <chrono>
#include <filesystem>
#include <set>
#include <stdexcept>

namespace vantor::fim
{

namespace
{

std::string SpoolDirectory(const Config& config)
{
    std::string directory = config.EventFilePath();
    if (!directory.empty() && directory.back() != '/')
    {
        directory += '/';
    }
    return directory + "fim/";
}

common::SpoolStorage::Settings SpoolSettings(const Config& config)
{
    common::SpoolStorage::Settings settings;
    settings.maxDiskSizeMb = config.MaxDiskSizeMb();
    settings.maxFileAgeSec = config.MaxFileAgeSec();
    settings.maxFileSizeKb = config.MaxFileSizeKb();
    return settings;
}

std::unique_ptr<Config> CheckConfig(std::unique_ptr<Config> config)
{
    if (!config)
    {
        throw std::runtime_error("FimComponent: 'config' cannot be null");
    }
    return config;
}

} // namespace

Component::Component(std::unique_ptr<Config> config, std::shared_ptr<common::HttpUploader> uploader,
                     common::Scheduler& scheduler, std::shared_ptr<edr::EventRuleEngine> ruleEngine,
                     const std::string& installPath, std::shared_ptr<const edr::BlackoutManager> blackout,
                     std::shared_ptr<const edr::ProcessLookup> processes,
                     std::shared_ptr<edr::AHSRecordWriter> healthStatus)
    : m_config(CheckConfig(std::move(config)))
    , m_uploader(std::move(uploader))
    , m_ruleEngine(std::move(ruleEngine))
    , m_blackout(std::move(blackout))
    , m_processes(std::move(processes))
    , m_healthStatus(std::move(healthStatus))
    , m_scheduler(scheduler)
{
    if (!m_uploader)
    {
        throw std::runtime_error("FimComponent: 'uploader' cannot be null");
    }
    if (!m_ruleEngine)
    {
        throw std::runtime_error("FimComponent: 'ruleEngine' cannot be null");
    }
    m_ruleManager = std::make_unique<internal::EventRuleManager>(*m_ruleEngine, kTag);

    const std::string directory = SpoolDirectory(*m_config);
    std::error_code ec;
    std::filesystem::create_directories(directory, ec);
    if (ec)
    {
        EDR_LOG_ERROR("FimComponent: Cannot create " << directory << ": " << ec.message());
    }
    m_spool = std::make_unique<common::SpoolStorage>(m_scheduler, directory, m_config->EventFileName(),
                                                     std::make_unique<internal::JsonDataFormatter>(),
                                                     SpoolSettings(*m_config), kMaxSpoolFiles);
    internal::UploadSchedule::BlackoutCheck inBlackout;
    if (m_blackout)
    {
        inBlackout = [blackout = m_blackout] { return blackout->IsBlackout(); };
    }
    m_uploadSchedule =
        std::make_shared<internal::UploadSchedule>(*m_config, *m_spool, m_uploader, inBlackout);
    // The store comes before the processor that writes into it.
    m_baseline = std::make_unique<common::SqlStorage>(
        installPath, kBaselineDbName, std::make_unique<BaselineEventSqlDataFormatter>(), true);
    internal::EventProcessor::Settings settings;
    settings.settleTime = std::chrono::milliseconds(m_config->ContentSettleTimeMs());
    settings.baselineFilesPerSecond = m_config->BaselineFilesPerSec();
    // The daemon's own files are not part of what it watches.
    const std::string database = (std::filesystem::path(installPath) / kBaselineDbName).string();
    settings.ownDirectories = {directory, database, database + "-journal", database + "-wal"};
    m_processor = std::make_unique<internal::EventProcessor>(*m_ruleManager, *m_spool, m_baseline.get(),
                                                             std::move(settings));

    Enable();
    EDR_LOG_INFO("Component initialized.");
}

Component::~Component()
{
    {
        std::lock_guard lock(m_mutex);
        // After this no handler runs, so the parts can go.
        UnregisterLocked();
    }
    m_uploadSchedule->Stop();
    m_processor.reset();
    m_baseline.reset();
    m_uploadSchedule.reset();
    m_spool.reset();
    m_ruleManager.reset();
    EDR_LOG_INFO("Component destroyed.");
}

void Component::Enable()
{
    std::lock_guard lock(m_mutex);
    const std::string manifest = m_config->ManifestPath();
    const auto reason = m_ruleManager->LoadManifest(manifest);
    if (reason)
    {
        Record(edr::AHSContext::kFimManifest, edr::AHSStatusCode::kManifestRefused, edr::AHSState::Failed,
               {{"path", manifest}, {"reason", *reason}});
        DisableLocked();
        return;
    }
    Record(edr::AHSContext::kFimManifest, edr::AHSStatusCode::kConfigLoaded, edr::AHSState::Ok,
           {{"path", manifest}, {"rules", uint64_t{m_ruleManager->GetRules()->rules.size()}}});
    BaselineAddedRulesLocked();
    if (!m_registered)
    {
        internal::EventProcessor* processor = m_processor.get();
        internal::EventRuleManager* manager = m_ruleManager.get();
        m_ruleEngine->RegisterEventHandlers(
            kTag, [processor](edr::Event& event) { processor->HandleEvent(event); },
            [manager] { manager->OnInvalidated(); });
        m_scheduler.RegisterSchedule(m_uploadSchedule);
        m_registered = true;
    }
    m_enabled = true;
}

void Component::UnregisterLocked()
{
    if (m_registered)
    {
        try
        {
            m_ruleEngine->UnregisterEventHandlers(kTag);
        }
        catch (const std::exception& e)
        {
            EDR_LOG_ERROR("FimComponent: Failed to unregister handlers: " << e.what());
        }
        m_scheduler.UnregisterSchedule(m_uploadSchedule);
        m_registered = false;
    }
    m_ruleManager->Clear();
}

void Component::Disable()
{
    std::lock_guard lock(m_mutex);
    DisableLocked();
}

void Component::DisableLocked()
{
    EDR_LOG_INFO("Disabling FIM");
    UnregisterLocked();
    m_enabled = false;
    m_baselinedRules.clear();
    // What is under way goes with the spool.
    m_processor->StopBaseline();
    m_processor->Flush();
    try
    {
        m_spool->Clear();
        EDR_LOG_INFO("Successfully cleared spool storage");
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("Failed to clear spool storage: " << e.what());
    }
}

void Component::UpdateConfig(const rapidjson::Value& json, const UpdateCallback& callback)
{
    try
    {
        m_config->Update(json);
    }
    catch (const std::invalid_argument& e)
    {
        Record(edr::AHSContext::kFimConfig, edr::AHSStatusCode::kConfigRefused, edr::AHSState::Failed,
               {{"reason", std::string(e.what())}});
        if (callback)
        {
            callback(false);
        }
        throw;
    }
    m_spool->Update(SpoolSettings(*m_config));
    m_processor->UpdateSettings(std::chrono::milliseconds(m_config->ContentSettleTimeMs()),
                                m_config->BaselineFilesPerSec());
    EDR_LOG_INFO("Component::UpdateConfig: Configuration updated");
    Enable();
    if (callback)
    {
        callback(IsEnabled());
    }
}

void Component::RunBaseline()
{
    std::vector<std::string> roots;
    for (const auto& rule : m_ruleManager->GetRules()->rules)
    {
        roots.push_back(rule->GetPath());
    }
    m_processor->StartBaseline(std::move(roots));
}

void Component::BaselineAddedRulesLocked()
{
    std::set<std::string> keys;
    std::vector<std::string> roots;
    for (const auto& rule : m_ruleManager->GetRules()->rules)
    {
        std::string key = rule->GetId() + '\n' + rule->GetPath();
        if (m_baselinedRules.count(key) == 0)
        {
            roots.push_back(rule->GetPath());
        }
        keys.insert(std::move(key));
    }
    m_baselinedRules = std::move(keys);
    if (!roots.empty())
    {
        EDR_LOG_INFO("FimComponent: Baseline pass over " << roots.size() << " watched paths");
        m_processor->StartBaseline(std::move(roots));
    }
}

uint64_t Component::GetDocumentOverflowCount() const
{
    return m_processor->GetOverflowCount();
}

Component::LossCounts Component::GetLossCounts() const
{
    LossCounts counts;
    counts.documentOverflows = m_processor->GetOverflowCount();
    counts.unreadableContent = m_processor->GetUnreadableCount();
    counts.failedDocuments = m_processor->GetFailedCount();
    const auto dropped = m_spool->Dropped();
    counts.spoolDroppedFiles = dropped.files;
    counts.spoolDroppedBytes = dropped.bytes;
    return counts;
}

void Component::Record(const char* contextId, int64_t statusCode, edr::AHSState state,
                       const std::vector<edr::AHSRecordWriter::Field>& fields) const
{
    if (m_healthStatus)
    {
        m_healthStatus->Write(contextId, statusCode, state, fields);
    }
}

void Component::FlushDocuments()
{
    m_processor->Flush();
}

bool Component::IsEnabled() const
{
    std::lock_guard lock(m_mutex);
    return m_enabled;
}

} // namespace vantor::fim
