#pragma once

#include "audit/AuditRule.h"

#include <linux/audit.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string_view>
#include <vector>

struct audit_reply;

namespace vantor::audit
{

// Owns one netlink audit socket from audit_open() and speaks the kernel's
// request/reply exchanges on it: the rule list, the status, adding and
// deleting rules. Every exchange that waits for replies reads them here, so
// that busy channels, acknowledgements and kernel errors are handled (and
// logged) one way.
//
// A reply is read by whoever reads the socket first, so each operation opens
// its own: operations on different threads never share one. One object is
// not thread-safe.
class AuditNetlink
{
public:
    // How long one reply is waited for, and how often a busy channel is
    // asked again before the exchange is given up.
    static constexpr std::chrono::milliseconds kReplyTimeout{1000};
    static constexpr int kBusyRetries = 5;

    // Opens the socket; check IsOpen() (errno tells why it failed).
    AuditNetlink();
    ~AuditNetlink();

    AuditNetlink(AuditNetlink&& other) noexcept;
    AuditNetlink& operator=(AuditNetlink&& other) noexcept;
    AuditNetlink(const AuditNetlink&) = delete;
    AuditNetlink& operator=(const AuditNetlink&) = delete;

    bool IsOpen() const { return m_fd >= 0; }
    int Fd() const { return m_fd; }
    void Close();

    // Reads one waiting message without blocking. Answers audit_get_reply's
    // result: > 0 a message, -EAGAIN nothing waiting, another negative errno
    // on failure.
    int TryGetReply(audit_reply& reply) const;

    // The kernel's rule list; nullopt (logged) when it cannot be read. A
    // record that is not a valid rule is logged and left out.
    std::optional<std::vector<AuditRule>> GetRules() const;

    // The kernel's status; nullopt when it cannot be read, logged as
    // "<name>: Invalid audit reply", "<name>: Failed to get audit reply (..."
    // or, while retried, "<name>: Audit channel is busy".
    std::optional<audit_status> GetStatus(std::string_view name) const;

    // Sends the rule with the filter flags and action it carries. Answers
    // libaudit's result: < 0 is the negative errno of the kernel's refusal.
    int AddRule(const AuditRule& rule) const;
    // Deletes the kernel's copy of the rule. The kernel drops the prepend
    // flag once a rule is in its list and compares flags when it looks for
    // the rule to delete, so a delete never carries it.
    int DeleteRule(const AuditRule& rule) const;

private:
    enum class Next
    {
        More,
        Done,
        Failed
    };

    // Reads the replies to the request just sent and hands each to onReply
    // until it answers Done or Failed. Acknowledgements are passed over; a
    // kernel error or a read failure ends the exchange. Answers whether it
    // ended with Done.
    bool ReadReplies(std::string_view name, const std::function<Next(const audit_reply&)>& onReply) const;
    // Waits up to kReplyTimeout for one reply; -EAGAIN when none came.
    int GetReply(audit_reply& reply) const;

    int m_fd = -1;
};

} // namespace vantor::audit
