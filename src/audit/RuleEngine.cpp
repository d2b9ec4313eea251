#include "audit/RuleEngine.h"

#include "audit/AuditTables.h"
#include "audit/RuleEngineException.h"
#include "common/Logging.h"

#include <libaudit.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <linux/netlink.h>
#include <unistd.h>

namespace vantor::audit
{

namespace
{

constexpr std::chrono::milliseconds kReplyTimeout{1000};
constexpr int kBusyRetries = 5;

std::string JoinKeys(const AuditRule& rule)
{
    std::string text;
    for (const auto& key : rule.GetKeys())
    {
        text += text.empty() ? key : "," + key;
    }
    return text;
}

std::unordered_set<std::string> FixedKeys()
{
    using B = AuditRuleBuilder;
    return {B::kThreadExclusionKey, B::IgnoreRuleKey(B::kSelfSuffix), B::ExitRuleKey(B::kSelfSuffix),
            B::IgnoreRuleKey(B::kOutpostSuffix), B::ExitRuleKey(B::kOutpostSuffix)};
}

int Send(const AuditHandle& handle, AuditRule& rule)
{
    return ::audit_add_rule_data(handle.Fd(), rule.Get(), rule.GetFlags(), rule.GetAction());
}

// The kernel drops the prepend flag once a rule is in its list, and finds the
// rule to delete by comparing flags too: a delete never carries it.
int Remove(const AuditHandle& handle, AuditRule& rule)
{
    return ::audit_delete_rule_data(handle.Fd(), rule.Get(), rule.GetFlags() & ~AUDIT_FILTER_PREPEND,
                                    rule.GetAction());
}

bool IsMessageTypeExclusion(const AuditRule& rule, int messageType)
{
    const audit_rule_data* data = rule.Get();
    return (rule.GetFlags() & ~AUDIT_FILTER_PREPEND) == AUDIT_FILTER_EXCLUDE && data->field_count == 1 &&
           data->fields[0] == AUDIT_MSGTYPE && data->fieldflags[0] == AUDIT_EQUAL &&
           data->values[0] == static_cast<uint32_t>(messageType);
}

} // namespace

RuleEngine::RuleEngine(pid_t outpostPid, std::string outpostPath, uint64_t auditBacklogLimit,
                       std::string agentInstallPath)
    : RuleEngine(outpostPid, std::move(outpostPath), nullptr, auditBacklogLimit, std::move(agentInstallPath))
{
}

RuleEngine::RuleEngine(pid_t outpostPid, std::string outpostPath, std::shared_ptr<ProcessTree> processTree,
                       uint64_t auditBacklogLimit, std::string agentInstallPath)
    : EventRouter(std::move(processTree), ::getpid())
    , m_auditBacklogLimit(auditBacklogLimit)
    , m_agentInstallPath(std::move(agentInstallPath))
    , m_outpostPid(outpostPid)
    , m_outpostPath(std::move(outpostPath))
{
    // libaudit would otherwise print its own errors on stderr.
    ::set_aumessage_mode(MSG_QUIET, DBG_NO);
    AuditHandle handle;
    if (!handle.IsOpen())
    {
        throw RuleEngineException("RuleEngine: Failed to open audit socket");
    }
    std::lock_guard lock(m_mutex);
    SetAuditBacklogLimit(handle);
    DeleteDuplicateRules(handle, FixedKeys());
    AddExclusionMessageTypeRules(handle);
    AddThreadExclusionRule(handle);
    m_selfExclusion = AddProcessExclusionRules(handle, ::getpid(), AuditRuleBuilder::kSelfSuffix);
    m_outpostExclusion = AddProcessExclusionRules(handle, m_outpostPid, AuditRuleBuilder::kOutpostSuffix);
}

RuleEngine::~RuleEngine()
{
    EDR_LOG_INFO("Destroying RuleEngine");
    AuditHandle handle;
    if (!handle.IsOpen())
    {
        // Left in the kernel; the next start removes them by their keys.
        EDR_LOG_ERROR("RuleEngine::~RuleEngine: Failed to open audit socket");
        return;
    }
    std::lock_guard lock(m_mutex);
    DeleteAllRules(handle);
    DeleteExclusionRules(handle, m_outpostExclusion, false);
    DeleteExclusionRules(handle, m_selfExclusion, false);
    if (m_threadExclusionRule)
    {
        if (Remove(handle, *m_threadExclusionRule) < 0)
        {
            EDR_LOG_ERROR("Failed to delete exclusion rule " << AuditRuleBuilder::kThreadExclusionKey);
        }
        else
        {
            EDR_LOG_DEBUG("Deleted exclusion rule " << AuditRuleBuilder::kThreadExclusionKey);
        }
        m_threadExclusionRule.reset();
    }
    DeleteExclusionMessageTypeRulesFromAudit(handle);
}

void RuleEngine::AddRules(const Rules& rules, const std::string& tag)
{
    if (tag.empty())
    {
        throw RuleEngineException("RuleEngine::AddRules: 'tag' is empty");
    }
    AuditHandle handle;
    if (!handle.IsOpen())
    {
        EDR_LOG_ERROR("RuleEngine::AddRules: Failed to open audit socket");
        throw RuleEngineException("RuleEngine::AddRules: Failed to open audit socket");
    }
    std::lock_guard lock(m_mutex);
    if (m_cleanedTags.insert(tag).second)
    {
        // Rules of this tag left by a run that did not shut down cleanly
        // would make identical new ones fail.
        DeleteDuplicateRules(handle, {tag});
    }
    for (const auto& rule : rules)
    {
        if (!rule)
        {
            EDR_LOG_ERROR("RuleEngine::AddRules: 'rule' is nullptr");
            continue;
        }
        try
        {
            if (rule->GetType() == edr::EventRule::ProcessRule && !m_installedRules.count(rule->GetId()) &&
                m_processRuleTags.count(tag))
            {
                throw RuleEngineException("Cannot add more than 1 process rule for '" + tag + "'");
            }
            auto built = AuditRuleBuilder::CreateRules(*rule, tag);
            if (built.records.empty())
            {
                continue;
            }
            if (AddRuleToAudit(handle, *rule, tag, std::move(built)))
            {
                EDR_LOG_INFO("RuleEngine::AddRules: Added rule with ID " << rule->GetId());
            }
        }
        catch (const std::exception& e)
        {
            EDR_LOG_ERROR(e.what());
        }
    }
}

bool RuleEngine::AddRuleToAudit(const AuditHandle& handle, const edr::EventRule& rule, const std::string& tag,
                                AuditRuleBuilder::BuiltRule built)
{
    const std::string& id = rule.GetId();
    EDR_LOG_DEBUG("RuleEngine::AddRuleToAudit: Adding rule with ID " << id);
    if (m_installedRules.count(id))
    {
        EDR_LOG_WARNING("Rule " << id << " already exists");
        return false;
    }
    for (size_t i = 0; i < built.records.size(); ++i)
    {
        const int rc =
            ::audit_add_rule_data(handle.Fd(), built.records[i].Get(), AUDIT_FILTER_EXIT, AUDIT_ALWAYS);
        if (rc < 0)
        {
            EDR_LOG_ERROR(
                "RuleEngine::AddRuleToAudit: Failed to add rule to audit subsystem (errno = " << -rc << ")");
            // A rule is installed whole or not at all.
            for (size_t j = 0; j < i; ++j)
            {
                ::audit_delete_rule_data(handle.Fd(), built.records[j].Get(), AUDIT_FILTER_EXIT,
                                         AUDIT_ALWAYS);
            }
            throw RuleEngineException("Failed to add rule to audit subsystem");
        }
    }
    EDR_LOG_INFO("Added rule " << id << " to the audit subsytem");

    InstalledRule installed{tag, rule.GetType(), {}, std::move(built.records), std::move(built.paths)};
    if (!edr::EventRule::IsPathRule(installed.type))
    {
        installed.actions = rule.GetActions();
    }
    AddRoute(tag, installed.type, installed.actions, installed.paths);
    if (installed.type == edr::EventRule::ProcessRule)
    {
        m_processRuleTags.insert(tag);
    }
    m_installedRules.emplace(id, std::move(installed));
    return true;
}

bool RuleEngine::DeleteRuleFromAudit(const std::string& ruleId)
{
    AuditHandle handle;
    if (!handle.IsOpen())
    {
        EDR_LOG_ERROR("RuleEngine::DeleteRuleFromAudit: Failed to open audit socket");
        return false;
    }
    std::lock_guard lock(m_mutex);
    return DeleteRuleFromAudit(handle, ruleId);
}

bool RuleEngine::DeleteRuleFromAudit(const AuditHandle& handle, const std::string& ruleId)
{
    EDR_LOG_DEBUG("RuleEngine::DeleteRuleFromAudit: Deleting rule with ID " << ruleId);
    const auto it = m_installedRules.find(ruleId);
    if (it == m_installedRules.end())
    {
        return false;
    }
    InstalledRule& installed = it->second;
    bool failed = false;
    for (auto& record : installed.records)
    {
        if (::audit_delete_rule_data(handle.Fd(), record.Get(), AUDIT_FILTER_EXIT, AUDIT_ALWAYS) < 0)
        {
            failed = true;
        }
    }
    if (failed)
    {
        EDR_LOG_ERROR("RuleEngine::DeleteRuleFromAudit: Failed to delete old rule " << ruleId);
    }
    else
    {
        EDR_LOG_INFO("RuleEngine::DeleteRuleFromAudit: Deleted rule with ID " << ruleId);
    }
    RemoveRoute(installed.tag, installed.type, installed.actions, installed.paths);
    if (installed.type == edr::EventRule::ProcessRule)
    {
        m_processRuleTags.erase(installed.tag);
    }
    // Forgotten even when the kernel refused: it no longer holds a rule
    // identical to the record (it was flushed), and keeping it would block the
    // rule from being added again.
    m_installedRules.erase(it);
    return true;
}

void RuleEngine::DeleteRules(const std::string& tag)
{
    AuditHandle handle;
    if (!handle.IsOpen())
    {
        EDR_LOG_ERROR("RuleEngine::DeleteRules: Failed to open audit socket");
        return;
    }
    std::lock_guard lock(m_mutex);
    std::vector<std::string> ids;
    for (const auto& [id, installed] : m_installedRules)
    {
        if (installed.tag == tag)
        {
            ids.push_back(id);
        }
    }
    for (const auto& id : ids)
    {
        DeleteRuleFromAudit(handle, id);
    }
}

void RuleEngine::DeleteAllRules(const AuditHandle& handle)
{
    std::vector<std::string> ids;
    ids.reserve(m_installedRules.size());
    for (const auto& entry : m_installedRules)
    {
        ids.push_back(entry.first);
    }
    for (const auto& id : ids)
    {
        DeleteRuleFromAudit(handle, id);
    }
}

void RuleEngine::Invalidate()
{
    {
        EDR_LOG_INFO("RuleEngine::Invalidate: Cleaning up all rules");
        AuditHandle handle;
        if (!handle.IsOpen())
        {
            EDR_LOG_ERROR("RuleEngine::Invalidate: Failed to open audit socket");
            return;
        }
        std::lock_guard lock(m_mutex);
        DeleteAllRules(handle);
    }
    // Without our lock: the owners submit their rules again from here.
    InvalidateEventHandlers();
}

bool RuleEngine::RefreshOutpostExclusionRules(pid_t pid, const std::string& path)
{
    AuditHandle handle;
    if (!handle.IsOpen())
    {
        EDR_LOG_ERROR("RuleEngine: Failed to refresh exclusion rules in audit with new outpost pid");
        return false;
    }
    std::lock_guard lock(m_mutex);
    m_outpostPath = path;
    if (pid == m_outpostPid && m_outpostExclusion.exclusion && m_outpostExclusion.exit)
    {
        return true;
    }
    m_outpostPid = pid;
    DeleteExclusionRules(handle, m_outpostExclusion, true);
    m_outpostExclusion = AddProcessExclusionRules(handle, pid, AuditRuleBuilder::kOutpostSuffix);
    if (!m_outpostExclusion.exclusion)
    {
        EDR_LOG_ERROR("RuleEngine: Failed to refresh exclusion rules in audit with new outpost pid");
        return false;
    }
    return true;
}

std::vector<AuditRule> RuleEngine::GetRulesFromAudit() const
{
    AuditHandle handle;
    if (!handle.IsOpen())
    {
        EDR_LOG_ERROR("GetRulesFromAudit: Failed to open audit socket");
        return {};
    }
    auto rules = GetRulesFromAudit(handle);
    return rules ? std::move(*rules) : std::vector<AuditRule>{};
}

std::optional<uint32_t> RuleEngine::GetAuditBacklogLimit() const
{
    AuditHandle handle;
    if (!handle.IsOpen())
    {
        EDR_LOG_ERROR("GetAuditBacklogLimit: Failed to open audit socket");
        return std::nullopt;
    }
    return GetAuditBacklogLimit(handle);
}

bool RuleEngine::IsRuleInstalled(const std::string& ruleId) const
{
    std::lock_guard lock(m_mutex);
    return m_installedRules.count(ruleId) != 0;
}

pid_t RuleEngine::GetOutpostPid() const
{
    std::lock_guard lock(m_mutex);
    return m_outpostPid;
}

std::string RuleEngine::GetOutpostPath() const
{
    std::lock_guard lock(m_mutex);
    return m_outpostPath;
}

std::optional<std::vector<AuditRule>> RuleEngine::GetRulesFromAudit(const AuditHandle& handle)
{
    EDR_LOG_DEBUG("GetRulesFromAudit: Getting rules list from audit subsystem");
    if (::audit_request_rules_list_data(handle.Fd()) < 0)
    {
        EDR_LOG_ERROR("GetRulesFromAudit: Failed to request rules list from audit subsystem");
        return std::nullopt;
    }
    std::vector<AuditRule> rules;
    int busy = 0;
    for (;;)
    {
        audit_reply reply{};
        const int rc = handle.GetReply(reply, kReplyTimeout);
        if (rc == -EAGAIN || rc == -EINTR)
        {
            EDR_LOG_WARNING("GetRuleFromAudit: Audit channel is busy");
            if (++busy > kBusyRetries)
            {
                return std::nullopt;
            }
            continue;
        }
        if (rc <= 0)
        {
            EDR_LOG_ERROR("GetRuleFromAudit: Failed to get audit reply (" << -rc << ")");
            return std::nullopt;
        }
        if (reply.type == NLMSG_DONE)
        {
            break;
        }
        if (reply.type == NLMSG_ERROR)
        {
            if (reply.error != nullptr && reply.error->error == 0)
            {
                continue; // the acknowledgement of the request
            }
            EDR_LOG_ERROR("GetRuleFromAudit: Failed to get audit reply ("
                          << (reply.error != nullptr ? -reply.error->error : EPROTO) << ")");
            return std::nullopt;
        }
        if (reply.type != AUDIT_LIST_RULES)
        {
            EDR_LOG_WARNING("GetRuleFromAudit: Invalid audit reply");
            continue;
        }
        try
        {
            const size_t size = reply.len > static_cast<int>(NLMSG_HDRLEN) ? reply.len - NLMSG_HDRLEN : 0;
            AuditRule rule(reply.ruledata, size);
            EDR_LOG_DEBUG("GetRuleFromAudit: Found rule '" << JoinKeys(rule) << "' in audit subsystem");
            rules.push_back(std::move(rule));
        }
        catch (const std::runtime_error& e)
        {
            EDR_LOG_ERROR(e.what());
        }
    }
    EDR_LOG_DEBUG("GetRulesFromAudit: Found " << rules.size() << " rules in audit subsystem");
    return rules;
}

std::optional<uint32_t> RuleEngine::GetAuditBacklogLimit(const AuditHandle& handle)
{
    if (::audit_request_status(handle.Fd()) < 0)
    {
        EDR_LOG_ERROR("GetAuditBacklogLimit: Failed to get audit reply (" << errno << ")");
        return std::nullopt;
    }
    int busy = 0;
    for (;;)
    {
        audit_reply reply{};
        const int rc = handle.GetReply(reply, kReplyTimeout);
        if (rc == -EAGAIN || rc == -EINTR)
        {
            EDR_LOG_WARNING("GetAuditBacklogLimit: Audit channel is busy");
            if (++busy > kBusyRetries)
            {
                return std::nullopt;
            }
            continue;
        }
        if (rc <= 0)
        {
            EDR_LOG_ERROR("GetAuditBacklogLimit: Failed to get audit reply (" << -rc << ")");
            return std::nullopt;
        }
        if (reply.type == NLMSG_ERROR && reply.error != nullptr && reply.error->error == 0)
        {
            continue;
        }
        if (reply.type != AUDIT_GET || reply.status == nullptr)
        {
            EDR_LOG_ERROR("GetAuditBacklogLimit: Invalid audit reply");
            return std::nullopt;
        }
        EDR_LOG_INFO("Audit backlog limit is set to " << reply.status->backlog_limit);
        return reply.status->backlog_limit;
    }
}

void RuleEngine::SetAuditBacklogLimit(const AuditHandle& handle) const
{
    const auto current = GetAuditBacklogLimit(handle);
    if (!current || m_auditBacklogLimit <= *current)
    {
        return;
    }
    const auto limit =
        static_cast<uint32_t>(std::min<uint64_t>(m_auditBacklogLimit, std::numeric_limits<uint32_t>::max()));
    if (::audit_set_backlog_limit(handle.Fd(), limit) < 0)
    {
        EDR_LOG_WARNING("Failed to set audit backlog limit to " << limit << ". Continuing with " << *current);
    }
}

void RuleEngine::DeleteDuplicateRules(const AuditHandle& handle, const std::unordered_set<std::string>& keys)
{
    EDR_LOG_DEBUG("RuleEngine::DeleteDuplicateRules: Deleting duplicate rules");
    auto rules = GetRulesFromAudit(handle);
    if (!rules)
    {
        return;
    }
    for (auto& rule : *rules)
    {
        const auto ruleKeys = rule.GetKeys();
        const bool ours = std::any_of(ruleKeys.begin(), ruleKeys.end(),
                                      [&](const std::string& key) { return keys.count(key); });
        if (!ours)
        {
            continue;
        }
        // The kernel's own record carries its list, prepend flag and action.
        if (Remove(handle, rule) < 0)
        {
            EDR_LOG_ERROR("RuleEngine::DeleteDuplicateRules: Failed to delete old rule " << JoinKeys(rule));
        }
        else
        {
            EDR_LOG_INFO("RuleEngine::DeleteDuplicateRules: Deleted old rule " << JoinKeys(rule));
        }
    }
}

void RuleEngine::AddExclusionMessageTypeRules(const AuditHandle& handle)
{
    EDR_LOG_DEBUG("Adding exclusion message type rules");
    // The kernel takes a prepended copy of a rule it already holds, so an
    // existing one (the administrator's, or ours from a run that crashed) is
    // left as it is instead of piling up copies.
    const auto existing = GetRulesFromAudit(handle);
    for (const auto& type : AuditTables::ExclusionMessageTypes())
    {
        if (existing &&
            std::any_of(existing->begin(), existing->end(),
                        [&](const AuditRule& rule) { return IsMessageTypeExclusion(rule, type.type); }))
        {
            EDR_LOG_INFO("Exclusion rule for message type: " << type.name << " already in audit");
            continue;
        }
        try
        {
            AuditRule rule = AuditRuleBuilder::CreateMessageTypeRule(type.type);
            const int rc = Send(handle, rule);
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

void RuleEngine::DeleteExclusionMessageTypeRulesFromAudit(const AuditHandle& handle)
{
    EDR_LOG_DEBUG("RuleEngine::DeleteExclusionMessageTypeRulesFromAudit");
    for (auto& entry : m_messageTypeRules)
    {
        if (Remove(handle, entry.rule) < 0)
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

void RuleEngine::AddThreadExclusionRule(const AuditHandle& handle)
{
    try
    {
        AuditRule rule = AuditRuleBuilder::CreateThreadExclusionRule();
        const int rc = Send(handle, rule);
        if (rc < 0)
        {
            EDR_LOG_ERROR("Failed to add thread exclusion rule to audit: " << -rc);
            return;
        }
        EDR_LOG_INFO("Added thread exclusion rule to audit");
        m_threadExclusionRule = std::move(rule);
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR(e.what());
    }
}

RuleEngine::ProcessExclusion RuleEngine::AddProcessExclusionRules(const AuditHandle& handle, pid_t pid,
                                                                  const std::string& suffix)
{
    ProcessExclusion result;
    result.pid = pid;
    result.suffix = suffix;
    EDR_LOG_INFO("Adding exclusion rule for pid " << pid);
    const std::string key = AuditRuleBuilder::IgnoreRuleKey(suffix);
    if (const auto rules = GetRulesFromAudit(handle))
    {
        for (const auto& rule : *rules)
        {
            if (rule.HasKey(key))
            {
                EDR_LOG_WARNING("Rule with key " << key << " already exist");
                return result;
            }
        }
    }
    try
    {
        AuditRule exclusion = AuditRuleBuilder::CreateProcessExclusionRule(pid, suffix);
        AuditRule exit = AuditRuleBuilder::CreateProcessExitRule(pid, suffix);
        // Both are prepended, so the exit rule ends up in front of the
        // exclusion: the process's exit is still audited, nothing else is.
        int rc = Send(handle, exclusion);
        if (rc < 0)
        {
            EDR_LOG_ERROR("Failed to add exclusion rule for pid " << pid << " (errno = " << -rc << ")");
            return result;
        }
        rc = Send(handle, exit);
        if (rc < 0)
        {
            EDR_LOG_ERROR("Failed to add exclusion rule for pid " << pid << " (errno = " << -rc << ")");
            if (Remove(handle, exclusion) < 0)
            {
                EDR_LOG_ERROR("Failed to clean up exclusion rule for pid " << pid);
            }
            return result;
        }
        EDR_LOG_INFO("Exclusion rule added for pid " << pid);
        result.exclusion = std::move(exclusion);
        result.exit = std::move(exit);
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR(e.what());
    }
    return result;
}

void RuleEngine::DeleteExclusionRules(const AuditHandle& handle, ProcessExclusion& exclusion, bool old)
{
    for (auto* rule : {&exclusion.exit, &exclusion.exclusion})
    {
        if (!*rule)
        {
            continue;
        }
        const std::string keys = JoinKeys(**rule);
        if (Remove(handle, **rule) < 0)
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
