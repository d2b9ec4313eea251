#pragma once

#include "audit/AuditNetlink.h"
#include "audit/AuditRule.h"

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace vantor::audit
{

// The audit rule engine's fixed rules, which keep activity out of the audit
// stream: the message-type exclusions (EOE records; marked as the daemon's,
// see AuditRuleBuilder), the thread-creation exclusion, and for the daemon's
// own pid and the host agent's pid an exclusion rule with, in front of it, an
// exit rule (keys "corvid_ignore_rule_" / "corvid_exit_rule_" plus "self" or
// "outpost"), so that the process's exit is still audited and nothing else it
// does is.
//
// A rule that cannot be installed is logged and the others go on.
//
// Not thread-safe: the owner serialises the calls.
class ExclusionRules
{
public:
    ExclusionRules(pid_t outpostPid, std::string outpostPath);

    ExclusionRules(const ExclusionRules&) = delete;
    ExclusionRules& operator=(const ExclusionRules&) = delete;

    // Whether a rule from the kernel's list is one of the fixed rules (by its
    // key, or by the mark of the message-type exclusions), such as a run
    // that did not end cleanly may have left behind.
    static bool IsFixedRule(const AuditRule& rule);

    // Installs every fixed rule.
    void Install(const AuditNetlink& netlink);
    // Removes from the kernel everything Install put there.
    void Remove(const AuditNetlink& netlink);
    // Somebody else deleted rules of ours: forgets what Install put there,
    // without asking the kernel, so that Install can run again.
    void Forget();
    // The number of kernel rules Install put there.
    size_t InstalledCount() const;

    // The host agent restarted: replaces its exclusion rules; pid 0 only
    // removes them. Answers whether the rules are as asked.
    bool RefreshOutpost(const AuditNetlink& netlink, pid_t pid, const std::string& path);

    pid_t GetOutpostPid() const { return m_outpost.pid; }
    const std::string& GetOutpostPath() const { return m_outpostPath; }

private:
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

    void AddMessageTypeRules(const AuditNetlink& netlink);
    void RemoveMessageTypeRules(const AuditNetlink& netlink);
    void AddThreadRule(const AuditNetlink& netlink);
    void RemoveThreadRule(const AuditNetlink& netlink);
    static void AddProcessRules(const AuditNetlink& netlink, ProcessExclusion& exclusion);
    // old: the rules of a previous agent pid are being replaced, not shut down.
    static void RemoveProcessRules(const AuditNetlink& netlink, ProcessExclusion& exclusion, bool old);

    std::string m_outpostPath;
    std::vector<MessageTypeRule> m_messageTypeRules;
    std::optional<AuditRule> m_threadRule;
    ProcessExclusion m_self;
    ProcessExclusion m_outpost;
};

} // namespace vantor::audit
