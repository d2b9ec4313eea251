#include "ioc/FilterGroup.h"

#include "common/util/Json.h"
#include "edr/FilterCriteriaException.h"
#include "edr/TimeCriteria.h"
#include "edr/UserCriteria.h"
#include "ioc/DirectoryCriteria.h"
#include "ioc/EventRuleException.h"
#include "ioc/FileCriteria.h"
#include "ioc/GlobalCriteria.h"
#include "ioc/NetworkCriteria.h"
#include "ioc/ProcessCriteria.h"

#include <algorithm>

namespace vantor::ioc::internal
{

namespace
{

const rapidjson::Value& RequireArray(const rapidjson::Value& filter, const char* member, const char* error)
{
    const auto it = filter.FindMember(member);
    if (it == filter.MemberEnd() || !it->value.IsArray())
    {
        throw EventRuleException(error);
    }
    return it->value;
}

const rapidjson::Value& Patterns(const rapidjson::Value& filter)
{
    return RequireArray(filter, "patterns", "Missing or invalid patterns in filterType");
}

} // namespace

FilterGroup FilterGroup::Parse(const rapidjson::Value& group)
{
    if (!group.IsObject())
    {
        throw EventRuleException("Missing or invalid filter type array");
    }
    const auto& filters = RequireArray(group, "filterType", "Missing or invalid filter type array");
    if (filters.Empty())
    {
        throw EventRuleException("Missing or invalid filter type array");
    }
    FilterGroup result;
    for (const auto& filter : filters.GetArray())
    {
        try
        {
            result.m_criteria.push_back(ParseFilter(filter));
        }
        catch (const edr::FilterCriteriaException& e)
        {
            throw EventRuleException(e.what());
        }
    }
    return result;
}

std::shared_ptr<const edr::FilterCriteria> FilterGroup::ParseFilter(const rapidjson::Value& filter)
{
    if (!filter.IsObject() || !filter.HasMember("objectType") || !filter["objectType"].IsString())
    {
        throw EventRuleException("Missing or invalid object type in filterType");
    }
    const std::string objectType(util::GetString(filter, "objectType"));
    if (objectType == "file")
    {
        return std::make_shared<FileCriteria>(Patterns(filter));
    }
    if (objectType == "directory")
    {
        return std::make_shared<DirectoryCriteria>(Patterns(filter));
    }
    if (objectType == "process")
    {
        return std::make_shared<ProcessCriteria>(
            RequireArray(filter, "actorProcess", "Missing or invalid actorProcess in filterType"));
    }
    if (objectType == "parentProcess")
    {
        return std::make_shared<GlobalCriteria>(
            RequireArray(filter, "parentProcess", "Missing or invalid parentProcesses in filterType"));
    }
    if (objectType == "user")
    {
        auto criteria = std::make_shared<edr::UserCriteria>();
        criteria->Set(edr::FilterCriteria::ParsePatterns(Patterns(filter)));
        return criteria;
    }
    if (objectType == "time")
    {
        auto criteria = std::make_shared<edr::TimeCriteria>();
        criteria->Set(std::string(util::GetString(filter, "startTime")),
                      std::string(util::GetString(filter, "endTime")));
        return criteria;
    }
    if (objectType == "network")
    {
        return std::make_shared<NetworkCriteria>(filter);
    }
    throw EventRuleException("Unsupported value: " + objectType + " provided in filterType");
}

std::vector<FilterGroup> FilterGroup::ParseList(const rapidjson::Value& rule, const char* member)
{
    std::vector<FilterGroup> groups;
    const auto it = rule.FindMember(member);
    if (it == rule.MemberEnd())
    {
        return groups;
    }
    if (!it->value.IsArray())
    {
        throw EventRuleException("Not an array of filters");
    }
    for (const auto& group : it->value.GetArray())
    {
        groups.push_back(Parse(group));
    }
    return groups;
}

bool FilterGroup::Match(const edr::Event& event) const
{
    // A criteria whose question the event cannot answer (a user name, a
    // time) does not match.
    return std::all_of(m_criteria.begin(), m_criteria.end(),
                       [&](const auto& criteria)
                       {
                           try
                           {
                               return criteria->Match(event);
                           }
                           catch (const edr::EventException&)
                           {
                               return false;
                           }
                       });
}

} // namespace vantor::ioc::internal
