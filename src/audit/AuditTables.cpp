#include "audit/AuditTables.h"

#include "edr/Event.h"

#include <libaudit.h>

#include <array>
#include <utility>

namespace vantor::audit
{

namespace
{

constexpr edr::EventRule::Action ActionOf(edr::EventType type)
{
    return static_cast<edr::EventRule::Action>(type);
}

} // namespace

const AuditTables::SyscallTable& AuditTables::ProcessActionSyscalls()
{
    static const SyscallTable table{
        {ActionOf(edr::EventType::Running), {"execve"}},
        {ActionOf(edr::EventType::Clone), {"clone", "fork", "vfork"}},
        {ActionOf(edr::EventType::Exit), {"exit_group"}},
    };
    return table;
}

const AuditTables::SyscallTable& AuditTables::NetworkActionSyscalls()
{
    static const SyscallTable table{
        {ActionOf(edr::EventType::Accept), {"accept"}},
        {ActionOf(edr::EventType::Connect), {"connect"}},
        {ActionOf(edr::EventType::Bind), {"bind"}},
    };
    return table;
}

const std::vector<AuditTables::MessageType>& AuditTables::ExclusionMessageTypes()
{
    static const std::vector<MessageType> table{{"EOE", 1320}};
    return table;
}

const std::unordered_set<std::string>& AuditTables::ContainerRuntimeNames()
{
    static const std::unordered_set<std::string> names{
        "containerd-shim", "containerd-shim-runc-v1", "containerd-shim-runc-v2", "crio", "conmon", "kubelet",
    };
    return names;
}

const std::unordered_set<std::string>& AuditTables::OutpostToolNames()
{
    // "outpost-probeoutpost-scan" is one entry on purpose: the two tools are
    // known to the agent under that single name, so neither matches alone.
    static const std::unordered_set<std::string> names{
        "outpost",           "outpost-updater",           "outpost-installer", "outpost-watchdog",
        "outpost-collector", "outpost-uploader",          "outpost-inventory", "outpost-patcher",
        "outpost-remediate", "outpost-keystore",          "outpost-signer",    "outpost-shell",
        "outpost-diag",      "outpost-netcheck",          "outpost-logrotate", "outpost-blackout",
        "outpost-pkgfetch",  "outpost-probeoutpost-scan",
    };
    return names;
}

const std::vector<std::string>& AuditTables::ToolDirectories()
{
    static const std::vector<std::string> directories{
        "/usr/bin", "/usr/sbin", "/usr/local/bin", "/usr/local/sbin", "/usr/libexec",
    };
    return directories;
}

int AuditTables::RecordType(std::string_view name)
{
    static constexpr std::array<std::pair<std::string_view, int>, 5> kCommon{{{"SYSCALL", AUDIT_SYSCALL},
                                                                              {"PATH", AUDIT_PATH},
                                                                              {"CWD", AUDIT_CWD},
                                                                              {"PROCTITLE", AUDIT_PROCTITLE},
                                                                              {"EOE", AUDIT_EOE}}};
    for (const auto& [common, type] : kCommon)
    {
        if (name == common)
        {
            return type;
        }
    }
    char buffer[64];
    if (name.empty() || name.size() >= sizeof buffer)
    {
        return -1;
    }
    name.copy(buffer, name.size());
    buffer[name.size()] = '\0';
    return ::audit_name_to_msg_type(buffer);
}

} // namespace vantor::audit
