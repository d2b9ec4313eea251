#pragma once

#include "edr/EventRule.h"
#include "edr/EventRuleEngine.h"

#include <memory>
#include <string>
#include <vector>

namespace vantor::fim
{

// What FIM needs of the daemon's rule engine: installing and removing the
// kernel watches of its rules, and routing the matched events of its tag to
// its handlers. The daemon passes the audit rule engine (AuditRuleRegistry);
// tests pass a recording fake.
class RuleRegistry
{
public:
    using Rules = std::vector<std::shared_ptr<edr::EventRule>>;

    virtual ~RuleRegistry() = default;

    virtual void AddRules(const Rules& rules, const std::string& tag) = 0;
    virtual void DeleteRules(const std::string& tag) = 0;
    virtual void RegisterEventHandlers(const std::string& tag,
                                       edr::EventRuleEngine::RuleMatchedEventHandler ruleMatched,
                                       edr::EventRuleEngine::InvalidatedEventHandler invalidated) = 0;
    virtual void UnregisterEventHandlers(const std::string& tag) = 0;
};

} // namespace vantor::fim
