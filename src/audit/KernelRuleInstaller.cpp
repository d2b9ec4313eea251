#include "audit/KernelRuleInstaller.h"

#include "audit/AuditRuleBuilder.h"
#include "audit/RuleEngineException.h"
#include "common/Logging.h"

#include <libaudit.h>

#include <algorithm>
#include <limits>
#include <map>

namespace vantor::audit
{

namespace
{

// A rule in log lines: its keys, or what a rule without one is.
std::string Describe(const AuditRule& rule)
{
    const std::string keys = rule.KeyText();
    return keys.empty() ? "(message type exclusion)" : keys;
}

} // namespace

KernelRuleInstaller::KernelRuleInstaller(pid_t outpostPid, std::string outpostPath,
                                         uint64_t auditBacklogLimit)
    : m_auditBacklogLimit(auditBacklogLimit)
    , m_exclusions(outpostPid, std::move(outpostPath))
{
    // libaudit would otherwise print its own errors on stderr.
    ::set_aumessage_mode(MSG_QUIET, DBG_NO);
    const AuditNetlink netlink;
    if (!netlink.IsOpen())
    {
        throw RuleEngineException("RuleEngine: Failed to open audit socket");
    }
    SetAuditBacklogLimit(netlink);
    DeleteDuplicateRules(netlink, &ExclusionRules::IsFixedRule);
    m_exclusions.Install(netlink);
}

KernelRuleInstaller::~KernelRuleInstaller()
{
    // Also after RemoveAll(): what it could not remove is tried again.
    RemoveAll("RuleEngine::~RuleEngine");
}

std::optional<std::vector<std::string>> KernelRuleInstaller::RemoveAll(std::string_view operation)
{
    m_closed = true;
    const AuditNetlink netlink = OpenSocket(operation);
    if (!netlink.IsOpen())
    {
        // Left in the kernel; the next start removes them by their keys.
        return std::nullopt;
    }
    auto removed = DeleteRulesWhere(netlink, nullptr);
    m_exclusions.Remove(netlink);
    return removed;
}

AuditNetlink KernelRuleInstaller::OpenSocket(std::string_view operation)
{
    AuditNetlink netlink;
    if (!netlink.IsOpen())
    {
        EDR_LOG_ERROR(operation << ": Failed to open audit socket");
    }
    return netlink;
}

std::vector<KernelRuleInstaller::Installed> KernelRuleInstaller::AddRules(const Rules& rules,
                                                                          const std::string& tag)
{
    if (tag.empty())
    {
        throw RuleEngineException("RuleEngine::AddRules: 'tag' is empty");
    }
    if (m_closed)
    {
        EDR_LOG_WARNING("RuleEngine::AddRules: The audit rules are removed for shutdown; nothing added for '"
                        << tag << "'");
        return {};
    }
    const AuditNetlink netlink = OpenSocket("RuleEngine::AddRules");
    if (!netlink.IsOpen())
    {
        throw RuleEngineException("RuleEngine::AddRules: Failed to open audit socket");
    }
    if (m_cleanedTags.insert(tag).second)
    {
        // Rules of this tag left by a run that did not shut down cleanly
        // would make identical new ones fail.
        DeleteDuplicateRules(netlink, [&tag](const AuditRule& rule) { return rule.HasKey(tag); });
    }
    std::vector<Installed> installed;
    for (const auto& rule : rules)
    {
        if (!rule)
        {
            EDR_LOG_ERROR("RuleEngine::AddRules: 'rule' is nullptr");
            continue;
        }
        try
        {
            if (rule->GetType() == edr::EventRule::ProcessRule && HasOtherProcessRule(tag, rule->GetId()))
            {
                throw RuleEngineException("Cannot add more than 1 process rule for '" + tag + "'");
            }
            auto built = AuditRuleBuilder::CreateRules(*rule, tag);
            if (built.records.empty())
            {
                continue;
            }
            if (AddRuleToAudit(netlink, *rule, tag, std::move(built.records)))
            {
                EDR_LOG_INFO("RuleEngine::AddRules: Added rule with ID " << rule->GetId());
                installed.push_back({rule, std::move(built.paths)});
            }
        }
        catch (const std::exception& e)
        {
            EDR_LOG_ERROR(e.what());
        }
    }
    return installed;
}

bool KernelRuleInstaller::HasOtherProcessRule(const std::string& tag, const std::string& ruleId) const
{
    // The rule itself is refused further on as one that already exists.
    if (m_installed.count(ruleId) != 0)
    {
        return false;
    }
    return std::any_of(m_installed.begin(), m_installed.end(),
                       [&](const auto& entry) {
                           return entry.second.tag == tag && entry.second.type == edr::EventRule::ProcessRule;
                       });
}

bool KernelRuleInstaller::AddRuleToAudit(const AuditNetlink& netlink, const edr::EventRule& rule,
                                         const std::string& tag, std::vector<AuditRule> records)
{
    const std::string& id = rule.GetId();
    EDR_LOG_DEBUG("RuleEngine::AddRuleToAudit: Adding rule with ID " << id);
    if (m_installed.count(id) != 0)
    {
        EDR_LOG_WARNING("Rule " << id << " already exists");
        return false;
    }
    for (size_t i = 0; i < records.size(); ++i)
    {
        const int rc = netlink.AddRule(records[i]);
        if (rc < 0)
        {
            EDR_LOG_ERROR(
                "RuleEngine::AddRuleToAudit: Failed to add rule to audit subsystem (errno = " << -rc << ")");
            // A rule is installed whole or not at all.
            for (size_t j = 0; j < i; ++j)
            {
                netlink.DeleteRule(records[j]);
            }
            throw RuleEngineException("Failed to add rule to audit subsystem");
        }
    }
    EDR_LOG_INFO("Added rule " << id << " to the audit subsytem");
    m_installed.emplace(id, InstalledRecords{tag, rule.GetType(), std::move(records)});
    return true;
}

bool KernelRuleInstaller::DeleteRule(const std::string& ruleId)
{
    const AuditNetlink netlink = OpenSocket("RuleEngine::DeleteRuleFromAudit");
    return netlink.IsOpen() && DeleteRuleFromAudit(netlink, ruleId);
}

bool KernelRuleInstaller::DeleteRuleFromAudit(const AuditNetlink& netlink, const std::string& ruleId)
{
    EDR_LOG_DEBUG("RuleEngine::DeleteRuleFromAudit: Deleting rule with ID " << ruleId);
    const auto it = m_installed.find(ruleId);
    if (it == m_installed.end())
    {
        return false;
    }
    bool failed = false;
    for (const auto& record : it->second.records)
    {
        failed = netlink.DeleteRule(record) < 0 || failed;
    }
    if (failed)
    {
        EDR_LOG_ERROR("RuleEngine::DeleteRuleFromAudit: Failed to delete old rule " << ruleId);
    }
    else
    {
        EDR_LOG_INFO("RuleEngine::DeleteRuleFromAudit: Deleted rule with ID " << ruleId);
    }
    m_unrestorable.erase(ruleId);
    // Forgotten even when the kernel refused: it no longer holds a rule
    // identical to the record (it was flushed), and keeping it would block the
    // rule from being added again.
    m_installed.erase(it);
    return true;
}

std::vector<std::string> KernelRuleInstaller::DeleteRules(const std::string& tag)
{
    const AuditNetlink netlink = OpenSocket("RuleEngine::DeleteRules");
    if (!netlink.IsOpen())
    {
        return {};
    }
    return DeleteRulesWhere(netlink, &tag);
}

std::optional<std::vector<std::string>> KernelRuleInstaller::DeleteAllRules()
{
    const AuditNetlink netlink = OpenSocket("RuleEngine::Invalidate");
    if (!netlink.IsOpen())
    {
        return std::nullopt;
    }
    return DeleteRulesWhere(netlink, nullptr);
}

std::vector<std::string> KernelRuleInstaller::DeleteRulesWhere(const AuditNetlink& netlink,
                                                               const std::string* tag)
{
    std::vector<std::string> ids;
    for (const auto& [id, installed] : m_installed)
    {
        if (tag == nullptr || installed.tag == *tag)
        {
            ids.push_back(id);
        }
    }
    for (const auto& id : ids)
    {
        DeleteRuleFromAudit(netlink, id);
    }
    return ids;
}

std::optional<KernelRuleInstaller::Repair> KernelRuleInstaller::RestoreMissingRules()
{
    if (m_closed)
    {
        return Repair{};
    }
    const AuditNetlink netlink = OpenSocket("RuleEngine::RestoreMissingRules");
    const auto rules = netlink.IsOpen() ? netlink.GetRules() : std::nullopt;
    if (!rules)
    {
        return std::nullopt;
    }
    const auto found = [&rules](const std::function<bool(const AuditRule&)>& ours)
    { return static_cast<size_t>(std::count_if(rules->begin(), rules->end(), ours)); };

    Repair repair;
    const size_t fixed = m_exclusions.InstalledCount();
    const size_t fixedFound = found(&ExclusionRules::IsFixedRule);
    if (fixedFound < fixed)
    {
        repair.missing += fixed - fixedFound;
        DeleteDuplicateRules(netlink, &ExclusionRules::IsFixedRule);
        m_exclusions.Forget();
        m_exclusions.Install(netlink);
        repair.reinstalled += m_exclusions.InstalledCount();
    }

    std::map<std::string, size_t> perTag;
    for (const auto& [id, installed] : m_installed)
    {
        if (m_unrestorable.count(id) == 0)
        {
            perTag[installed.tag] += installed.records.size();
        }
    }
    for (const auto& [tagName, expected] : perTag)
    {
        const std::string& tag = tagName; // clang 14 captures no structured binding
        const auto hasTag = [&tag](const AuditRule& rule) { return rule.HasKey(tag); };
        const size_t present = found(hasTag);
        if (present >= expected)
        {
            continue;
        }
        repair.missing += expected - present;
        DeleteDuplicateRules(netlink, hasTag);
        for (const auto& [id, installed] : m_installed)
        {
            if (installed.tag != tag)
            {
                continue;
            }
            int failure = 0;
            for (const auto& record : installed.records)
            {
                const int rc = netlink.AddRule(record);
                failure = rc < 0 ? rc : failure;
                repair.reinstalled += rc < 0 ? 0 : 1;
            }
            if (failure == 0)
            {
                m_unrestorable.erase(id);
            }
            else if (m_unrestorable.insert(id).second)
            {
                // A watch whose directory is gone: the kernel refuses it
                // until the directory is back. Said once; it no longer counts
                // as missing, and is tried again with its tag's next repair.
                EDR_LOG_ERROR("RuleEngine::RestoreMissingRules: Failed to add rule "
                              << id << " to audit subsystem again (errno = " << -failure << ")");
            }
        }
    }
    return repair;
}

bool KernelRuleInstaller::RefreshOutpostExclusionRules(pid_t pid, const std::string& path)
{
    if (m_closed)
    {
        return false;
    }
    const AuditNetlink netlink;
    if (!netlink.IsOpen() || !m_exclusions.RefreshOutpost(netlink, pid, path))
    {
        EDR_LOG_ERROR("RuleEngine: Failed to refresh exclusion rules in audit with new outpost pid");
        return false;
    }
    return true;
}

std::vector<AuditRule> KernelRuleInstaller::GetRulesFromAudit()
{
    const AuditNetlink netlink = OpenSocket("GetRulesFromAudit");
    if (!netlink.IsOpen())
    {
        return {};
    }
    auto rules = netlink.GetRules();
    return rules ? std::move(*rules) : std::vector<AuditRule>{};
}

std::optional<uint32_t> KernelRuleInstaller::GetAuditBacklogLimit()
{
    const AuditNetlink netlink = OpenSocket("GetAuditBacklogLimit");
    if (!netlink.IsOpen())
    {
        return std::nullopt;
    }
    return GetAuditBacklogLimit(netlink);
}

std::optional<uint32_t> KernelRuleInstaller::GetAuditBacklogLimit(const AuditNetlink& netlink)
{
    const auto status = netlink.GetStatus("GetAuditBacklogLimit");
    if (!status)
    {
        return std::nullopt;
    }
    EDR_LOG_INFO("Audit backlog limit is set to " << status->backlog_limit);
    return status->backlog_limit;
}

void KernelRuleInstaller::SetAuditBacklogLimit(const AuditNetlink& netlink) const
{
    const auto current = GetAuditBacklogLimit(netlink);
    if (!current || m_auditBacklogLimit <= *current)
    {
        return;
    }
    const auto limit =
        static_cast<uint32_t>(std::min<uint64_t>(m_auditBacklogLimit, std::numeric_limits<uint32_t>::max()));
    if (::audit_set_backlog_limit(netlink.Fd(), limit) < 0)
    {
        EDR_LOG_WARNING("Failed to set audit backlog limit to " << limit << ". Continuing with " << *current);
    }
}

std::optional<size_t> KernelRuleInstaller::RemoveLeftoverRules(const std::vector<std::string>& tags)
{
    const AuditNetlink netlink = OpenSocket("RuleEngine::RemoveLeftoverRules");
    if (!netlink.IsOpen())
    {
        return std::nullopt;
    }
    return DeleteDuplicateRules(netlink,
                                [&tags](const AuditRule& rule)
                                {
                                    return ExclusionRules::IsFixedRule(rule) ||
                                           std::any_of(tags.begin(), tags.end(),
                                                       [&rule](const std::string& tag)
                                                       { return rule.HasKey(tag); });
                                });
}

std::optional<size_t>
KernelRuleInstaller::DeleteDuplicateRules(const AuditNetlink& netlink,
                                          const std::function<bool(const AuditRule&)>& ours)
{
    EDR_LOG_DEBUG("RuleEngine::DeleteDuplicateRules: Deleting duplicate rules");
    const auto rules = netlink.GetRules();
    if (!rules)
    {
        return std::nullopt;
    }
    size_t deleted = 0;
    for (const auto& rule : *rules)
    {
        if (!ours(rule))
        {
            continue;
        }
        // The kernel's own record carries its list, prepend flag and action.
        if (netlink.DeleteRule(rule) < 0)
        {
            EDR_LOG_ERROR("RuleEngine::DeleteDuplicateRules: Failed to delete old rule " << Describe(rule));
        }
        else
        {
            EDR_LOG_INFO("RuleEngine::DeleteDuplicateRules: Deleted old rule " << Describe(rule));
            ++deleted;
        }
    }
    return deleted;
}

} // namespace vantor::audit
