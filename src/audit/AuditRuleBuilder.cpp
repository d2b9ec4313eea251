#include "audit/AuditRuleBuilder.h"

#include "audit/AuditTables.h"
#include "audit/RuleEngineException.h"
#include "common/Logging.h"
#include "edr/Event.h"

#include <libaudit.h>

#include <cerrno>
#include <mutex>
#include <set>
#include <sys/stat.h>

// Parser state of libaudit; exported but not declared in its header.
extern "C"
{
    extern int _audit_syscalladded;
    extern int _audit_archadded;
    extern int _audit_permadded;
    extern unsigned int _audit_elf;
}

namespace vantor::audit
{

namespace
{

using Action = edr::EventRule::Action;

std::mutex g_libauditMutex;

// Holds the libaudit lock for one build, with its parser state cleared, and
// puts the state back afterwards.
class LibauditState
{
public:
    LibauditState()
        : m_lock(g_libauditMutex)
        , m_syscallAdded(_audit_syscalladded)
        , m_archAdded(_audit_archadded)
        , m_permAdded(_audit_permadded)
        , m_elf(_audit_elf)
    {
        Reset();
    }

    ~LibauditState()
    {
        _audit_syscalladded = m_syscallAdded;
        _audit_archadded = m_archAdded;
        _audit_permadded = m_permAdded;
        _audit_elf = m_elf;
    }

    LibauditState(const LibauditState&) = delete;
    LibauditState& operator=(const LibauditState&) = delete;

