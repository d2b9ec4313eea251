#include "audit/KernelRuleWatchdog.h"

#include "audit/RuleEngine.h"
#include "common/Logging.h"

namespace vantor::audit
{

KernelRuleWatchdog::KernelRuleWatchdog(std::weak_ptr<RuleEngine> engine, std::chrono::seconds interval)
    : PeriodicSchedule(interval)
    , m_engine(std::move(engine))
{
}

void KernelRuleWatchdog::Check()
{
    const auto engine = m_engine.lock();
    if (!engine)
    {
        return;
    }
    const auto repair = engine->RestoreMissingRules();
    if (!repair || repair->missing == 0)
    {
        return;
    }
    m_missing.fetch_add(repair->missing, std::memory_order_relaxed);
    m_reinstalled.fetch_add(repair->reinstalled, std::memory_order_relaxed);
    EDR_LOG_WARNING("RuleEngine: " << repair->missing
                                   << " audit rules of ours were removed from the kernel by "
                                   << "somebody else; installed " << repair->reinstalled << " again");
}

} // namespace vantor::audit
