#pragma once

#include "audit/AuditHandle.h"
#include "audit/AuditRule.h"
#include "audit/AuditRuleBuilder.h"
#include "audit/EventRouter.h"
#include "audit/ProcessTree.h"
#include "edr/EventRule.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace vantor::audit
{

// Turns the daemon's detection rules into kernel audit rules and keeps the
// kernel's rule list clean of what it installed.
//
// On construction it raises the kernel's backlog limit (never lowers it),
// deletes rules left by an earlier run under its own keys, and installs its
// fixed rules: the EOE record exclusion, the thread-creation exclusion, and
// for its own pid and the host agent's pid an exclusion rule with, in front of
// it, an exit rule (keys "corvid_ignore_rule_" / "corvid_exit_rule_" plus
// "self" or "outpost"). Detection rules are keyed with their tag; path rules
// also enter their paths into the trie under the tag. Invalidate() removes the
// detection rules and asks the tags' owners to submit them again; the
// destructor removes everything the engine installed.
//
// Every operation opens its own audit socket, so operations may run on
// different threads; one lock serialises them. Events are handled by the
// EventRouter base (ProcessEvent), routed by the rules installed here.
class RuleEngine : public EventRouter
{
public:
    using Rules = std::vector<std::shared_ptr<edr::EventRule>>;

    // Throws RuleEngineException "RuleEngine: Failed to open audit socket"
    // when no audit socket can be opened. Failures of the fixed rules are
    // logged and the engine keeps running.
    RuleEngine(pid_t outpostPid, std::string outpostPath, std::shared_ptr<ProcessTree> processTree,
               uint64_t auditBacklogLimit, std::string agentInstallPath);
    // Without a process tree: events carry only their own data.
    RuleEngine(pid_t outpostPid, std::string outpostPath, uint64_t auditBacklogLimit,
               std::string agentInstallPath);
    ~RuleEngine() override;

    // Builds and installs the kernel rules of each rule under the tag. A rule
    // that fails is logged and skipped. Throws RuleEngineException for an
    // empty tag or when no audit socket can be opened.
    void AddRules(const Rules& rules, const std::string& tag) override;

    // Removes the kernel rules installed for the rule id; answers whether the
    // id was installed.
    bool DeleteRuleFromAudit(const std::string& ruleId);
    // Removes every rule installed under the tag.
    void DeleteRules(const std::string& tag) override;

    // Removes all detection rules, then calls the invalidated handlers so that
    // their owners submit their rules again.
    void Invalidate();

    // The host agent restarted: replaces its exclusion rules. Answers whether
    // the new rules are in place.
    bool RefreshOutpostExclusionRules(pid_t pid, const std::string& path);

    // The kernel's rule list; empty when it cannot be read.
    std::vector<AuditRule> GetRulesFromAudit() const;
    std::optional<uint32_t> GetAuditBacklogLimit() const;

    bool IsRuleInstalled(const std::string& ruleId) const;
    pid_t GetOutpostPid() const;
    std::string GetOutpostPath() const;
    const std::string& GetAgentInstallPath() const { return m_agentInstallPath; }

private:
    struct InstalledRule
    {
        std::string tag;
        uint32_t type = 0;
        edr::EventRule::ActionSet actions;
        std::vector<AuditRule> records;
        std::vector<std::string> paths;
    };

    // The exclusion rule of one process and the exit rule standing in front
    // of it.
    struct ProcessExclusion
    {
        pid_t pid = 0;
        std::string suffix;
        std::optional<AuditRule> exclusion;
        std::optional<AuditRule> exit;
    };

    struct MessageTypeRule
    {
        std::string name;
        AuditRule rule;
    };

    static std::optional<std::vector<AuditRule>> GetRulesFromAudit(const AuditHandle& handle);
    static std::optional<uint32_t> GetAuditBacklogLimit(const AuditHandle& handle);
    void SetAuditBacklogLimit(const AuditHandle& handle) const;
    static void DeleteDuplicateRules(const AuditHandle& handle, const std::unordered_set<std::string>& keys);
    void AddExclusionMessageTypeRules(const AuditHandle& handle);
    void DeleteExclusionMessageTypeRulesFromAudit(const AuditHandle& handle);
    void AddThreadExclusionRule(const AuditHandle& handle);
    static ProcessExclusion AddProcessExclusionRules(const AuditHandle& handle, pid_t pid,
                                                     const std::string& suffix);
    // old: the rules of a previous agent pid are being replaced, not shut down.
    static void DeleteExclusionRules(const AuditHandle& handle, ProcessExclusion& exclusion, bool old);
    bool AddRuleToAudit(const AuditHandle& handle, const edr::EventRule& rule, const std::string& tag,
                        AuditRuleBuilder::BuiltRule built);
    bool DeleteRuleFromAudit(const AuditHandle& handle, const std::string& ruleId);
    void DeleteAllRules(const AuditHandle& handle);

    const uint64_t m_auditBacklogLimit;
    const std::string m_agentInstallPath;

    mutable std::mutex m_mutex;
    pid_t m_outpostPid;
    std::string m_outpostPath;
    std::unordered_map<std::string, InstalledRule> m_installedRules;
    std::unordered_set<std::string> m_processRuleTags;
    // Tags whose rules from an earlier run have been looked for and removed.
    std::unordered_set<std::string> m_cleanedTags;
    std::vector<MessageTypeRule> m_messageTypeRules;
    std::optional<AuditRule> m_threadExclusionRule;
    ProcessExclusion m_selfExclusion;
    ProcessExclusion m_outpostExclusion;
};

} // namespace vantor::audit
