#include "audit/RuleEngine.h"

#include "common/Logging.h"

#include <unistd.h>

namespace vantor::audit
{

RuleEngine::RuleEngine(pid_t outpostPid, std::string outpostPath, uint64_t auditBacklogLimit,
                       std::string agentInstallPath)
    : RuleEngine(outpostPid, std::move(outpostPath), nullptr, auditBacklogLimit, std::move(agentInstallPath))
{
}

RuleEngine::RuleEngine(pid_t outpostPid, std::string outpostPath, std::shared_ptr<ProcessTree> processTree,
                       uint64_t auditBacklogLimit, std::string agentInstallPath)
    : m_agentInstallPath(std::move(agentInstallPath))
    , m_installer(outpostPid, std::move(outpostPath), auditBacklogLimit)
    , m_events(
          std::move(processTree), ::getpid(), m_router,
          [this](const Tags& tags, edr::Event& event) { DispatchEvent(tags, event); },
          ProcessTreeUpdater::kCleanInterval, this)
{
}

RuleEngine::~RuleEngine()
{
    // The installer, destroyed after this, removes the kernel rules.
    EDR_LOG_INFO("Destroying RuleEngine");
}

void RuleEngine::AddRules(const Rules& rules, const std::string& tag)
{
    std::lock_guard lock(m_rulesMutex);
    for (auto& installed : m_installer.AddRules(rules, tag))
    {
        const edr::EventRule& rule = *installed.rule;
        EventRouter::Route route{tag, rule.GetType(), {}, std::move(installed.paths)};
        if (!edr::EventRule::IsPathRule(route.ruleType))
        {
            route.actions = rule.GetActions();
        }
        try
        {
            m_router.AddRoute(rule.GetId(), std::move(route));
        }
        catch (const std::exception& e)
        {
            // A kernel rule whose events could reach nobody is not kept.
            EDR_LOG_ERROR(e.what());
            m_installer.DeleteRule(rule.GetId());
        }
    }
}

void RuleEngine::DeleteRules(const std::string& tag)
{
    std::lock_guard lock(m_rulesMutex);
    RemoveRoutes(m_installer.DeleteRules(tag));
}

bool RuleEngine::DeleteRuleFromAudit(const std::string& ruleId)
{
    std::lock_guard lock(m_rulesMutex);
    if (!m_installer.DeleteRule(ruleId))
    {
        return false;
    }
    m_router.RemoveRoute(ruleId);
    return true;
}

void RuleEngine::RemoveRoutes(const std::vector<std::string>& ruleIds)
{
    for (const auto& id : ruleIds)
    {
        m_router.RemoveRoute(id);
    }
}

void RuleEngine::Invalidate()
{
    EDR_LOG_INFO("RuleEngine::Invalidate: Cleaning up all rules");
    {
        std::lock_guard lock(m_rulesMutex);
        const auto removed = m_installer.DeleteAllRules();
        if (!removed)
        {
            return;
        }
        RemoveRoutes(*removed);
    }
    // Without our lock: the owners submit their rules again from here.
    InvalidateEventHandlers();
}

bool RuleEngine::RefreshOutpostExclusionRules(pid_t pid, const std::string& path)
{
    std::lock_guard lock(m_rulesMutex);
    return m_installer.RefreshOutpostExclusionRules(pid, path);
}

void RuleEngine::RemoveKernelRules()
{
    std::lock_guard lock(m_rulesMutex);
    if (!m_installer.IsClosed())
    {
        EDR_LOG_INFO("RuleEngine: Removing the audit rules");
        if (const auto removed = m_installer.RemoveAll("RuleEngine::RemoveKernelRules"))
        {
            RemoveRoutes(*removed);
        }
    }
}

std::optional<KernelRuleInstaller::Repair> RuleEngine::RestoreMissingRules()
{
    std::lock_guard lock(m_rulesMutex);
    return m_installer.RestoreMissingRules();
}

std::vector<AuditRule> RuleEngine::GetRulesFromAudit() const
{
    return KernelRuleInstaller::GetRulesFromAudit();
}

std::optional<uint32_t> RuleEngine::GetAuditBacklogLimit() const
{
    return KernelRuleInstaller::GetAuditBacklogLimit();
}

bool RuleEngine::IsRuleInstalled(const std::string& ruleId) const
{
    std::lock_guard lock(m_rulesMutex);
    return m_installer.IsRuleInstalled(ruleId);
}

pid_t RuleEngine::GetOutpostPid() const
{
    std::lock_guard lock(m_rulesMutex);
    return m_installer.GetOutpostPid();
}

std::string RuleEngine::GetOutpostPath() const
{
    std::lock_guard lock(m_rulesMutex);
    return m_installer.GetOutpostPath();
}

edr::Trie::Values RuleEngine::GetPathTags(std::string_view path) const
{
    return m_router.GetPathTags(path);
}

void RuleEngine::ProcessEvent(EventPtr event)
{
    m_events.ProcessEvent(std::move(event));
}

} // namespace vantor::audit
