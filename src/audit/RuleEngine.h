#pragma once

#include "audit/AuditEventProcessor.h"
#include "audit/AuditRule.h"
#include "audit/EventRouter.h"
#include "audit/KernelRuleInstaller.h"
#include "audit/ProcessTree.h"
#include "edr/EventRuleEngine.h"
#include "edr/Trie.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace vantor::audit
{

// The audit rule engine: the daemon's event rule engine for the audit
// capture. It is composed of three stages:
//  - the kernel rule installer turns the detection rules that components add
//    into kernel audit rules (and installs the engine's fixed rules);
//  - the router keeps, per installed rule, the route by which matching
//    events reach the rule's tag;
//  - the event processor takes each assembled event through the process
//    tree, drops what must not be reported and dispatches the rest to the
//    handlers of the tags the router names.
//
// The event processor follows the host agent's process: when it exits or is
// replaced, the agent's exclusion rules follow it.
//
// Invalidate() removes the detection rules and asks the tags' owners to
// submit them again; RemoveKernelRules() or the destructor removes everything
// the engine installed.
//
// Threads: rules are added and deleted on the components' threads; one lock
// serialises those changes, so that a rule's kernel records and its route
// come and go together. The router locks itself for the processing thread,
// which alone calls ProcessEvent (through GetEventProcessor()). No lock of
// the engine is held while handlers run: Invalidate() calls the invalidated
// handlers after letting go of its lock, since they add rules again.
class RuleEngine : public edr::EventRuleEngine, public OutpostProcessFollower::Target
{
public:
    using EventPtr = std::unique_ptr<edr::Event>;

    // Throws RuleEngineException "RuleEngine: Failed to open audit socket"
    // when no audit socket can be opened. Failures of the fixed rules are
    // logged and the engine keeps running.
    RuleEngine(pid_t outpostPid, std::string outpostPath, std::shared_ptr<ProcessTree> processTree,
               uint64_t auditBacklogLimit, std::string agentInstallPath);
    // Without a process tree: events carry only their own data.
    RuleEngine(pid_t outpostPid, std::string outpostPath, uint64_t auditBacklogLimit,
               std::string agentInstallPath);
    ~RuleEngine() override;

    // Builds and installs the kernel rules of each rule under the tag and
    // routes their events to it. A rule that fails is logged and skipped.
    // Throws RuleEngineException for an empty tag or when no audit socket can
    // be opened.
    void AddRules(const Rules& rules, const std::string& tag) override;
    // Removes every rule installed under the tag.
    void DeleteRules(const std::string& tag) override;
    // Removes the kernel rules and the route of the rule id; answers whether
    // the id was installed.
    bool DeleteRuleFromAudit(const std::string& ruleId);

    // Removes all detection rules, then calls the invalidated handlers so that
    // their owners submit their rules again.
    void Invalidate();

    // The host agent restarted: replaces its exclusion rules (pid 0: the
    // agent has no process, its rules are removed). Answers whether the
    // rules are as asked. Also called on the processing thread when the
    // agent's process exits or is replaced.
    bool RefreshOutpostExclusionRules(pid_t pid, const std::string& path) override;

    // Removes every kernel rule the engine installed; from then on none is
    // installed. The daemon calls it first when it shuts down, so that
    // nothing later in the shutdown (a slow stop, a kill) can leave rules
    // behind. Their routes go with them; handlers stay, for their owners to
    // unregister as usual.
    void RemoveKernelRules();

    // Installs again the kernel rules of ours that somebody else removed;
    // see KernelRuleInstaller::RestoreMissingRules.
    std::optional<KernelRuleInstaller::Repair> RestoreMissingRules();

    // The kernel's rule list; empty when it cannot be read.
    std::vector<AuditRule> GetRulesFromAudit() const;
    std::optional<uint32_t> GetAuditBacklogLimit() const;

    bool IsRuleInstalled(const std::string& ruleId) const;
    pid_t GetOutpostPid() const override;
    std::string GetOutpostPath() const override;
    const std::string& GetAgentInstallPath() const { return m_agentInstallPath; }

    // Tags whose path rules cover the path.
    edr::Trie::Values GetPathTags(std::string_view path) const;

    // The event stage, for the event processing thread (its one caller).
    AuditEventProcessor& GetEventProcessor() { return m_events; }
    // Processes one event and destroys it; see AuditEventProcessor.
    void ProcessEvent(EventPtr event);

    const std::shared_ptr<ProcessTree>& GetProcessTree() const { return m_events.GetProcessTree(); }

private:
    void RemoveRoutes(const std::vector<std::string>& ruleIds);

    const std::string m_agentInstallPath;

    // Serialises rule changes: the installer and the router's updates.
    mutable std::mutex m_rulesMutex;
    KernelRuleInstaller m_installer;
    EventRouter m_router;
    AuditEventProcessor m_events;
};

} // namespace vantor::audit
