#pragma once

#include <chrono>

struct audit_reply;

namespace vantor::audit
{

// Owns one netlink audit socket from audit_open(). Each rule engine operation
// opens its own, so operations on different threads never share a socket.
class AuditHandle
{
public:
    // Opens the socket; check IsOpen() (errno tells why it failed).
    AuditHandle();
    ~AuditHandle();

    AuditHandle(AuditHandle&& other) noexcept;
    AuditHandle& operator=(AuditHandle&& other) noexcept;
    AuditHandle(const AuditHandle&) = delete;
    AuditHandle& operator=(const AuditHandle&) = delete;

    bool IsOpen() const { return m_fd >= 0; }
    int Fd() const { return m_fd; }
    // Gives up ownership of the socket.
    int Release();
    void Close();

    // Waits up to timeout for one reply and reads it without blocking.
    // Answers audit_get_reply's result: > 0 a reply, -EAGAIN nothing came in
    // time, another negative errno on failure.
    int GetReply(audit_reply& reply, std::chrono::milliseconds timeout) const;

private:
    int m_fd = -1;
};

} // namespace vantor::audit
