#include "ioc/NetworkRule.h"

#include "common/Logging.h"
#include "ioc/EventRuleException.h"

namespace vantor::ioc::internal
{

namespace
{

using edr::EventType;

[[noreturn]] void NotDefined()
{
    throw EventRuleException("Function not defined for network rule");
}

} // namespace

NetworkRule::NetworkRule(const rapidjson::Value& json)
    : Rule(json, "Network")
{
    static const ActionWords kWords{
        {"establish", {ActionOf(EventType::Connect), ActionOf(EventType::Accept)}},
        {"listen", {ActionOf(EventType::Bind)}},
        {"close", {}}};
    EDR_LOG_DEBUG("Parsing Network Rule");
    EDR_LOG_DEBUG("Reading notify actions for Network rule");
    ReadNotify(json, {{&kWords, &m_actions}}, "Invalid network action in notify");
    ReadFilters(json);
    EDR_LOG_DEBUG("Parsed Network rule with id: " << GetId());
}

std::vector<std::string> NetworkRule::GetPaths() const
{
    NotDefined();
}

std::string NetworkRule::GetPath() const
{
    NotDefined();
}

const edr::EventRule::ActionSet& NetworkRule::GetDirectoryActions() const
{
    throw EventRuleException("Fetching Directory actions for non-directory rule");
}

const edr::EventRule::ActionSet& NetworkRule::GetFileActions() const
{
    throw EventRuleException("Fetching File actions for rule that is neither file nor directory");
}

const edr::EventRule::ActionSet& NetworkRule::GetProcessActions() const
{
    throw EventRuleException("No process actions defined for network rule");
}

const RegexPatterns& NetworkRule::GetApplyTo() const
{
    NotDefined();
}

const std::vector<FiletypeCriteria>& NetworkRule::GetFileTypeFilters() const
{
    NotDefined();
}

bool NetworkRule::IsNotified(const edr::Event& event) const
{
    if (!HasAction(m_actions, event.GetType()))
    {
        EDR_LOG_TRACE("Event action not found in network notify actions");
        return false;
    }
    return true;
}

} // namespace vantor::ioc::internal
