#include "audit/ExclusionRules.h"

#include "audit/AuditRuleBuilder.h"
#include "audit/AuditTables.h"
#include "common/Logging.h"

#include <libaudit.h>

#include <algorithm>
#include <unistd.h>

namespace vantor::audit
{

ExclusionRules::ExclusionRules(pid_t outpostPid, std::string outpostPath)
    : m_outpostPath(std::move(outpostPath))
{
    m_self.pid = ::getpid();
    m_self.suffix = AuditRuleBuilder::kSelfSuffix;
    m_outpost.pid = outpostPid;
    m_outpost.suffix = AuditRuleBuilder::kOutpostSuffix;
}

bool ExclusionRules::IsFixedRule(const AuditRule& rule)
{
    using B = AuditRuleBuilder;
    static const std::string keys[] = {B::kThreadExclusionKey, B::IgnoreRuleKey(B::kSelfSuffix),
                                       B::ExitRuleKey(B::kSelfSuffix), B::IgnoreRuleKey(B::kOutpostSuffix),
                                       B::ExitRuleKey(B::kOutpostSuffix)};
    return B::IsOwnMessageTypeRule(rule) ||
           std::any_of(std::begin(keys), std::end(keys),
                       [&](const std::string& key) { return rule.HasKey(key); });
}

void ExclusionRules::Install(const AuditNetlink& netlink)
{
    AddMessageTypeRules(netlink);
    AddThreadRule(netlink);
    AddProcessRules(netlink, m_self);
    AddProcessRules(netlink, m_outpost);
}

void ExclusionRules::Remove(const AuditNetlink& netlink)
{
    RemoveProcessRules(netlink, m_outpost, false);
    RemoveProcessRules(netlink, m_self, false);
    RemoveThreadRule(netlink);
    RemoveMessageTypeRules(netlink);
}

void ExclusionRules::Forget()
{
    m_messageTypeRules.clear();
    m_threadRule.reset();
    for (auto* process : {&m_self, &m_outpost})
    {
        process->exclusion.reset();
        process->exit.reset();
    }
}

size_t ExclusionRules::InstalledCount() const
{
    size_t count = m_messageTypeRules.size() + (m_threadRule ? 1 : 0);
    for (const auto* process : {&m_self, &m_outpost})
    {
        count += (process->exclusion ? 1 : 0) + (process->exit ? 1 : 0);
    }
    return count;
}

bool ExclusionRules::RefreshOutpost(const AuditNetlink& netlink, pid_t pid, const std::string& path)
{
    m_outpostPath = path;
    if (pid == m_outpost.pid && m_outpost.exclusion && m_outpost.exit)
    {
        return true;
    }
    RemoveProcessRules(netlink, m_outpost, true);
    m_outpost.pid = pid;
    if (pid <= 0)
    {
        // The agent has no process now: nothing to exclude.
        return true;
    }
    AddProcessRules(netlink, m_outpost);
    return m_outpost.exclusion.has_value();
}

void ExclusionRules::AddMessageTypeRules(const AuditNetlink& netlink)
{
    EDR_LOG_DEBUG("Adding exclusion message type rules");
    // An identical rule of somebody else's stays theirs: ours is told apart
    // by its mark and added beside it.
    for (const auto& type : AuditTables::ExclusionMessageTypes())
    {
        try
        {
            AuditRule rule = AuditRuleBuilder::CreateMessageTypeRule(type.type);
            const int rc = netlink.AddRule(rule);
            if (rc < 0)
            {
                EDR_LOG_ERROR("Failed to add exclusion rule for message type: " << type.name << " (errno = "
                                                                                << -rc << ")");
                continue;
            }
            EDR_LOG_INFO("Exclusion rule for message type: " << type.name << " added in audit");
            m_messageTypeRules.push_back({type.name, std::move(rule)});
        }
        catch (const std::exception& e)
        {
            EDR_LOG_ERROR(e.what());
        }
    }
}

void ExclusionRules::RemoveMessageTypeRules(const AuditNetlink& netlink)
{
    EDR_LOG_DEBUG("RuleEngine::DeleteExclusionMessageTypeRulesFromAudit");
    for (auto& entry : m_messageTypeRules)
    {
        if (netlink.DeleteRule(entry.rule) < 0)
        {
            EDR_LOG_ERROR("Failed to delete exclusion rule for message type: " << entry.name);
        }
        else
        {
            EDR_LOG_DEBUG(" Deleted rule for message type: " << entry.name);
        }
    }
    m_messageTypeRules.clear();
}

void ExclusionRules::AddThreadRule(const AuditNetlink& netlink)
{
    try
    {
        AuditRule rule = AuditRuleBuilder::CreateThreadExclusionRule();
        const int rc = netlink.AddRule(rule);
        if (rc < 0)
        {
            EDR_LOG_ERROR("Failed to add thread exclusion rule to audit: " << -rc);
            return;
        }
        EDR_LOG_INFO("Added thread exclusion rule to audit");
        m_threadRule = std::move(rule);
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR(e.what());
    }
}

void ExclusionRules::RemoveThreadRule(const AuditNetlink& netlink)
{
    if (!m_threadRule)
    {
        return;
    }
    if (netlink.DeleteRule(*m_threadRule) < 0)
    {
        EDR_LOG_ERROR("Failed to delete exclusion rule " << AuditRuleBuilder::kThreadExclusionKey);
    }
    else
    {
        EDR_LOG_DEBUG("Deleted exclusion rule " << AuditRuleBuilder::kThreadExclusionKey);
    }
    m_threadRule.reset();
}

void ExclusionRules::AddProcessRules(const AuditNetlink& netlink, ProcessExclusion& exclusion)
{
    const pid_t pid = exclusion.pid;
    EDR_LOG_INFO("Adding exclusion rule for pid " << pid);
    const std::string key = AuditRuleBuilder::IgnoreRuleKey(exclusion.suffix);
    if (const auto rules = netlink.GetRules())
    {
        if (std::any_of(rules->begin(), rules->end(),
                        [&](const AuditRule& rule) { return rule.HasKey(key); }))
        {
            EDR_LOG_WARNING("Rule with key " << key << " already exist");
            return;
        }
    }
    try
    {
        AuditRule ignore = AuditRuleBuilder::CreateProcessExclusionRule(pid, exclusion.suffix);
        AuditRule exit = AuditRuleBuilder::CreateProcessExitRule(pid, exclusion.suffix);
        // Both are prepended, so the exit rule ends up in front of the
        // exclusion: the process's exit is still audited, nothing else is.
        int rc = netlink.AddRule(ignore);
        if (rc < 0)
        {
            EDR_LOG_ERROR("Failed to add exclusion rule for pid " << pid << " (errno = " << -rc << ")");
            return;
        }
        rc = netlink.AddRule(exit);
        if (rc < 0)
        {
            EDR_LOG_ERROR("Failed to add exclusion rule for pid " << pid << " (errno = " << -rc << ")");
            if (netlink.DeleteRule(ignore) < 0)
            {
                EDR_LOG_ERROR("Failed to clean up exclusion rule for pid " << pid);
            }
            return;
        }
        EDR_LOG_INFO("Exclusion rule added for pid " << pid);
        exclusion.exclusion = std::move(ignore);
        exclusion.exit = std::move(exit);
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR(e.what());
    }
}

void ExclusionRules::RemoveProcessRules(const AuditNetlink& netlink, ProcessExclusion& exclusion, bool old)
{
    for (auto* rule : {&exclusion.exit, &exclusion.exclusion})
    {
        if (!*rule)
        {
            continue;
        }
        const std::string keys = (*rule)->KeyText();
        if (netlink.DeleteRule(**rule) < 0)
        {
            EDR_LOG_ERROR("Failed to delete exclusion rule " << keys);
        }
        else if (old)
        {
            EDR_LOG_INFO("RuleEngine::DeleteExclusionRules: Deleted old rule " << keys);
        }
        else
        {
            EDR_LOG_DEBUG("Deleted exclusion rule " << keys);
        }
        rule->reset();
    }
}

} // namespace vantor::audit
