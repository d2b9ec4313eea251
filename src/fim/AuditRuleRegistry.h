#pragma once

#include "fim/RuleRegistry.h"

namespace vantor::audit
{
class RuleEngine;
}

namespace vantor::fim
{

// The audit rule engine seen through RuleRegistry. The engine must outlive
// this object.
class AuditRuleRegistry : public RuleRegistry
{
public:
    explicit AuditRuleRegistry(audit::RuleEngine& engine);

    void AddRules(const Rules& rules, const std::string& tag) override;
    void DeleteRules(const std::string& tag) override;
    void RegisterEventHandlers(const std::string& tag,
                               edr::EventRuleEngine::RuleMatchedEventHandler ruleMatched,
                               edr::EventRuleEngine::InvalidatedEventHandler invalidated) override;
    void UnregisterEventHandlers(const std::string& tag) override;

private:
    audit::RuleEngine& m_engine;
};

} // namespace vantor::fim
