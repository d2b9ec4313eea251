#include "fim/EventProcessor.h"

#include "common/Logging.h"
#include "common/SpoolStorage.h"
#include "fim/EventDocument.h"
#include "fim/PostProcessor.h"

#include <sys/stat.h>

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

} // namespace

EventProcessor::EventProcessor(const EventRuleManager& ruleManager, common::SpoolStorage& spool,
                               common::SqlStorage* baseline)
    : m_ruleManager(ruleManager)
    , m_spool(spool)
    , m_baselineWalk(ruleManager, baseline, [this](std::string document) { Spool(std::move(document)); })
{
}

EventProcessor::~EventProcessor()
{
    EDR_LOG_DEBUG("Destroying EventProcessor");
}

void EventProcessor::HandleEvent(edr::Event& event)
{
    try
    {
        if (event.GetCategory() == kBaselineCategory)
        {
            m_baselineWalk.Run(event);
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
        const std::string path = event.GetFile();
        EDR_LOG_DEBUG("Processing Event id: " << eventId << " path: " << path);
        const bool isDirectory = IsDirectoryEvent(event);
        std::string newPath;
        if (event.GetType() == edr::EventType::Rename)
        {
            try
            {
                newPath = event.GetNewFile();
            }
            catch (const std::exception&)
            {
            }
        }

        const auto rules = m_ruleManager.GetRules();
        EventDocument::Input input;
        input.path = path;
        input.isDirectory = isDirectory;
        input.collectHashes = rules->collectHashes;
        for (const auto& rule : rules->rules)
        {
            // A rename into a watched directory is reported under its new
            // path's rule as well.
            const bool byOld = PostProcessor::Covers(*rule, path);
            const bool byNew = !byOld && !newPath.empty() && PostProcessor::Covers(*rule, newPath);
            if (!byOld && !byNew)
            {
                continue;
            }
            EDR_LOG_DEBUG("PostProcess event for ruleId: " << rule->GetRuleId());
            if (PostProcessor::Passes(*rule, event, byOld ? path : newPath, isDirectory))
            {
                input.rules.push_back(rule.get());
            }
            else
            {
                EDR_LOG_DEBUG("Event id: " << eventId << " not matched with Rule id: " << rule->GetRuleId());
            }
        }
        if (input.rules.empty())
        {
            EDR_LOG_DEBUG("Dropping Event as no rules criteria matched in post-process: " << eventId);
            return;
        }
        input.action = EventDocument::ActionWord(event.GetType(), input.rules);
        Spool(EventDocument::Build(event, input));
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("Event exception: " << e.what());
    }
}

void EventProcessor::Spool(std::string document)
{
    // The callback runs on the spool's task: it must not touch the event.
    m_spool.WriteAsync(std::move(document),
                       [](const common::SpoolStorage::WriteResult& result)
                       {
                           if (result.Succeeded())
                           {
                               EDR_LOG_DEBUG("Event json written to disc successfully");
                           }
                           else
                           {
                               EDR_LOG_ERROR("Failed to write Event json to disc: " << result.message);
                           }
                       });
}

} // namespace vantor::fim::internal
