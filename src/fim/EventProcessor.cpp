#include "fim/EventProcessor.h"

#include "common/Logging.h"
#include "common/SpoolStorage.h"
#include "fim/DocumentEvent.h"
#include "fim/PostProcessor.h"

#include <sys/stat.h>

#include <algorithm>

namespace vantor::fim::internal
{

namespace
{

bool IsDirectoryEvent(const edr::Event& event)
{
    try
    {
        return (event.GetFileType() & S_IFMT) == S_IFDIR;
    }
    catch (const std::exception&)
    {
        return false;
    }
}

// Whether the document needs the object's settled content: content or hash
// for the document, or the hash that tells a content change from a change
// of timestamps.
bool ReadsContent(const PendingDocument& document)
{
    if (document.isDirectory || document.type == edr::EventType::Delete)
    {
        return false;
    }
    return document.ruleSet->collectHashes ||
           std::any_of(document.rules.begin(), document.rules.end(),
                       [](const EventRule* rule) {
                           return rule->TracksContentChange() ||
                                  rule->GetNotifyActions().count(EventRule::kModifyMetadata) != 0;
                       });
}

} // namespace

EventProcessor::EventProcessor(const EventRuleManager& ruleManager, common::SpoolStorage& spool,
                               common::SqlStorage* baseline, Settings settings)
    : m_ruleManager(ruleManager)
    , m_spool(spool)
    , m_store(baseline)
    , m_builder(m_store, [this](std::string document) { Spool(std::move(document)); })
    , m_baselineWalk(ruleManager, m_builder, std::move(settings.ownDirectories))
    , m_thread(m_builder, m_baselineWalk, settings.maxPending)
{
    UpdateSettings(settings.settleTime, settings.baselineFilesPerSecond);
    m_thread.Start();
}

EventProcessor::EventProcessor(const EventRuleManager& ruleManager, common::SpoolStorage& spool,
                               common::SqlStorage* baseline)
    : EventProcessor(ruleManager, spool, baseline, Settings())
{
}

EventProcessor::~EventProcessor()
{
    Stop();
    EDR_LOG_DEBUG("Destroying EventProcessor");
}

void EventProcessor::UpdateSettings(std::chrono::milliseconds settleTime, uint64_t baselineFilesPerSecond)
{
    m_thread.SetSettleTime(settleTime);
    m_thread.SetBaselineRate(baselineFilesPerSecond);
}

void EventProcessor::StartBaseline(std::vector<std::string> roots)
{
    m_baselineWalk.Add(std::move(roots));
    m_thread.WakeBaseline();
}

void EventProcessor::StopBaseline()
{
    const size_t left = m_baselineWalk.Abandon();
    if (left > 0)
    {
        EDR_LOG_INFO("Baseline pass dropped with " << left << " watched paths not done");
    }
}

void EventProcessor::Flush()
{
    m_thread.Flush();
}

void EventProcessor::Stop()
{
    m_thread.Stop();
}

void EventProcessor::HandleEvent(edr::Event& event)
{
    try
    {
        if (event.GetCategory() == kBaselineCategory)
        {
            StartBaseline({event.GetFile()});
            return;
        }
    }
    catch (const std::exception&)
    {
        // Audit events need no category; they are simply not the baseline.
    }

    try
    {
        const uint32_t eventId = event.GetEventId();
        std::string path = event.GetFile();
        EDR_LOG_DEBUG("Processing Event id: " << eventId << " path: " << path);
        PendingDocument document;
        document.type = event.GetType();
        document.isDirectory = IsDirectoryEvent(event);
        std::string newPath;
        if (document.type == edr::EventType::Rename)
        {
            try
            {
                newPath = event.GetNewFile();
            }
            catch (const std::exception&)
            {
            }
        }

        document.ruleSet = m_ruleManager.GetRules();
        bool atSource = false;
        for (const auto& rule : document.ruleSet->rules)
        {
            // A rename into a watched tree is reported under its new path's
            // rule as well.
            const bool bySource = PostProcessor::Covers(*rule, path);
            const bool byDestination = !bySource && !newPath.empty() && PostProcessor::Covers(*rule, newPath);
            if (!bySource && !byDestination)
            {
                continue;
            }
            EDR_LOG_DEBUG("PostProcess event for ruleId: " << rule->GetRuleId());
            if (PostProcessor::Passes(*rule, event, bySource ? path : newPath, document.isDirectory))
            {
                document.rules.push_back(rule.get());
                atSource = atSource || bySource;
            }
            else
            {
                EDR_LOG_DEBUG("Event id: " << eventId << " not matched with Rule id: " << rule->GetRuleId());
            }
        }
        if (document.rules.empty())
        {
            EDR_LOG_DEBUG("Dropping Event as no rules criteria matched in post-process: " << eventId);
            return;
        }

        document.renamed = !newPath.empty();
        if (document.renamed && newPath != path)
        {
            document.source = std::make_unique<const std::string>(std::move(path));
            document.objectPath = std::move(newPath);
        }
        else
        {
            document.objectPath = std::move(path);
        }
        document.imageAtPath = atSource;
        document.readsContent = ReadsContent(document);
        if (document.type != edr::EventType::Delete)
        {
            document.SetObserved(FileState::Observe(document.objectPath));
        }
        document.event = std::make_unique<DocumentEvent>(event);
        const bool settles = document.readsContent;
        m_thread.Add(std::move(document), settles);
    }
    catch (const std::exception& e)
    {
        m_failedEvents.fetch_add(1, std::memory_order_relaxed);
        EDR_LOG_ERROR("Event exception: " << e.what());
    }
}

uint64_t EventProcessor::GetFailedCount() const
{
    return m_failedEvents.load(std::memory_order_relaxed) + m_builder.GetFailedCount() +
           m_thread.GetFailedCount() + m_failedWrites->load(std::memory_order_relaxed);
}

void EventProcessor::Spool(std::string document)
{
    // The callback runs on the spool's task: it must not touch the event.
    m_spool.WriteAsync(
        std::move(document),
        [failed = m_failedWrites](const common::SpoolStorage::WriteResult& result)
        {
            if (result.Succeeded())
            {
                EDR_LOG_DEBUG("Event json written to disc successfully");
            }
            else
            {
                failed->fetch_add(1, std::memory_order_relaxed);
                EDR_LOG_ERROR("Failed to write Event json to disc: " << result.message);
            }
        },
        common::SpoolStorage::Origin::Own);
}

} // namespace vantor::fim::internal
