#include "audit/AuditHandle.h"

#include <libaudit.h>

#include <cerrno>
#include <poll.h>
#include <utility>

namespace vantor::audit
{

AuditHandle::AuditHandle()
    : m_fd(::audit_open())
{
}

AuditHandle::~AuditHandle()
{
    Close();
}

AuditHandle::AuditHandle(AuditHandle&& other) noexcept
    : m_fd(std::exchange(other.m_fd, -1))
{
}

AuditHandle& AuditHandle::operator=(AuditHandle&& other) noexcept
{
    if (this != &other)
    {
        Close();
        m_fd = std::exchange(other.m_fd, -1);
    }
    return *this;
}

int AuditHandle::Release()
{
    return std::exchange(m_fd, -1);
}

void AuditHandle::Close()
{
    if (m_fd >= 0)
    {
        ::audit_close(m_fd);
        m_fd = -1;
    }
}

int AuditHandle::GetReply(audit_reply& reply, std::chrono::milliseconds timeout) const
{
    if (m_fd < 0)
    {
        return -EBADF;
    }
    pollfd pfd{m_fd, POLLIN, 0};
    int rc = 0;
    do
    {
        rc = ::poll(&pfd, 1, static_cast<int>(timeout.count()));
    } while (rc < 0 && errno == EINTR);
    if (rc < 0)
    {
        return -errno;
    }
    if (rc == 0)
    {
        return -EAGAIN;
    }
    return ::audit_get_reply(m_fd, &reply, GET_REPLY_NONBLOCKING, 0);
}

} // namespace vantor::audit
