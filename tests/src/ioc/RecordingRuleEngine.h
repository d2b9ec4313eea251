#pragma once

#include "edr/EventRuleEngine.h"

#include <mutex>
#include <string>
#include <vector>

namespace vantor::ioc::test
{

// An event rule engine that records what a component asks of it ("add
// <tag>:<rule id>", "delete <tag>") and lets the test dispatch events and
// invalidate rules as the audit rule engine would.
class RecordingRuleEngine : public edr::EventRuleEngine
{
public:
    using EventRuleEngine::DispatchEvent;
    using EventRuleEngine::InvalidateEventHandlers;

    void AddRules(const Rules& rules, const std::string& tag) override
    {
        std::lock_guard lock(m_mutex);
        for (const auto& rule : rules)
        {
            m_calls.push_back("add " + tag + ":" + rule->GetId());
        }
    }

    void DeleteRules(const std::string& tag) override
    {
        std::lock_guard lock(m_mutex);
        m_calls.push_back("delete " + tag);
    }

    // The calls so far, which are then forgotten.
    std::vector<std::string> TakeCalls()
    {
        std::lock_guard lock(m_mutex);
        return std::exchange(m_calls, {});
    }

private:
    std::mutex m_mutex;
    std::vector<std::string> m_calls;
};

} // namespace vantor::ioc::test
