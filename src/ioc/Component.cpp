#include "ioc/Component.h"

#include "common/HttpUploader.h"
#include "common/Logging.h"
#include "common/Scheduler.h"
#include "common/SpoolRawDataFormatter.h"
#include "common/SpoolStorage.h"
#include "common/SqlStorage.h"
#include "edr/EventRuleEngine.h"
#include "ioc/BatchWriter.h"
#include "ioc/ClientInformation.h"
#include "ioc/ConfigUpdateTask.h"
#include "ioc/EventFields.h"
#include "ioc/EventProcessor.h"
#include "ioc/EventRuleManager.h"
#include "ioc/FilteringEngine.h"
#include "ioc/HashMatchingEngine.h"
#include "ioc/HeuristicsEngine.h"
#include "ioc/ProcessingThread.h"
#include "ioc/SequenceNumber.h"
#include "ioc/SnapshotSqlDataFormatter.h"
#include "ioc/TaggingEngine.h"
#include "ioc/TtlProcessTree.h"
#include "ioc/UploadSchedule.h"
#include "ioc/protobuf/DataFormatter.h"
#include "ioc/protobuf/IocEvents.pb.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace vantor::ioc
{

namespace
{

std::unique_ptr<Ioc::Config> CheckConfig(std::unique_ptr<Ioc::Config> config)
{
    if (!config)
    {
        throw std::runtime_error("ioc::Component: 'config' cannot be null");
    }
    return config;
}

std::shared_ptr<common::HttpUploader> CheckUploader(std::shared_ptr<common::HttpUploader> uploader)
{
    if (!uploader)
    {
        throw std::runtime_error("ioc::Component: 'uploader' cannot be null");
    }
    return uploader;
}

// The number of the newest batch in the spool that can be read; 0 when none.
uint64_t NewestSpooledBatch(const common::SpoolStorage& spool)
{
    const auto indices = spool.FileIndices();
    for (auto index = indices.rbegin(); index != indices.rend(); ++index)
    {
        std::ifstream in(spool.FileName(*index), std::ios::binary);
        com::corvid::ioc::model::proto::event::IoCEvent batch;
        if (in && batch.ParseFromIstream(&in))
        {
            return batch.sequenceno();
        }
    }
    return 0;
}

std::string WithSlash(std::string directory)
{
    if (directory.empty() || directory.back() != '/')
    {
        directory += '/';
    }
    return directory;
}

void CreateDirectory(const std::string& directory)
{
    std::error_code ec;
    std::filesystem::create_directories(directory, ec);
    if (ec)
    {
        EDR_LOG_ERROR("ioc::Component: Cannot create " << directory << ": " << ec.message());
    }
}

common::SpoolStorage::Settings SpoolSettings(const Ioc::Config& config)
{
    common::SpoolStorage::Settings settings;
    settings.maxDiskSizeMb = config.MaxDiskSizeMb();
    settings.maxFileAgeSec = config.MaxFileAgeSec();
    settings.maxFileSizeKb = config.MaxFileSizeKb();
    return settings;
}

} // namespace

Component::Component(uint64_t bootTime, std::unique_ptr<Ioc::Config> config,
                     std::shared_ptr<const edr::LibMagicWrapper> magic, common::Scheduler& scheduler,
                     std::shared_ptr<common::HttpUploader> uploader, edr::EventRuleEngine& ruleEngine,
                     uint64_t cpuLimit, uint64_t memoryLimit, BlackoutCheck blackout,
                     const std::string& installPath, internal::protobuf::AgentIdentity identity)
    : m_bootTime(bootTime)
    , m_config(CheckConfig(std::move(config)))
    , m_uploader(CheckUploader(std::move(uploader)))
    , m_magic(std::move(magic))
    , m_scheduler(scheduler)
    , m_ruleEngine(ruleEngine)
    , m_limits{cpuLimit, memoryLimit}
    , m_blackout(std::move(blackout))
    , m_installPath(installPath)
    , m_identity(std::move(identity))
{
    const std::string snapshotDirectory = installPath + kSnapshotDirectory;
    CreateDirectory(snapshotDirectory);
    m_snapshot = std::make_unique<common::SqlStorage>(
        snapshotDirectory, kSnapshotDbName, std::make_unique<internal::SnapshotSqlDataFormatter>(), false);
    m_sequenceNumber = std::make_unique<internal::SequenceNumber>(*m_snapshot);
    m_processTree = std::make_unique<TtlProcessTree>();
    m_processTree->Load(*m_snapshot);
    m_ruleManager = std::make_unique<internal::EventRuleManager>();
    MakeEngines();
    {
        std::lock_guard lock(m_mutex);
        ApplySpoolSettingsLocked();
    }
    m_updates = std::make_unique<internal::ConfigUpdateTask>();
    {
        std::lock_guard lock(m_mutex);
        ApplyManifestsLocked();
    }
    EDR_LOG_INFO("Component initialized.");
}

Component::~Component()
{
    m_updates.reset();
    {
        std::lock_guard lock(m_mutex);
        // After this no handler runs, so the parts can go.
        RemoveRulesLocked();
        // What is queued is processed and the open batch spooled.
        std::unique_lock pipeline(m_pipelineMutex);
        DropBatchPipelineLocked();
        if (m_enabled)
        {
            m_processTree->Save(*m_snapshot);
        }
    }
    m_spool.reset();
    EDR_LOG_INFO("Ioc component destroyed.");
}

void Component::UpdateConfig(const rapidjson::Value& json, UpdateCallback callback)
{
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    json.Accept(writer);
    m_updates->Submit([this, text = std::string(buffer.GetString(), buffer.GetSize()),
                       callback = std::move(callback)] { ApplyConfig(text, callback); });
}

void Component::ApplyConfig(const std::string& json, const UpdateCallback& callback)
{
    bool enabled = false;
    {
        std::lock_guard lock(m_mutex);
        if (m_config->Update(json))
        {
            ApplySpoolSettingsLocked();
            ApplyManifestsLocked();
            enabled = m_enabled;
        }
    }
    if (callback)
    {
        callback(enabled);
    }
}

void Component::ApplySpoolSettingsLocked()
{
    const std::string path = m_config->EventFilePath();
    const std::string directory = WithSlash(path.empty() ? m_installPath : path) + "ioc/";
    const std::string name = m_config->EventFileName();
    const std::string prefix = name.empty() ? kDefaultEventFileName : name;
    if (m_spool && directory == m_spoolDirectory && prefix == m_spoolPrefix)
    {
        m_spool->Update(SpoolSettings(*m_config));
        return;
    }
    CreateDirectory(directory);
    // A new place or name: the batches spooled so far stay where they are.
    // Events wait for the new pipeline rather than reach a gone one.
    std::unique_lock pipeline(m_pipelineMutex);
    DropBatchPipelineLocked();
    if (m_spool)
    {
        const auto dropped = m_spool->Dropped();
        m_spoolDroppedBefore.files += dropped.files;
        m_spoolDroppedBefore.bytes += dropped.bytes;
    }
    m_spool.reset();
    m_spool = std::make_unique<common::SpoolStorage>(m_scheduler, directory, prefix,
                                                     std::make_unique<common::SpoolRawDataFormatter>(),
                                                     SpoolSettings(*m_config), kMaxSpoolFiles);
    m_spoolDirectory = directory;
    m_spoolPrefix = prefix;
    m_sequenceNumber->AtLeast(NewestSpooledBatch(*m_spool));
    MakeBatchPipelineLocked();
}

void Component::MakeBatchPipelineLocked()
{
    m_formatter = std::make_unique<internal::protobuf::DataFormatter>(
        m_identity, internal::protobuf::DataFormatter::Services{*m_snapshot, *m_sequenceNumber, *m_spool,
                                                                *m_config, *m_ruleManager, m_magic});
    m_batchWriter = std::make_unique<internal::BatchWriter>(*m_formatter);
    m_processingThread = std::make_unique<internal::ProcessingThread>(
        *m_processor, [writer = m_batchWriter.get()](bool stopping) { writer->FinishIfDue(stopping); });
    m_uploadSchedule = std::make_shared<internal::UploadSchedule>(
        *m_config, m_identity.customerId, m_identity.agentId, *m_spool, m_uploader, m_blackout);
    m_uploadSchedule->SetGatewayUrlPrefix(m_ruleManager->HasGatewayUrl() ? m_ruleManager->GetGatewayUrl()
                                                                         : "");
    m_scheduler.RegisterSchedule(m_uploadSchedule);
    m_processingThread->Start();
}

void Component::DropBatchPipelineLocked()
{
    if (!m_processingThread)
    {
        return;
    }
    m_processingThread->Stop();
    m_scheduler.UnregisterSchedule(m_uploadSchedule);
    m_uploadSchedule->Stop();
    m_droppedBefore += m_processingThread->DroppedCount();
    m_lostBefore += m_batchWriter->LostEvents();
    m_uploadSchedule.reset();
    m_processingThread.reset();
    m_batchWriter.reset();
    m_formatter.reset();
}

uint64_t Component::GetDroppedEventCount() const
{
    std::lock_guard lock(m_mutex);
    return m_droppedBefore + (m_processingThread ? m_processingThread->DroppedCount() : 0);
}

uint64_t Component::GetLostBatchEventCount() const
{
    std::lock_guard lock(m_mutex);
    return m_lostBefore + (m_batchWriter ? m_batchWriter->LostEvents() : 0);
}

common::SpoolStorage::DropCount Component::GetSpoolDropCount() const
{
    std::lock_guard lock(m_mutex);
    auto count = m_spoolDroppedBefore;
    if (m_spool)
    {
        const auto dropped = m_spool->Dropped();
        count.files += dropped.files;
        count.bytes += dropped.bytes;
    }
    return count;
}

void Component::ApplyManifestsLocked()
{
    const auto manifests = m_config->GetManifests();
    const bool loaded = m_ruleManager->LoadManifests(manifests);
    if (loaded)
    {
        ConfigureEnginesLocked();
        m_uploadSchedule->SetGatewayUrlPrefix(m_ruleManager->HasGatewayUrl() ? m_ruleManager->GetGatewayUrl()
                                                                             : std::string());
        InstallRulesLocked();
    }
    else
    {
        RemoveRulesLocked();
    }
    if (manifests.empty())
    {
        EDR_LOG_INFO("Disabling IOC");
        ClearSnapshotLocked();
        m_enabled = false;
        return;
    }
    m_enabled = loaded;
    if (m_enabled)
    {
        WriteBootTime();
    }
}

void Component::InstallRulesLocked()
{
    if (!m_registered)
    {
        m_ruleEngine.RegisterEventHandlers(
            kTag, [this](edr::Event& event) { OnEvent(event); }, [this] { OnRulesInvalidated(); });
        m_registered = true;
    }
    try
    {
        // The rules of the previous policy go first: ids may be reused.
        m_ruleEngine.DeleteRules(kTag);
        m_ruleEngine.AddRules(m_ruleManager->GetAuditRules(), kTag);
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("Ioc::Component: Failed to install rules: " << e.what());
    }
}

void Component::RemoveRulesLocked()
{
    if (m_registered)
    {
        try
        {
            m_ruleEngine.UnregisterEventHandlers(kTag);
        }
        catch (const std::exception& e)
        {
            EDR_LOG_ERROR("Ioc::Component: Failed to unregister handlers: " << e.what());
        }
        m_registered = false;
    }
    try
    {
        m_ruleEngine.DeleteRules(kTag);
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("Ioc::Component: Failed to delete rules: " << e.what());
    }
}

void Component::ClearSnapshotLocked()
{
    m_processTree->Clear();
    const auto result = m_snapshot->DeleteAll();
    const auto processes = m_snapshot->Clear(internal::SnapshotSqlDataFormatter::kTtlProcesses);
    // The formatter remembers rows it read as stored.
    if (m_formatter)
    {
        m_formatter->SnapshotCleared();
    }
    if (result.success && processes.success)
    {
        EDR_LOG_INFO("Successfully cleared sql storage");
    }
    else
    {
        EDR_LOG_ERROR("Failed to clear sql storage");
    }
}

void Component::WriteBootTime()
{
    const auto result = internal::ClientInformation::Write(
        *m_snapshot, internal::SnapshotSqlDataFormatter::kBootTime, std::to_string(m_bootTime));
    if (!result.success)
    {
        EDR_LOG_ERROR("Ioc::Component: Failed to write the boot time: " << result.error);
    }
}

void Component::OnEvent(const edr::Event& event)
{
    // Handlers run only while rules are installed, which is after the first
    // pipeline is made and before the last one goes.
    std::shared_lock pipeline(m_pipelineMutex);
    m_processingThread->Enqueue(std::shared_ptr<const edr::Event>(event.Clone()));
}

void Component::OnRulesInvalidated()
{
    try
    {
        m_ruleEngine.AddRules(m_ruleManager->GetAuditRules(), kTag);
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("Ioc::Component: Failed to install rules again: " << e.what());
    }
}

void Component::OnReported(const std::shared_ptr<const edr::Event>& event)
{
    ++m_reportedCount;
    EDR_LOG_DEBUG("Ioc::Component: Reported " << internal::EventFields::Describe(*event));
    // Not in the tree, the message goes without its actor.
    const ProcessInfo* actor = nullptr;
    if (const auto pid = internal::EventFields::ProcessId(*event);
        pid && m_processTree->VisitProcess(*pid, [this](const ProcessInfo& held) { m_reportedActor = held; }))
    {
        actor = &m_reportedActor;
    }
    m_batchWriter->Append(*event, actor);
}

void Component::OnSwept()
{
    m_processTree->Save(*m_snapshot);
}

void Component::MakeEngines()
{
    m_filteringEngine = std::make_unique<internal::FilteringEngine>(*m_processTree);
    m_hashMatchingEngine = std::make_unique<internal::HashMatchingEngine>(*m_processTree);
    m_heuristicsEngine = std::make_unique<internal::HeuristicsEngine>(*m_processTree, false);
    m_taggingEngine = std::make_unique<internal::TaggingEngine>(*m_processTree);
    m_processor = std::make_unique<internal::EventProcessor>(
        *m_processTree, *m_filteringEngine, *m_hashMatchingEngine, *m_heuristicsEngine, *m_taggingEngine,
        [this](const auto& event) { OnReported(event); }, [this] { OnSwept(); });
}

void Component::ConfigureEnginesLocked()
{
    m_filteringEngine->SetRules(m_ruleManager->GetRules());
    m_hashMatchingEngine->Reset(m_ruleManager->GetKnownProcessPaths(),
                                m_ruleManager->GetMaxFileSizeToProcess());
    // No "tags" in any manifest switches tagging off.
    m_taggingEngine->ApplySettings(m_ruleManager->GetTaggingSettings());
    try
    {
        m_heuristicsEngine->Reconfigure(m_ruleManager->IsHeuristicsEnabled(),
                                        internal::HeuristicsEngine::kMaxCount);
    }
    catch (const std::invalid_argument& e)
    {
        // The previous settings stay.
        EDR_LOG_ERROR(e.what());
    }
}

bool Component::IsEnabled() const
{
    std::lock_guard lock(m_mutex);
    return m_enabled;
}

uint64_t Component::GetSequenceNumber() const
{
    return m_sequenceNumber->Current();
}

} // namespace vantor::ioc
