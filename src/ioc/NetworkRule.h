#pragma once

#include "ioc/Rule.h"

namespace vantor::ioc::internal
{

// A "Network" rule: connections made, accepted or listened for.
//
//   {"ruleId": "...", "ruleType": "Network", "notify": ["establish"],
//    "exclusionFilters": [...], "inclusionFilters": [...]}
//
// Notify words: "establish" (connect and accept), "listen" (bind) and
// "close". The audit records carry no event for a close, so a rule that
// notifies only "close" installs nothing and matches nothing; the word is
// accepted because manifests of other platforms use it. For the audit rule
// engine it is a network rule (type 4).
class NetworkRule : public Rule
{
public:
    // Throws EventRuleException "Invalid network action in notify" and the
    // notify and filter texts.
    explicit NetworkRule(const rapidjson::Value& json);

    uint32_t GetType() const override { return NetworkRule::Type::NetworkRule; }
    std::vector<std::string> GetPaths() const override;
    const ActionSet& GetActions() const override { return m_actions; }
    const ActionSet& GetDirectoryActions() const override;

    std::string GetPath() const override;
    const ActionSet& GetFileActions() const override;
    const ActionSet& GetProcessActions() const override;
    const ActionSet& GetNetworkActions() const override { return m_actions; }
    const RegexPatterns& GetApplyTo() const override;
    const std::vector<FiletypeCriteria>& GetFileTypeFilters() const override;

protected:
    bool IsNotified(const edr::Event& event) const override;
    const char* MatchingMessage() const override { return "Matching Network Rule"; }

private:
    ActionSet m_actions;
};

} // namespace vantor::ioc::internal
