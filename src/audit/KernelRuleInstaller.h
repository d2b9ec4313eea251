#pragma once

#include "audit/AuditNetlink.h"
#include "audit/AuditRule.h"
#include "audit/ExclusionRules.h"
#include "edr/EventRule.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace vantor::audit
{

// The kernel side of the audit rule engine: turns detection rules into kernel
// audit rules, installs and deletes them through libaudit, and keeps the
// kernel's rule list clean of what it installed.
//
// On construction it raises the kernel's backlog limit (never lowers it),
// deletes rules left by an earlier run under its fixed keys and installs the
// fixed exclusion rules. Detection rules are keyed with their tag; the rules
// of a tag that an earlier run left are deleted before the tag's first rule
// is installed. RemoveAll() or the destructor removes everything it
// installed.
//
// Every operation opens its own audit socket. Not thread-safe: the owner
// serialises the calls (the static queries excepted).
class KernelRuleInstaller
{
public:
    using Rules = std::vector<std::shared_ptr<edr::EventRule>>;

    // A detection rule now in the kernel, and the paths that got a watch.
    struct Installed
    {
        std::shared_ptr<edr::EventRule> rule;
        std::vector<std::string> paths;
    };

    // What a comparison with the kernel's rule list found.
    struct Repair
    {
        // Kernel rules of ours that were gone.
        uint64_t missing = 0;
        // Kernel rules installed again (a rule set with a gap is installed
        // again whole).
        uint64_t reinstalled = 0;
    };

    // Throws RuleEngineException "RuleEngine: Failed to open audit socket"
    // when no audit socket can be opened. Failures of the fixed rules are
    // logged and the installer goes on.
    KernelRuleInstaller(pid_t outpostPid, std::string outpostPath, uint64_t auditBacklogLimit);
    ~KernelRuleInstaller();

    KernelRuleInstaller(const KernelRuleInstaller&) = delete;
    KernelRuleInstaller& operator=(const KernelRuleInstaller&) = delete;

    // Builds and installs the kernel rules of each rule under the tag and
    // answers the rules installed. A rule that fails is logged and skipped.
    // Throws RuleEngineException for an empty tag or when no audit socket
    // can be opened.
    std::vector<Installed> AddRules(const Rules& rules, const std::string& tag);

    // Removes the kernel rules installed for the rule id; answers whether the
    // id was installed.
    bool DeleteRule(const std::string& ruleId);
    // Remove the rules of the tag / all detection rules; answer the ids that
    // were installed. DeleteAllRules answers nullopt, removing nothing, when
    // no audit socket can be opened.
    std::vector<std::string> DeleteRules(const std::string& tag);
    std::optional<std::vector<std::string>> DeleteAllRules();

    // The host agent restarted: replaces its exclusion rules. Answers whether
    // the new rules are in place.
    bool RefreshOutpostExclusionRules(pid_t pid, const std::string& path);

    // Somebody else removed rules of ours (auditctl -D, auditd's rule loader
    // at its start): compares one kernel rule list with what is installed
    // and, for the fixed rules and for each tag that lost a rule, removes
    // what is left and installs the whole set again, so that the kernel
    // order (exclusions in front) holds. Nothing after RemoveAll(). Answers
    // nullopt when the list cannot be read.
    std::optional<Repair> RestoreMissingRules();

    // Removes every kernel rule installed, detection rules first, then the
    // fixed ones; from then on no rule is installed (AddRules and refreshes
    // install nothing). The destructor does the same. operation names the
    // caller when no audit socket opens. Answers the ids of the detection
    // rules that were installed; nullopt when no socket opened (the rules
    // stay until the next start removes them).
    std::optional<std::vector<std::string>> RemoveAll(std::string_view operation);
    bool IsClosed() const { return m_closed; }

    bool IsRuleInstalled(const std::string& ruleId) const { return m_installed.count(ruleId) != 0; }
    pid_t GetOutpostPid() const { return m_exclusions.GetOutpostPid(); }
    const std::string& GetOutpostPath() const { return m_exclusions.GetOutpostPath(); }

    // For the host after a daemon that could not clean up (killed, crashed)
    // and before none runs again: deletes the fixed rules and the rules keyed
    // with one of the tags from the kernel. Answers how many went; nullopt
    // when no audit socket opens or the list cannot be read.
    static std::optional<size_t> RemoveLeftoverRules(const std::vector<std::string>& tags);

    // The kernel's rule list; empty when it cannot be read.
    static std::vector<AuditRule> GetRulesFromAudit();
    static std::optional<uint32_t> GetAuditBacklogLimit();

private:
    struct InstalledRecords
    {
        std::string tag;
        uint32_t type = 0;
        std::vector<AuditRule> records;
    };

    // A socket for the operation; logs "<operation>: Failed to open audit
    // socket" when it could not be opened.
    static AuditNetlink OpenSocket(std::string_view operation);
    static std::optional<uint32_t> GetAuditBacklogLimit(const AuditNetlink& netlink);
    void SetAuditBacklogLimit(const AuditNetlink& netlink) const;
    // Deletes the rules of the kernel's list that ours picks; answers how
    // many, nullopt when the list cannot be read.
    static std::optional<size_t> DeleteDuplicateRules(const AuditNetlink& netlink,
                                                      const std::function<bool(const AuditRule&)>& ours);
    bool HasOtherProcessRule(const std::string& tag, const std::string& ruleId) const;
    bool AddRuleToAudit(const AuditNetlink& netlink, const edr::EventRule& rule, const std::string& tag,
                        std::vector<AuditRule> records);
    bool DeleteRuleFromAudit(const AuditNetlink& netlink, const std::string& ruleId);
    std::vector<std::string> DeleteRulesWhere(const AuditNetlink& netlink, const std::string* tag);

    const uint64_t m_auditBacklogLimit;
    std::unordered_map<std::string, InstalledRecords> m_installed;
    // Tags whose rules from an earlier run have been looked for and removed.
    std::unordered_set<std::string> m_cleanedTags;
    // Rules the kernel refused to take back after somebody removed them.
    std::unordered_set<std::string> m_unrestorable;
    ExclusionRules m_exclusions;
    bool m_closed = false;
};

} // namespace vantor::audit
