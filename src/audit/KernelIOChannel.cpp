#include "KernelIOChannel.h"

#include "AuditHandle.h"
#include "Logging.h"

#include <libaudit.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <linux/netlink.h>
#include <memory>
#include <optional>
#include <sys/socket.h>
#include <unistd.h>

#ifndef SOL_NETLINK
#define SOL_NETLINK 270
#endif

namespace vantor::audit
{

namespace
{

// The pid of the registered audit daemon, 0 for none.
std::optional<uint32_t> GetAuditDaemonPid()
{
    AuditHandle handle;
    if (!handle.IsOpen() || ::audit_request_status(handle.Fd()) < 0)
    {
        return std::nullopt;
    }
    for (int attempt = 0; attempt < 5; ++attempt)
    {
        audit_reply reply{};
        const int rc = handle.GetReply(reply, std::chrono::milliseconds(1000));
        if (rc == -EAGAIN || rc == -EINTR)
        {
            continue;
        }
        if (rc <= 0)
        {
            return std::nullopt;
        }
        if (reply.type == AUDIT_GET && reply.status != nullptr)
        {
            return reply.status->pid;
        }
    }
    return std::nullopt;
}

} // namespace

KernelIOChannel::KernelIOChannel(uint64_t readBufSize)
    : IOChannel(readBufSize, 0)
{
}

KernelIOChannel::~KernelIOChannel()
{
    Stop();
}

void KernelIOChannel::Start()
{
    std::lock_guard lock(m_startStopMutex);
    if (m_started)
    {
        return;
    }
    EDR_LOG_INFO("KernelIOChannel: Starting...");
    const Error error = CreateSocket();
    if (error != Success)
    {
        throw common::IOChannelException(error);
    }
    StartEventLoop();
    m_started = true;
    EDR_LOG_INFO("KernelIOChannel: Started.");
}

void KernelIOChannel::Stop()
{
    std::lock_guard lock(m_startStopMutex);
    if (!m_started)
    {
        return;
    }
    StopEventLoop();
    CloseSocket();
    m_started = false;
}

common::IOChannel::Error KernelIOChannel::CreateSocket()
{
    const int fd = ::audit_open();
    if (fd < 0)
    {
        EDR_LOG_ERROR("KernelIOChannel::CreateSocket: " << std::strerror(errno));
        return errno == EPERM || errno == EACCES ? AccessDenied : Unknown;
    }
    // With no audit daemon running, the channel takes its place and gets the
    // records directly; beside one, it reads the read-only multicast group so
    // as not to take them away from it.
    if (GetAuditDaemonPid() == 0u && ::audit_set_pid(fd, static_cast<uint32_t>(::getpid()), WAIT_YES) >= 0)
    {
        EDR_LOG_INFO("KernelIOChannel: Registered as the audit daemon.");
        m_registered = true;
    }
    else
    {
        const int group = AUDIT_NLGRP_READLOG;
        if (::setsockopt(fd, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) != 0)
        {
            EDR_LOG_WARNING(
                "KernelIOChannel::CreateSocket: Cannot join the audit log group: " << std::strerror(errno));
        }
    }
    m_fd = fd;
    return Success;
}

void KernelIOChannel::CloseSocket()
{
    const int fd = m_fd.exchange(-1);
    if (fd >= 0)
    {
        if (m_registered)
        {
            ::audit_set_pid(fd, 0, WAIT_YES);
            m_registered = false;
        }
        ::audit_close(fd);
    }
}

void KernelIOChannel::Write(const std::vector<uint8_t>& data)
{
    const Error error = Send(data);
    if (error != Success)
    {
        throw common::IOChannelException(error);
    }
}

common::IOChannel::Error KernelIOChannel::Send(const std::vector<uint8_t>& data)
{
    std::lock_guard lock(m_writeMutex);
    EDR_LOG_DEBUG("KernelIOChannel: Sending audit rule data. [" << data.size() << " bytes ]");
    const int fd = m_fd.load();
    if (fd < 0)
    {
        return InvalidState;
    }
    if (data.size() < sizeof(audit_rule_data))
    {
        return InvalidData;
    }
    // Copy into an aligned record before looking at its fields.
    std::unique_ptr<audit_rule_data, decltype(&std::free)> rule(
        static_cast<audit_rule_data*>(std::calloc(1, data.size())), &std::free);
    if (!rule)
    {
        return Unknown;
    }
    std::memcpy(rule.get(), data.data(), data.size());
    if (rule->field_count > AUDIT_MAX_FIELDS || rule->buflen != data.size() - sizeof(audit_rule_data))
    {
        return InvalidData;
    }
    const int rc =
        ::audit_add_rule_data(fd, rule.get(), static_cast<int>(rule->flags), static_cast<int>(rule->action));
    if (rc < 0)
    {
        EDR_LOG_ERROR("KernelIOChannel: Failed to send audit rule data (errno = " << -rc << ")");
        return rc == -EPERM || rc == -EACCES ? AccessDenied : RemoteFailure;
    }
    EDR_LOG_DEBUG("KernelIOChannel: Audit rule sent.");
    return Success;
}

common::IOChannel::Error KernelIOChannel::Read(std::vector<uint8_t>& data)
{
    const int fd = m_fd.load();
    audit_reply reply{};
    const int rc = ::audit_get_reply(fd, &reply, GET_REPLY_NONBLOCKING, 0);
    if (rc == -EAGAIN || rc == -EINTR)
    {
        return Success;
    }
    if (rc == -ENOBUFS)
    {
        // The kernel dropped multicast records we were too slow for; the
        // socket stays usable.
        EDR_LOG_WARNING("KernelIOChannel::Read: Audit records were lost.");
        return Success;
    }
    if (rc <= 0)
    {
        EDR_LOG_ERROR("KernelIOChannel::Read: Failed to read audit reply.");
        return RemoteFailure;
    }
    if (reply.type == NLMSG_ERROR || reply.type == NLMSG_DONE || reply.type == NLMSG_NOOP ||
        reply.type < AUDIT_FIRST_USER_MSG)
    {
        // Acknowledgements and binary control replies are not audit text.
        return Success;
    }
    size_t length = reply.len > static_cast<int>(NLMSG_HDRLEN) ? reply.len - NLMSG_HDRLEN : 0;
    length = std::min<size_t>(length, m_readBufSize);
    while (length > 0 && (reply.message[length - 1] == '\0' || reply.message[length - 1] == '\n'))
    {
        --length;
    }
    const char* name = ::audit_msg_type_to_name(reply.type);
    std::string line = "type=";
    line += name != nullptr ? name : "UNKNOWN[" + std::to_string(reply.type) + "]";
    line += " msg=";
    line.append(reply.message, length);
    EDR_LOG_TRACE("KernelIOChannel: received " << line);
    EDR_LOG_EVENT_TRACE("Audit event:" << line);
    line += '\n';
    data.assign(line.begin(), line.end());
    return Success;
}

void KernelIOChannel::OnEOF() {}

} // namespace vantor::audit
