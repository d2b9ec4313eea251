#include "ioc/FilteringEngine.h"

#include "common/Logging.h"
#include "ioc/EventFields.h"
#include "ioc/Rule.h"
#include "ioc/TtlProcessTree.h"

#include <ostream>

namespace vantor::ioc::internal
{

namespace
{

// "<type> event for <kind>process (<name> (ID: <pid>" of the log lines;
// formatted only when a line is written.
struct Described
{
    const edr::Event& event;
    pid_t pid;
    const char* kind = "";
};

std::ostream& operator<<(std::ostream& out, const Described& described)
{
    return out << described.event.GetActionName() << " event for " << described.kind << "process ("
               << EventFields::ProcessName(described.event) << " (ID: " << described.pid;
}

bool IsWhitelist(const Rule& rule)
{
    // Whitelist rules are the ones the kernel is never asked for.
    return rule.GetType() == 0;
}

} // namespace

FilteringEngine::FilteringEngine(TtlProcessTree& tree)
    : m_tree(tree)
    , m_rules(std::make_shared<const Rules>())
{
}

void FilteringEngine::SetRules(std::shared_ptr<const Rules> rules)
{
    std::lock_guard lock(m_mutex);
    m_rules = rules ? std::move(rules) : std::make_shared<const Rules>();
}

Verdict FilteringEngine::GetVerdict(const EventPtr& event)
{
    std::lock_guard lock(m_mutex);
    const edr::EventType type = event->GetType();
    const pid_t pid = event->GetActorProcessId();
    const bool reported = m_tree.HasTag(pid, TtlProcessTree::kReported);
    if (type == edr::EventType::Exit || type == edr::EventType::AbnormalEnd)
    {
        const Verdict verdict = reported ? Verdict::Unknown : Verdict::Clean;
        EDR_LOG_DEBUG("Adding verdict '" << ToString(verdict) << "' to "
                                         << (Described{*event, pid, reported ? "reported " : "unreported "})
                                         << ")");
        return verdict;
    }
    if (reported && EventFields::IsFileEvent(type))
    {
        EDR_LOG_DEBUG("Adding verdict 'Unknown' to " << (Described{*event, pid, "reported "}) << ")");
        return Verdict::Unknown;
    }
    return Match(*event, pid, reported);
}

Verdict FilteringEngine::Match(const edr::Event& event, pid_t pid, bool reported)
{
    if (!reported)
    {
        for (const auto& rule : *m_rules)
        {
            if (IsWhitelist(*rule) && rule->Matches(event))
            {
                EDR_LOG_DEBUG("Adding verdict 'Clean' to "
                              << event.GetActionName() << " event for unreported process ("
                              << EventFields::ProcessName(event) << " ( pid:"
                              << " " << pid << ") as WhitelistGlobal exclusion filter matched");
                m_tree.AddTag(pid, TtlProcessTree::kExcluded);
                return Verdict::Clean;
            }
        }
    }
    for (const auto& rule : *m_rules)
    {
        if (IsWhitelist(*rule))
        {
            continue;
        }
        if (rule->Matches(event))
        {
            EDR_LOG_DEBUG("Adding verdict 'Unknown' to " << (Described{event, pid})
                                                         << ") matches with rule ID" << rule->GetId());
            return Verdict::Unknown;
        }
        EDR_LOG_TRACE((Described{event, pid}) << ") does not match with rule ID" << rule->GetId());
    }
    EDR_LOG_DEBUG("Adding verdict 'Clean' to " << (Described{event, pid}) << ") as no rule matches");
    return Verdict::Clean;
}

} // namespace vantor::ioc::internal
