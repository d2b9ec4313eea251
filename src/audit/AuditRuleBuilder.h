#pragma once

#include "audit/AuditRule.h"
#include "edr/EventRule.h"

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

namespace vantor::audit
{

// Builds libaudit rule records for the 64-bit system call table. libaudit
// keeps parser state in process-wide globals (whether a system call or an
// architecture was added), so every build runs under one lock with that state
// saved, cleared and restored. Nothing here talks to the kernel.
class AuditRuleBuilder
{
public:
    static constexpr const char* kIgnoreRuleKeyPrefix = "corvid_ignore_rule_";
    static constexpr const char* kExitRuleKeyPrefix = "corvid_exit_rule_";
    static constexpr const char* kThreadExclusionKey = "corvid_ignore_thread_events_rule";
    // The daemon's own pid and the host agent's pid get exclusion rules keyed
    // with these suffixes.
    static constexpr const char* kSelfSuffix = "self";
    static constexpr const char* kOutpostSuffix = "outpost";
    // The unsigned form of the unset login user id.
    static constexpr unsigned long kUnsetAuid = 4294967295UL;
    static constexpr int kCloneThreadFlag = 0x10000;
    // The exclude filter takes no key, so the message-type exclusions carry
    // "pid!=" this instead: no process has it (the kernel's pids end at
    // 2^22), so the condition always holds, and it tells the daemon's rule
    // from an identical one of somebody else, also after a crash.
    static constexpr uint32_t kMessageTypeRuleMark = 0x636f7276;

    // The kernel records of one detection rule, and the paths that got a watch.
    struct BuiltRule
    {
        std::vector<AuditRule> records;
        std::vector<std::string> paths;
    };

    // Records for a detection rule keyed with key. Throws RuleEngineException
    // for an unsupported rule type, a key that cannot be added, a path rule
    // without actions and a process or network rule without system calls.
    // Missing paths are skipped, so a path rule may yield no records.
    static BuiltRule CreateRules(const edr::EventRule& rule, const std::string& key);

    // Watch permissions (AUDIT_PERM_*) a path rule asks for.
    static int GetReadPermissions(const edr::EventRule& rule);
    static int GetWritePermissions(const edr::EventRule& rule);

    // System calls of the actions, in table order, each once; unsupported
    // actions are logged and skipped.
    static std::vector<std::string> GetProcessSyscalls(const edr::EventRule& rule);
    static std::vector<std::string> GetNetworkSyscalls(const edr::EventRule& rule);

    // The engine's own rules; each throws RuleEngineException with its
    // failure text. They carry their filter flags and action.
    static AuditRule CreateThreadExclusionRule();
    static AuditRule CreateProcessExclusionRule(pid_t pid, const std::string& suffix);
    static AuditRule CreateProcessExitRule(pid_t pid, const std::string& suffix);
    // An exclude-list rule for the message type, marked as the daemon's.
    static AuditRule CreateMessageTypeRule(int messageType);
    // Whether a rule (from the kernel's list) is a message-type exclusion
    // that CreateMessageTypeRule made.
    static bool IsOwnMessageTypeRule(const AuditRule& rule);

    static std::string IgnoreRuleKey(const std::string& suffix) { return kIgnoreRuleKeyPrefix + suffix; }
    static std::string ExitRuleKey(const std::string& suffix) { return kExitRuleKeyPrefix + suffix; }

private:
    static BuiltRule CreatePathRules(const edr::EventRule& rule, const std::string& key);
};

} // namespace vantor::audit