    // Each record is a separate build.
    static void Reset()
    {
        _audit_syscalladded = 0;
        _audit_archadded = 0;
        _audit_permadded = 0;
        _audit_elf = 0;
    }

private:
    std::lock_guard<std::mutex> m_lock;
    int m_syscallAdded;
    int m_archAdded;
    int m_permAdded;
    unsigned int m_elf;
};

bool HasAction(const edr::EventRule::ActionSet& actions, edr::EventType type)
{
    return actions.count(static_cast<Action>(type)) != 0;
}

int WriteMaskOf(const edr::EventRule::ActionSet& actions)
{
    int mask = 0;
    if (HasAction(actions, edr::EventType::Write) || HasAction(actions, edr::EventType::Delete) ||
        HasAction(actions, edr::EventType::Create) || HasAction(actions, edr::EventType::Rename))
    {
        mask |= AUDIT_PERM_WRITE;
    }
    if (HasAction(actions, edr::EventType::Attribute))
    {
        mask |= AUDIT_PERM_ATTR;
    }
    return mask;
}

bool AddField(AuditRule& rule, std::string pair, int list)
{
    // libaudit cuts the pair apart in place, so it gets a writable copy.
    return ::audit_rule_fieldpair_data(rule.Ptr(), pair.data(), list) == 0;
}

bool AddSyscalls(AuditRule& rule, const std::vector<std::string>& names)
{
    if (!AddField(rule, "arch=b64", AUDIT_FILTER_EXIT))
    {
        EDR_LOG_ERROR("AddSyscalls: Failed to add 'arch'");
        return false;
    }
    for (const auto& name : names)
    {
        EDR_LOG_DEBUG("AddSyscalls: Adding syscall '" << name << "'");
        if (::audit_rule_syscallbyname_data(rule.Get(), name.c_str()) != 0)
        {
            EDR_LOG_ERROR("AddSyscalls: Failed to add syscall '" << name << "'");
            return false;
        }
        EDR_LOG_DEBUG("CreateRules: Adding " << name << " to rule");
    }
    // libaudit accepts a key only after a system call or a watch.
    _audit_syscalladded = 1;
    return true;
}

void AddKey(AuditRule& rule, const std::string& key, const std::string& id)
{
    if (!AddField(rule, "key=" + key, AUDIT_FILTER_EXIT))
    {
        throw RuleEngineException("CreateRules: Failed to add key for rule id " + id);
    }
}

AuditRule CreateSyscallRule(const edr::EventRule& rule, const std::vector<std::string>& syscalls,
                            const std::string& key)
{
    if (syscalls.empty())
    {
        throw RuleEngineException("CreateRules: No system calls for rule id " + rule.GetId());
    }
    AuditRule record;
    if (!AddSyscalls(record, syscalls))
    {
        throw RuleEngineException("CreateRules: Failed to add system calls for rule id " + rule.GetId());
    }
    AddKey(record, key, rule.GetId());
    record.SetFlags(AUDIT_FILTER_EXIT);
    record.SetAction(AUDIT_ALWAYS);
    return record;
}

bool AddPathToRule(AuditRule& record, const std::string& path, mode_t mode, const std::string& id)
{
    if (S_ISREG(mode))
    {
        if (::audit_add_watch(record.Ptr(), path.c_str()) != 0)
        {
            EDR_LOG_ERROR("AddPathToRule: Failed to add file " << path << " to rule id " << id);
            return false;
        }
    }
    else if (S_ISDIR(mode))
    {
        if (::audit_add_watch_dir(AUDIT_DIR, record.Ptr(), path.c_str()) != 0)
        {
            EDR_LOG_ERROR("AddPathToRule: Failed to add directory " << path << " to rule id " << id);
            return false;
        }
    }
    else
    {
        EDR_LOG_ERROR("AddPathToRule: Cannot add path to rule id " << id << " as type is unsupported");
        return false;
    }
    EDR_LOG_DEBUG("CreateRules: Adding " << path << " to rule");
    return true;
}

bool AddPermsToRule(AuditRule& record, const std::string& path, int permissions)
{
    EDR_LOG_DEBUG("AddPermsToRule: Adding watch permissions to path " << path);
    if (::audit_update_watch_perms(record.Get(), permissions) != 0)
    {
        EDR_LOG_ERROR("AddPermsToRule: Failed to add watch permissions for path " << path);
        return false;
    }
    return true;
}

} // namespace

int AuditRuleBuilder::GetReadPermissions(const edr::EventRule& rule)
{
    return HasAction(rule.GetActions(), edr::EventType::Read) ? AUDIT_PERM_READ : 0;
}

int AuditRuleBuilder::GetWritePermissions(const edr::EventRule& rule)
{
    int mask = WriteMaskOf(rule.GetActions());
    if (rule.GetType() == edr::EventRule::DirectoryPathRule)
    {
        mask |= WriteMaskOf(rule.GetDirectoryActions());
    }
    return mask;
}

std::vector<std::string> AuditRuleBuilder::GetProcessSyscalls(const edr::EventRule& rule)
{
    const auto& table = AuditTables::ProcessActionSyscalls();
    std::vector<std::string> syscalls;
    for (const Action action : rule.GetActions())
    {
        const auto it = table.find(action);
        if (it == table.end())
        {
            EDR_LOG_ERROR("AddProcessRules: Unsupported action " << static_cast<int>(action));
            continue;
        }
        syscalls.insert(syscalls.end(), it->second.begin(), it->second.end());
    }
    return syscalls;
}

std::vector<std::string> AuditRuleBuilder::GetNetworkSyscalls(const edr::EventRule& rule)
{
    const auto& table = AuditTables::NetworkActionSyscalls();
    std::set<std::string> unique;
    std::vector<std::string> syscalls;
    for (const Action action : rule.GetActions())
    {
        const auto it = table.find(action);
        if (it == table.end())
        {
            EDR_LOG_ERROR("AddNetworkRules: Unsupported network action " << static_cast<int>(action));
            continue;
        }
        for (const auto& name : it->second)
        {
            if (unique.insert(name).second)
            {
                syscalls.push_back(name);
            }
        }
    }
    return syscalls;
}

AuditRuleBuilder::BuiltRule AuditRuleBuilder::CreateRules(const edr::EventRule& rule, const std::string& key)
{
    const std::string& id = rule.GetId();
    EDR_LOG_DEBUG("CreateRules: Creating rule with ID " << id);
    BuiltRule built;
    switch (rule.GetType())
    {
    case edr::EventRule::ProcessRule:
    {
        EDR_LOG_DEBUG("AddProcessRules: Creating process rules for rule ID " << id);
        const auto syscalls = GetProcessSyscalls(rule);
        LibauditState state;
        built.records.push_back(CreateSyscallRule(rule, syscalls, key));
        break;
    }
    case edr::EventRule::NetworkRule:
    {
        EDR_LOG_DEBUG("AddNetworkRules: Creating network rules for rule id " << id);
        const auto syscalls = GetNetworkSyscalls(rule);
        LibauditState state;
        built.records.push_back(CreateSyscallRule(rule, syscalls, key));
        break;
    }
    case edr::EventRule::FilePathRule:
    case edr::EventRule::DirectoryPathRule:
        built = CreatePathRules(rule, key);
        break;
    default:
        throw RuleEngineException("CreateRules: Unsupported rule type for rule id " + id);
    }
    return built;
}

AuditRuleBuilder::BuiltRule AuditRuleBuilder::CreatePathRules(const edr::EventRule& rule,
                                                              const std::string& key)
{
    const std::string& id = rule.GetId();
    EDR_LOG_DEBUG("AddPathRules: Creating path rules for rule id " << id);
    const int readPermissions = GetReadPermissions(rule);
    const int writePermissions = GetWritePermissions(rule);
    if (readPermissions == 0 && writePermissions == 0)
    {
        throw RuleEngineException("AddPathRules: Failed to add rule without actions: " + id);
    }

    BuiltRule built;
    LibauditState state;
    for (const auto& path : rule.GetPaths())
    {
        struct stat info
        {
        };
        if (path.empty() || ::stat(path.c_str(), &info) != 0)
        {
            EDR_LOG_INFO("Ignoring rule " << id << " as path " << path << " does not exist");
            continue;
        }
        bool watched = false;
        if (readPermissions != 0)
        {
            EDR_LOG_DEBUG("AddPathRules: Creating read rule for rule id " << id);
            EDR_LOG_DEBUG("AddPathRules: Adding path " << path << " to read rule for id " << id);
            LibauditState::Reset();
            AuditRule record;
            if (AddPathToRule(record, path, info.st_mode, id))
            {
                // Reads by processes without a login user (daemons) are never
                // worth a record and would flood the stream.
                if (!AddField(record, "auid!=" + std::to_string(kUnsetAuid), AUDIT_FILTER_EXIT))
                {
                    EDR_LOG_ERROR("AddPathRules: Failed to add " << path << " to read rule for id " << id);
                }
                else if (AddPermsToRule(record, path, readPermissions))
                {
                    AddKey(record, key, id);
                    record.SetFlags(AUDIT_FILTER_EXIT);
                    record.SetAction(AUDIT_ALWAYS);
                    built.records.push_back(std::move(record));
                    watched = true;
                }
            }
        }
        if (writePermissions != 0)
        {
            EDR_LOG_DEBUG("AddPathRules: Creating write/attribute rules for rule id " << id);
            EDR_LOG_DEBUG("AddPathRules: Adding path " << path << " to write/attribute rule for id " << id);
            LibauditState::Reset();
            AuditRule record;
            if (AddPathToRule(record, path, info.st_mode, id) &&
                AddPermsToRule(record, path, writePermissions))
            {
                AddKey(record, key, id);
                record.SetFlags(AUDIT_FILTER_EXIT);
                record.SetAction(AUDIT_ALWAYS);
                built.records.push_back(std::move(record));
                watched = true;
            }
        }
        if (watched)
        {
            built.paths.push_back(path);
        }
    }
    return built;
}

AuditRule AuditRuleBuilder::CreateThreadExclusionRule()
{
    LibauditState state;
    AuditRule record;
    if (!AddField(record, "arch=b64", AUDIT_FILTER_EXIT))
    {
        throw RuleEngineException("Failed to add arch to the thread exclusion rule");
    }
    if (::audit_rule_syscallbyname_data(record.Get(), "clone") != 0)
    {
        throw RuleEngineException("Failed to add syscall to the thread exclusion rule");
    }
    _audit_syscalladded = 1;
    if (!AddField(record, "a0&" + std::to_string(kCloneThreadFlag), AUDIT_FILTER_EXIT))
    {
        throw RuleEngineException("Failed to add flag to the thread exclusion rule");
    }
    if (!AddField(record, std::string("key=") + kThreadExclusionKey, AUDIT_FILTER_EXIT))
    {
        throw RuleEngineException("Failed to add key to the thread exclusion rule");
    }
    record.SetFlags(AUDIT_FILTER_PREPEND | AUDIT_FILTER_EXIT);
    record.SetAction(AUDIT_NEVER);
    return record;
}

AuditRule AuditRuleBuilder::CreateProcessExclusionRule(pid_t pid, const std::string& suffix)
{
    LibauditState state;
    AuditRule record;
    if (pid <= 0 || !AddField(record, "arch=b64", AUDIT_FILTER_EXIT) ||
        !AddField(record, "pid=" + std::to_string(pid), AUDIT_FILTER_EXIT) ||
        ::audit_rule_syscallbyname_data(record.Get(), "all") != 0)
    {
        throw RuleEngineException("Failed to create exclusion rule for pid " + std::to_string(pid));
    }
    _audit_syscalladded = 1;
    if (!AddField(record, "key=" + IgnoreRuleKey(suffix), AUDIT_FILTER_EXIT))
    {
        throw RuleEngineException("Failed to add key to the exclusion rule for pid " + std::to_string(pid));
    }
    record.SetFlags(AUDIT_FILTER_PREPEND | AUDIT_FILTER_EXIT);
    record.SetAction(AUDIT_NEVER);
    return record;
}

AuditRule AuditRuleBuilder::CreateProcessExitRule(pid_t pid, const std::string& suffix)
{
    LibauditState state;
    AuditRule record;
    if (pid <= 0 || !AddField(record, "arch=b64", AUDIT_FILTER_EXIT) ||
        !AddField(record, "pid=" + std::to_string(pid), AUDIT_FILTER_EXIT) ||
        ::audit_rule_syscallbyname_data(record.Get(), "exit_group") != 0)
    {
        throw RuleEngineException("Failed to create exit rule for pid " + std::to_string(pid));
    }
    _audit_syscalladded = 1;
    if (!AddField(record, "key=" + ExitRuleKey(suffix), AUDIT_FILTER_EXIT))
    {
        throw RuleEngineException("Failed to add key to the exit rule for pid " + std::to_string(pid));
    }
    record.SetFlags(AUDIT_FILTER_PREPEND | AUDIT_FILTER_EXIT);
    record.SetAction(AUDIT_ALWAYS);
    return record;
}

AuditRule AuditRuleBuilder::CreateMessageTypeRule(int messageType)
{
    LibauditState state;
    AuditRule record;
    if (!AddField(record, "msgtype=" + std::to_string(messageType), AUDIT_FILTER_EXCLUDE) ||
        !AddField(record, "pid!=" + std::to_string(kMessageTypeRuleMark), AUDIT_FILTER_EXCLUDE))
    {
        throw RuleEngineException("Failed to add exclusion rule for message type: " +
                                  std::to_string(messageType));
    }
    record.SetFlags(AUDIT_FILTER_PREPEND | AUDIT_FILTER_EXCLUDE);
    record.SetAction(AUDIT_ALWAYS);
    return record;
}

bool AuditRuleBuilder::IsOwnMessageTypeRule(const AuditRule& rule)
{
    const audit_rule_data* data = rule.Get();
    if (data == nullptr || (rule.GetFlags() & ~AUDIT_FILTER_PREPEND) != AUDIT_FILTER_EXCLUDE ||
        data->field_count != 2)
    {
        return false;
    }
    return data->fields[0] == AUDIT_MSGTYPE && data->fieldflags[0] == AUDIT_EQUAL &&
           data->fields[1] == AUDIT_PID && data->fieldflags[1] == AUDIT_NOT_EQUAL &&
           data->values[1] == kMessageTypeRuleMark;
}

} // namespace vantor::audit
