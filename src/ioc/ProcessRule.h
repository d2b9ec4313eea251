#pragma once

#include "ioc/Rule.h"

#include <memory>
#include <vector>

namespace vantor::ioc::internal
{

// A "Process" rule: process starts, forks, exits and abnormal ends.
//
//   {"ruleId": "...", "ruleType": "Process", "notify": ["start", "exit"],
//    "exclusionFilters": [...], "inclusionFilters": [...]}
//
// Notify words: "start" (running, the execve), "fork" (clone), "exit",
// "abnormalEnd". For the audit rule engine it is a process rule (type 3)
// whose actions are the notify actions that need system calls; abnormal
// ends reach every tag with a process rule without one.
class ProcessRule : public Rule
{
public:
    // Throws EventRuleException "Invalid process action in notify" and the
    // notify and filter texts.
    explicit ProcessRule(const rapidjson::Value& json);

    // One rule with the notify actions of all the rules, for the audit rule
    // engine, which keeps one process rule per tag. It has no filters.
    static std::shared_ptr<ProcessRule> Merge(const std::string& id,
                                              const std::vector<std::shared_ptr<const ProcessRule>>& rules);

    uint32_t GetType() const override { return ProcessRule::Type::ProcessRule; }
    std::vector<std::string> GetPaths() const override;
    const ActionSet& GetActions() const override { return m_kernelActions; }
    const ActionSet& GetDirectoryActions() const override;

    std::string GetPath() const override;
    const ActionSet& GetFileActions() const override;
    const ActionSet& GetProcessActions() const override { return m_actions; }
    const ActionSet& GetNetworkActions() const override;
    const RegexPatterns& GetApplyTo() const override;
    const std::vector<FiletypeCriteria>& GetFileTypeFilters() const override;

protected:
    bool IsNotified(const edr::Event& event) const override;
    const char* MatchingMessage() const override { return "Matching Process Rule"; }

private:
    ProcessRule(const std::string& id, ActionSet actions);
    void SetKernelActions();

    ActionSet m_actions;
    ActionSet m_kernelActions;
};

} // namespace vantor::ioc::internal
