#include "fim/AuditRuleRegistry.h"

#include "audit/RuleEngine.h"

namespace vantor::fim
{

AuditRuleRegistry::AuditRuleRegistry(audit::RuleEngine& engine)
    : m_engine(engine)
{
}

void AuditRuleRegistry::AddRules(const Rules& rules, const std::string& tag)
{
    m_engine.AddRules(rules, tag);
}

void AuditRuleRegistry::DeleteRules(const std::string& tag)
{
    m_engine.DeleteRules(tag);
}

void AuditRuleRegistry::RegisterEventHandlers(const std::string& tag,
                                              edr::EventRuleEngine::RuleMatchedEventHandler ruleMatched,
                                              edr::EventRuleEngine::InvalidatedEventHandler invalidated)
{
    m_engine.RegisterEventHandlers(tag, std::move(ruleMatched), std::move(invalidated));
}

void AuditRuleRegistry::UnregisterEventHandlers(const std::string& tag)
{
    m_engine.UnregisterEventHandlers(tag);
}

} // namespace vantor::fim
