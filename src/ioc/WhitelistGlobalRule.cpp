#include "ioc/WhitelistGlobalRule.h"

#include "common/Logging.h"
#include "common/util/Json.h"
#include "ioc/EventFields.h"
#include "ioc/EventRuleException.h"

namespace vantor::ioc::internal
{

namespace
{

[[noreturn]] void NotDefined()
{
    throw EventRuleException("Function not defined for whitelistglobal EDR rule");
}

} // namespace

WhitelistGlobalRule::WhitelistGlobalRule(const rapidjson::Value& json)
    : Rule(json, "EDR")
{
    EDR_LOG_DEBUG("Parsing WhitelistGlobal Rule");
    if (util::GetString(json, "ruleClass") != "WhitelistGlobal")
    {
        throw EventRuleException("Invalid ruleClass for EDR rule type");
    }
    const auto applyTo = json.FindMember("applyTo");
    if (applyTo != json.MemberEnd())
    {
        EDR_LOG_DEBUG("Reading applyTo");
        if (!applyTo->value.IsArray())
        {
            throw EventRuleException("applyTo is not array");
        }
        m_applyTo = RegexPatterns::Parse(applyTo->value, "Invalid pattern provided inside applyTo");
    }
    ReadFilters(json);
}

std::vector<std::string> WhitelistGlobalRule::GetPaths() const
{
    NotDefined();
}

const edr::EventRule::ActionSet& WhitelistGlobalRule::GetActions() const
{
    NotDefined();
}

const edr::EventRule::ActionSet& WhitelistGlobalRule::GetDirectoryActions() const
{
    NotDefined();
}

std::string WhitelistGlobalRule::GetPath() const
{
    NotDefined();
}

const edr::EventRule::ActionSet& WhitelistGlobalRule::GetFileActions() const
{
    NotDefined();
}

const edr::EventRule::ActionSet& WhitelistGlobalRule::GetProcessActions() const
{
    NotDefined();
}

const edr::EventRule::ActionSet& WhitelistGlobalRule::GetNetworkActions() const
{
    NotDefined();
}

const std::vector<FiletypeCriteria>& WhitelistGlobalRule::GetFileTypeFilters() const
{
    NotDefined();
}

bool WhitelistGlobalRule::IsNotified(const edr::Event& event) const
{
    if (m_applyTo.Empty())
    {
        return true;
    }
    const auto image = EventFields::Image(event);
    return image && m_applyTo.MatchesAny(*image);
}

bool WhitelistGlobalRule::Matches(const edr::Event& event) const
{
    EDR_LOG_TRACE(MatchingMessage());
    return IsNotified(event) && MatchesAnyExclusion(event);
}

} // namespace vantor::ioc::internal
