#include "ioc/ProcessRule.h"

#include "common/Logging.h"
#include "ioc/EventRuleException.h"

namespace vantor::ioc::internal
{

namespace
{

using edr::EventType;

[[noreturn]] void NotDefined()
{
    throw EventRuleException("Function not defined for neither process rule");
}

} // namespace

ProcessRule::ProcessRule(const rapidjson::Value& json)
    : Rule(json, "Process")
{
    static const ActionWords kWords{{"start", {ActionOf(EventType::Running)}},
                                    {"fork", {ActionOf(EventType::Clone)}},
                                    {"exit", {ActionOf(EventType::Exit)}},
                                    {"abnormalEnd", {ActionOf(EventType::AbnormalEnd)}}};
    EDR_LOG_DEBUG("Parsing Process rule");
    EDR_LOG_DEBUG("Reading notify actions for Process rule");
    ReadNotify(json, {{&kWords, &m_actions}}, "Invalid process action in notify");
    ReadFilters(json);
    SetKernelActions();
}

ProcessRule::ProcessRule(const std::string& id, ActionSet actions)
    : Rule(id, "Process")
    , m_actions(std::move(actions))
{
    SetKernelActions();
}

void ProcessRule::SetKernelActions()
{
    m_kernelActions = m_actions;
    m_kernelActions.erase(ActionOf(EventType::AbnormalEnd));
}

std::shared_ptr<ProcessRule> ProcessRule::Merge(const std::string& id,
                                                const std::vector<std::shared_ptr<const ProcessRule>>& rules)
{
    ActionSet actions;
    for (const auto& rule : rules)
    {
        actions.insert(rule->m_actions.begin(), rule->m_actions.end());
    }
    return std::shared_ptr<ProcessRule>(new ProcessRule(id, std::move(actions)));
}

std::vector<std::string> ProcessRule::GetPaths() const
{
    throw EventRuleException("Fetching path not supported for process rule");
}

std::string ProcessRule::GetPath() const
{
    throw EventRuleException("Fetching path not supported for process rule");
}

const edr::EventRule::ActionSet& ProcessRule::GetDirectoryActions() const
{
    throw EventRuleException("Fetching Directory actions for non-directory rule");
}

const edr::EventRule::ActionSet& ProcessRule::GetFileActions() const
{
    throw EventRuleException("Fetching File actions for rule that is neither file nor directory");
}

const edr::EventRule::ActionSet& ProcessRule::GetNetworkActions() const
{
    NotDefined();
}

const RegexPatterns& ProcessRule::GetApplyTo() const
{
    NotDefined();
}

const std::vector<FiletypeCriteria>& ProcessRule::GetFileTypeFilters() const
{
    NotDefined();
}

bool ProcessRule::IsNotified(const edr::Event& event) const
{
    if (!HasAction(m_actions, event.GetType()))
    {
        EDR_LOG_TRACE("Event action not found in process notify actions");
        return false;
    }
    return true;
}

} // namespace vantor::ioc::internal
