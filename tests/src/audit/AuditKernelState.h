#pragma once

// Saves and restores the kernel audit state that capture tests change: the
// rule list (only rules of ours are ever removed), the enabled flag and the
// backlog limit.

#include "audit/AuditRuleBuilder.h"

#include <gtest/gtest.h>
#include <libaudit.h>
#include <linux/netlink.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace vantor::test
{

inline std::string RunCommand(const std::string& command)
{
    std::string output;
    FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr)
    {
        return output;
    }
    std::array<char, 4096> buffer{};
    size_t n = 0;
    while ((n = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0)
    {
        output.append(buffer.data(), n);
    }
    ::pclose(pipe);
    return output;
}

inline std::vector<std::string> SplitLines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line))
    {
        if (!line.empty() && line != "No rules")
        {
            lines.push_back(line);
        }
    }
    return lines;
}

// The rules as `auditctl -l` prints them, in kernel order.
inline std::vector<std::string> ListRules()
{
    return SplitLines(RunCommand("auditctl -l"));
}

inline std::vector<std::string> RulesContaining(const std::string& text)
{
    std::vector<std::string> found;
    for (const auto& line : ListRules())
    {
        if (line.find(text) != std::string::npos)
        {
            found.push_back(line);
        }
    }
    return found;
}

inline std::optional<long long> StatusValue(const std::string& name)
{
    for (const auto& line : SplitLines(RunCommand("auditctl -s")))
    {
        if (line.rfind(name + " ", 0) == 0)
        {
            return std::stoll(line.substr(name.size() + 1));
        }
    }
    return std::nullopt;
}

// Runs auditctl with the tokens of a listed rule, quoted for the shell.
inline std::string Auditctl(const std::string& option, const std::string& rest)
{
    std::string command = "auditctl " + option;
    std::istringstream in(rest);
    std::string token;
    while (in >> token)
    {
        command += " '" + token + "'";
    }
    return RunCommand(command);
}

// The kernel's rule records in list order (the order `auditctl -l` prints).
inline std::vector<std::vector<uint8_t>> ListRuleRecords(int fd)
{
    std::vector<std::vector<uint8_t>> records;
    if (::audit_request_rules_list_data(fd) < 0)
    {
        return records;
    }
    for (;;)
    {
        pollfd pfd{fd, POLLIN, 0};
        if (::poll(&pfd, 1, 1000) <= 0)
        {
            return {};
        }
        audit_reply reply{};
        if (::audit_get_reply(fd, &reply, GET_REPLY_NONBLOCKING, 0) <= 0)
        {
            return {};
        }
        if (reply.type == NLMSG_DONE)
        {
            return records;
        }
        if (reply.type == AUDIT_LIST_RULES)
        {
            const auto* bytes = reinterpret_cast<const uint8_t*>(reply.ruledata);
            records.emplace_back(bytes, bytes + sizeof(audit_rule_data) + reply.ruledata->buflen);
        }
    }
}

// Deletes the listed rules that the predicate picks, through libaudit: a rule
// that was prepended cannot be deleted by auditctl.
template <typename Pick>
void DeleteRules(Pick pick)
{
    const int fd = ::audit_open();
    if (fd < 0)
    {
        return;
    }
    const auto lines = ListRules();
    auto records = ListRuleRecords(fd);
    if (records.size() == lines.size())
    {
        for (size_t i = 0; i < lines.size(); ++i)
        {
            if (pick(lines[i]))
            {
                auto* rule = reinterpret_cast<audit_rule_data*>(records[i].data());
                ::audit_delete_rule_data(fd, rule, static_cast<int>(rule->flags),
                                         static_cast<int>(rule->action));
            }
        }
    }
    ::audit_close(fd);
}

// The daemon's message-type exclusion as `auditctl -l` prints it.
inline std::string OwnEoeRuleLine()
{
    return "-a always,exclude -F msgtype=EOE -F pid!=" +
           std::to_string(audit::AuditRuleBuilder::kMessageTypeRuleMark);
}

// Rules that only these tests and the engine under test create. An EOE
// exclusion without the daemon's mark is somebody else's.
inline bool IsOurRule(const std::string& line)
{
    return line.find("key=corvid_") != std::string::npos || line.find("-k corvid_") != std::string::npos ||
           line == OwnEoeRuleLine();
}

inline std::string UsabilityProblem()
{
    if (::geteuid() != 0)
    {
        return "needs root to manage audit rules";
    }
    const int fd = ::audit_open();
    if (fd < 0)
    {
        return std::string("audit subsystem not usable: audit_open failed: ") + std::strerror(errno);
    }
    ::audit_close(fd);
    if (!StatusValue("enabled"))
    {
        return "audit subsystem not usable: auditctl -s does not answer";
    }
    return {};
}

struct AuditKernelState
{
    std::vector<std::string> rules;
    std::optional<long long> enabled;
    std::optional<long long> backlogLimit;

    static AuditKernelState Take()
    {
        return {ListRules(), StatusValue("enabled"), StatusValue("backlog_limit")};
    }

    void Restore() const
    {
        // A rule of ours is one too many when the listing holds more copies
        // of it than were there at the start.
        std::vector<std::string> expected = rules;
        DeleteRules(
            [&](const std::string& line)
            {
                const auto it = std::find(expected.begin(), expected.end(), line);
                if (it != expected.end())
                {
                    expected.erase(it);
                    return false;
                }
                return IsOurRule(line);
            });
        if (enabled && *enabled != 2 && StatusValue("enabled") != enabled)
        {
            RunCommand("auditctl -e " + std::to_string(*enabled));
        }
        if (backlogLimit && StatusValue("backlog_limit") != backlogLimit)
        {
            RunCommand("auditctl -b " + std::to_string(*backlogLimit));
        }
    }
};

// Restores the state found at start when the whole run ends, whatever the
// tests did.
class AuditKernelStateEnvironment : public testing::Environment
{
public:
    void SetUp() override
    {
        if (UsabilityProblem().empty())
        {
            m_state = AuditKernelState::Take();
        }
    }

    void TearDown() override
    {
        if (m_state)
        {
            m_state->Restore();
        }
    }

private:
    std::optional<AuditKernelState> m_state;
};

// Skips without a usable audit subsystem; restores the state after each test.
class AuditCaptureFixture : public testing::Test
{
protected:
    void SetUp() override
    {
        const std::string problem = UsabilityProblem();
        if (!problem.empty())
        {
            GTEST_SKIP() << problem;
        }
        m_state = AuditKernelState::Take();
    }

    void TearDown() override
    {
        if (m_state)
        {
            m_state->Restore();
        }
    }

    std::optional<AuditKernelState> m_state;
};

} // namespace vantor::test
