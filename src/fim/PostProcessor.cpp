#include "fim/PostProcessor.h"

#include "common/Logging.h"

#include <algorithm>

namespace vantor::fim::internal
{

int PostProcessor::PathDepth(const std::string& rulePath, const std::string& path)
{
    if (path.size() <= rulePath.size() || path.compare(0, rulePath.size(), rulePath) != 0)
    {
        return -1;
    }
    size_t pos = rulePath.size();
    if (rulePath != "/")
    {
        if (path[pos] != '/')
        {
            return -1;
        }
    }
    else
    {
        pos = 0;
    }
    int components = 0;
    bool inComponent = false;
    for (; pos < path.size(); ++pos)
    {
        if (path[pos] == '/')
        {
            inComponent = false;
        }
        else if (!inComponent)
        {
            inComponent = true;
            ++components;
        }
    }
    return components - 1;
}

bool PostProcessor::Covers(const EventRule& rule, const std::string& path)
{
    if (path == rule.GetPath())
    {
        return true;
    }
    return rule.IsDirectoryRule() && PathDepth(rule.GetPath(), path) >= 0;
}

bool PostProcessor::ActionMatches(edr::EventType type, const edr::EventRule::ActionSet& notify)
{
    switch (type)
    {
    case edr::EventType::Create:
        return notify.count(EventRule::kCreate) != 0;
    case edr::EventType::Delete:
        return notify.count(EventRule::kDelete) != 0;
    case edr::EventType::Read:
        return notify.count(EventRule::kRead) != 0;
    case edr::EventType::Write:
        // Opening for writing without changing the content (touch) is a
        // change of timestamps alone; the settled content tells which.
        return notify.count(EventRule::kModifyContent) != 0 || notify.count(EventRule::kModifyMetadata) != 0;
    case edr::EventType::Attribute:
        return notify.count(EventRule::kModifyMetadata) != 0 ||
               notify.count(EventRule::kModifySecuritySettings) != 0;
    case edr::EventType::Rename:
        return notify.count(EventRule::kRename) != 0;
    default:
        return false;
    }
}

bool PostProcessor::PassesForBaseline(const EventRule& rule, const std::string& path, bool isDirectory)
{
    if (!Covers(rule, path) || (rule.IsDirectoryRule() &&
                                PathDepth(rule.GetPath(), path) > static_cast<int>(rule.GetRecursiveDepth())))
    {
        return false;
    }
    for (const auto& filter : rule.GetExclusionFilters())
    {
        if (!filter.HasEventCriteria() && filter.MatchPath(path, isDirectory))
        {
            return false;
        }
    }
    const auto& inclusions = rule.GetInclusionFilters();
    return inclusions.empty() ||
           std::any_of(inclusions.begin(), inclusions.end(),
                       [&](const RuleFilter& filter) { return filter.MatchPath(path, isDirectory); });
}

bool PostProcessor::Passes(const EventRule& rule, const edr::Event& event, const std::string& path,
                           bool isDirectory)
{
    if (rule.IsDirectoryRule())
    {
        const int depth = PathDepth(rule.GetPath(), path);
        EDR_LOG_TRACE("Depth of path :" << depth);
        EDR_LOG_TRACE("Recursive depth is set to:" << static_cast<int>(rule.GetRecursiveDepth()));
        if (depth > static_cast<int>(rule.GetRecursiveDepth()))
        {
            EDR_LOG_DEBUG("Event Path for PostProcessing " << path);
            EDR_LOG_DEBUG("Dropping Event");
            return false;
        }
    }

    EDR_LOG_TRACE("Applying Exclusion filters");
    for (const auto& filter : rule.GetExclusionFilters())
    {
        if (filter.Match(event, path, isDirectory))
        {
            return false;
        }
    }
    EDR_LOG_TRACE("Exclusion filters not matched");

    if (!rule.GetInclusionFilters().empty())
    {
        EDR_LOG_TRACE("matching inclusion criterias");
        bool included = false;
        for (const auto& filter : rule.GetInclusionFilters())
        {
            if (filter.Match(event, path, isDirectory))
            {
                included = true;
                break;
            }
        }
        if (!included)
        {
            return false;
        }
    }

    if (!ActionMatches(event.GetType(), rule.GetNotifyActions()))
    {
        EDR_LOG_DEBUG("Event id: " << event.GetEventId() << " not matching with rule for event:"
                                   << " as no actions matched in rule: " << rule.GetRuleId());
        return false;
    }
    return true;
}

} // namespace vantor::fim::internal
