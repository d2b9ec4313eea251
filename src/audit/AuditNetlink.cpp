#include "audit/AuditNetlink.h"

#include "common/Logging.h"

#include <libaudit.h>

#include <cerrno>
#include <linux/netlink.h>
#include <poll.h>
#include <stdexcept>
#include <utility>

namespace vantor::audit
{

AuditNetlink::AuditNetlink()
    : m_fd(::audit_open())
{
}

AuditNetlink::~AuditNetlink()
{
    Close();
}

AuditNetlink::AuditNetlink(AuditNetlink&& other) noexcept
    : m_fd(std::exchange(other.m_fd, -1))
{
}

AuditNetlink& AuditNetlink::operator=(AuditNetlink&& other) noexcept
{
    if (this != &other)
    {
        Close();
        m_fd = std::exchange(other.m_fd, -1);
    }
    return *this;
}

void AuditNetlink::Close()
{
    if (m_fd >= 0)
    {
        ::audit_close(m_fd);
        m_fd = -1;
    }
}

int AuditNetlink::TryGetReply(audit_reply& reply) const
{
    if (m_fd < 0)
    {
        return -EBADF;
    }
    return ::audit_get_reply(m_fd, &reply, GET_REPLY_NONBLOCKING, 0);
}

int AuditNetlink::GetReply(audit_reply& reply) const
{
    if (m_fd < 0)
    {
        return -EBADF;
    }
    pollfd pfd{m_fd, POLLIN, 0};
    int rc = 0;
    do
    {
        rc = ::poll(&pfd, 1, static_cast<int>(kReplyTimeout.count()));
    } while (rc < 0 && errno == EINTR);
    if (rc < 0)
    {
        return -errno;
    }
    if (rc == 0)
    {
        return -EAGAIN;
    }
    return TryGetReply(reply);
}

bool AuditNetlink::ReadReplies(std::string_view name,
                               const std::function<Next(const audit_reply&)>& onReply) const
{
    int busy = 0;
    for (;;)
    {
        audit_reply reply{};
        const int rc = GetReply(reply);
        if (rc == -EAGAIN || rc == -EINTR)
        {
            EDR_LOG_WARNING(name << ": Audit channel is busy");
            if (++busy > kBusyRetries)
            {
                return false;
            }
            continue;
        }
        if (rc <= 0)
        {
            EDR_LOG_ERROR(name << ": Failed to get audit reply (" << -rc << ")");
            return false;
        }
        if (reply.type == NLMSG_ERROR)
        {
            if (reply.error != nullptr && reply.error->error == 0)
            {
                continue; // the acknowledgement of the request
            }
            EDR_LOG_ERROR(name << ": Failed to get audit reply ("
                               << (reply.error != nullptr ? -reply.error->error : EPROTO) << ")");
            return false;
        }
        switch (onReply(reply))
        {
        case Next::More:
            break;
        case Next::Done:
            return true;
        case Next::Failed:
            return false;
        }
    }
}

std::optional<std::vector<AuditRule>> AuditNetlink::GetRules() const
{
    EDR_LOG_DEBUG("GetRulesFromAudit: Getting rules list from audit subsystem");
    if (m_fd < 0 || ::audit_request_rules_list_data(m_fd) < 0)
    {
        EDR_LOG_ERROR("GetRulesFromAudit: Failed to request rules list from audit subsystem");
        return std::nullopt;
    }
    std::vector<AuditRule> rules;
    const bool complete = ReadReplies(
        "GetRuleFromAudit",
        [&rules](const audit_reply& reply)
        {
            if (reply.type == NLMSG_DONE)
            {
                return Next::Done;
            }
            if (reply.type != AUDIT_LIST_RULES)
            {
                EDR_LOG_WARNING("GetRuleFromAudit: Invalid audit reply");
                return Next::More;
            }
            try
            {
                const size_t size = reply.len > static_cast<int>(NLMSG_HDRLEN) ? reply.len - NLMSG_HDRLEN : 0;
                AuditRule rule(reply.ruledata, size);
                EDR_LOG_DEBUG("GetRuleFromAudit: Found rule '" << rule.KeyText() << "' in audit subsystem");
                rules.push_back(std::move(rule));
            }
            catch (const std::runtime_error& e)
            {
                EDR_LOG_ERROR(e.what());
            }
            return Next::More;
        });
    if (!complete)
    {
        return std::nullopt;
    }
    EDR_LOG_DEBUG("GetRulesFromAudit: Found " << rules.size() << " rules in audit subsystem");
    return rules;
}

std::optional<audit_status> AuditNetlink::GetStatus(std::string_view name) const
{
    if (m_fd < 0)
    {
        EDR_LOG_ERROR(name << ": Failed to get audit reply (" << EBADF << ")");
        return std::nullopt;
    }
    if (const int rc = ::audit_request_status(m_fd); rc < 0)
    {
        EDR_LOG_ERROR(name << ": Failed to get audit reply (" << -rc << ")");
        return std::nullopt;
    }
    std::optional<audit_status> status;
    ReadReplies(name,
                [&](const audit_reply& reply)
                {
                    if (reply.type != AUDIT_GET || reply.status == nullptr)
                    {
                        EDR_LOG_ERROR(name << ": Invalid audit reply");
                        return Next::Failed;
                    }
                    status = *reply.status;
                    return Next::Done;
                });
    return status;
}

int AuditNetlink::AddRule(const AuditRule& rule) const
{
    if (m_fd < 0)
    {
        return -EBADF;
    }
    return ::audit_add_rule_data(m_fd, rule.Get(), rule.GetFlags(), rule.GetAction());
}

int AuditNetlink::DeleteRule(const AuditRule& rule) const
{
    if (m_fd < 0)
    {
        return -EBADF;
    }
    return ::audit_delete_rule_data(m_fd, rule.Get(), rule.GetFlags() & ~AUDIT_FILTER_PREPEND,
                                    rule.GetAction());
}

} // namespace vantor::audit
