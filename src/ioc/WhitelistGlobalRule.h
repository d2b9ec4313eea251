#pragma once

#include "ioc/RegexPatterns.h"
#include "ioc/Rule.h"

namespace vantor::ioc::internal
{

// An "EDR" rule of class "WhitelistGlobal": events of the processes named by
// "applyTo" (regular expressions of executable paths; absent: every process)
// that match one of its exclusion groups are clean, whatever other rule
// they match.
//
//   {"ruleId": "...", "ruleType": "EDR", "ruleClass": "WhitelistGlobal",
//    "applyTo": ["/usr/bin/apt.*"], "exclusionFilters": [...]}
//
// It has no notify actions and installs nothing in the kernel: GetType() is
// 0, which the audit rule engine refuses, so it is never handed to it.
// Matches() answers whether the whitelist covers the event.
class WhitelistGlobalRule : public Rule
{
public:
    // Throws EventRuleException "Invalid ruleClass for EDR rule type",
    // "applyTo is not array", "Invalid pattern provided inside applyTo" and
    // the filter texts.
    explicit WhitelistGlobalRule(const rapidjson::Value& json);

    uint32_t GetType() const override { return 0; }
    std::vector<std::string> GetPaths() const override;
    const ActionSet& GetActions() const override;
    const ActionSet& GetDirectoryActions() const override;

    std::string GetPath() const override;
    const ActionSet& GetFileActions() const override;
    const ActionSet& GetProcessActions() const override;
    const ActionSet& GetNetworkActions() const override;
    const RegexPatterns& GetApplyTo() const override { return m_applyTo; }
    const std::vector<FiletypeCriteria>& GetFileTypeFilters() const override;

    bool Matches(const edr::Event& event) const override;

protected:
    bool IsNotified(const edr::Event& event) const override;
    const char* MatchingMessage() const override { return "Matching WhitelistGlobal Rule"; }

private:
    RegexPatterns m_applyTo;
};

} // namespace vantor::ioc::internal
