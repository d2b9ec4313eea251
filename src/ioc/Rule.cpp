#include "ioc/Rule.h"

#include "common/Logging.h"
#include "common/util/Json.h"
#include "ioc/EventRuleException.h"

namespace vantor::ioc::internal
{

namespace
{

std::string ReadId(const rapidjson::Value& json)
{
    if (!json.IsObject())
    {
        throw EventRuleException("Invalid Rule");
    }
    const auto it = json.FindMember("ruleId");
    if (it == json.MemberEnd() || !it->value.IsString() || it->value.GetStringLength() == 0)
    {
        throw EventRuleException("Missing or invalid ruleId");
    }
    return {it->value.GetString(), it->value.GetStringLength()};
}

} // namespace

Rule::Rule(const rapidjson::Value& json, std::string ruleType)
    : m_id(ReadId(json))
    , m_ruleType(std::move(ruleType))
{
    EDR_LOG_DEBUG("Parsing rule with id: " << m_id);
    EDR_LOG_DEBUG("Rule Type: " << m_ruleType);
}

Rule::Rule(std::string id, std::string ruleType)
    : m_id(std::move(id))
    , m_ruleType(std::move(ruleType))
{
}

std::string Rule::RuleTypeOf(const rapidjson::Value& json)
{
    return json.IsObject() ? std::string(util::GetString(json, "ruleType")) : std::string();
}

void Rule::ReadNotify(const rapidjson::Value& json,
                      const std::vector<std::pair<const ActionWords*, ActionSet*>>& tables,
                      const char* unknownWord) const
{
    EDR_LOG_DEBUG("Reading notify actions for: " << m_id);
    const auto notify = json.FindMember("notify");
    if (notify == json.MemberEnd() || !notify->value.IsArray() || notify->value.Empty())
    {
        throw EventRuleException("Invalid rule.No notify action provided for the rule");
    }
    for (const auto& word : notify->value.GetArray())
    {
        if (!word.IsString())
        {
            throw EventRuleException(unknownWord);
        }
        const std::string_view text(word.GetString(), word.GetStringLength());
        bool known = false;
        for (const auto& [words, actions] : tables)
        {
            const auto it = words->find(text);
            if (it != words->end())
            {
                actions->insert(it->second.begin(), it->second.end());
                known = true;
            }
        }
        if (!known)
        {
            throw EventRuleException(unknownWord);
        }
    }
}

void Rule::ReadFilters(const rapidjson::Value& json)
{
    m_exclusions = FilterGroup::ParseList(json, "exclusionFilters");
    m_inclusions = FilterGroup::ParseList(json, "inclusionFilters");
}

bool Rule::Matches(const edr::Event& event) const
{
    EDR_LOG_TRACE(MatchingMessage());
    if (!IsNotified(event))
    {
        return false;
    }
    if (MatchesAnyExclusion(event))
    {
        return false;
    }
    if (!MatchesFileType(event))
    {
        return false;
    }
    if (m_inclusions.empty())
    {
        return true;
    }
    EDR_LOG_TRACE("Matching inclusion criterias");
    for (const auto& group : m_inclusions)
    {
        if (group.Match(event))
        {
            EDR_LOG_TRACE("Inclusion criteria matched");
            return true;
        }
    }
    return false;
}

bool Rule::MatchesAnyExclusion(const edr::Event& event) const
{
    EDR_LOG_TRACE("Matching exclusion criterias");
    for (const auto& group : m_exclusions)
    {
        if (group.Match(event))
        {
            EDR_LOG_TRACE("Exclusion criteria matched");
            return true;
        }
    }
    EDR_LOG_TRACE("Exclusion filters not matched");
    return false;
}

bool Rule::MatchesFileType(const edr::Event&) const
{
    return true;
}

} // namespace vantor::ioc::internal
