#include "audit/KernelIOChannel.h"

#include "common/Logging.h"

#include <libaudit.h>

#include <cerrno>
#include <cstring>
#include <linux/netlink.h>
#include <new>
#include <optional>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

#ifndef SOL_NETLINK
#define SOL_NETLINK 270
#endif

namespace vantor::audit
{

namespace
{

// The kernel's audit status (enabled flag, daemon pid, ...), asked on a socket
// of its own so that the reply cannot meet the channel's reader.
std::optional<audit_status> GetAuditStatus()
{
    return AuditNetlink().GetStatus("KernelIOChannel::GetAuditStatus");
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

void KernelIOChannel::SetEnableAudit(bool enable)
{
    std::lock_guard lock(m_startStopMutex);
    m_enableAudit = enable;
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
    if (m_enableAudit)
    {
        EnableAudit();
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
    EDR_LOG_INFO("KernelIOChannel: Stopping...");
    StopEventLoop();
    CloseSocket();
    m_started = false;
    EDR_LOG_INFO("KernelIOChannel: Stopped.");
}

void KernelIOChannel::EnableAudit()
{
    const auto status = GetAuditStatus();
    if (!status)
    {
        EDR_LOG_WARNING("KernelIOChannel: Cannot read the audit status.");
        return;
    }
    if (status->enabled != 0)
    {
        return;
    }
    if (::audit_set_enabled(m_fd.load(), 1) < 0)
    {
        EDR_LOG_WARNING("KernelIOChannel: Failed to enable the audit subsystem.");
        return;
    }
    EDR_LOG_INFO("KernelIOChannel: Enabled the audit subsystem.");
    m_enabledAudit = true;
}

common::IOChannel::Error KernelIOChannel::CreateSocket()
{
    AuditNetlink socket;
    const int fd = socket.Fd();
    if (!socket.IsOpen())
    {
        EDR_LOG_ERROR("KernelIOChannel::CreateSocket: " << std::strerror(errno));
        return errno == EPERM || errno == EACCES ? AccessDenied : Unknown;
    }
    // The read-only multicast group (CAP_AUDIT_READ) takes nothing away from
    // an audit daemon and never makes the kernel wait for a slow reader; it
    // delivers only while audit is enabled. Without it, and with no audit
    // daemon running, the channel takes the daemon's place.
    // The socket needs its own port first: an unbound one has the kernel's
    // port 0 and is passed over as the sender of the multicast.
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    const int group = AUDIT_NLGRP_READLOG;
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
        ::setsockopt(fd, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) == 0)
    {
        EDR_LOG_INFO("KernelIOChannel: Reading the audit log group.");
    }
    else
    {
        EDR_LOG_WARNING(
            "KernelIOChannel::CreateSocket: Cannot join the audit log group: " << std::strerror(errno));
        const auto status = GetAuditStatus();
        if (status && status->pid == 0 &&
            ::audit_set_pid(fd, static_cast<uint32_t>(::getpid()), WAIT_YES) >= 0)
        {
            EDR_LOG_INFO("KernelIOChannel: Registered as the audit daemon.");
            m_registered = true;
        }
    }
    m_socket = std::move(socket);
    m_fd = fd;
    return Success;
}

void KernelIOChannel::CloseSocket()
{
    m_fd = -1;
    if (m_socket.IsOpen())
    {
        const int fd = m_socket.Fd();
        if (m_enabledAudit)
        {
            // Only undone while nobody has locked or changed it since.
            const auto status = GetAuditStatus();
            if (status && status->enabled == 1)
            {
                ::audit_set_enabled(fd, 0);
            }
            m_enabledAudit = false;
        }
        if (m_registered)
        {
            ::audit_set_pid(fd, 0, WAIT_YES);
            m_registered = false;
        }
        m_socket.Close();
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
    std::optional<AuditRule> rule;
    try
    {
        rule = AuditRule::Deserialize(data);
    }
    catch (const std::runtime_error& e)
    {
        EDR_LOG_ERROR("KernelIOChannel: " << e.what());
        return InvalidData;
    }
    catch (const std::bad_alloc&)
    {
        return Unknown;
    }
    // libaudit waits for the kernel's acknowledgement on the sending socket;
    // on the channel's own socket the reader thread would take it away. A
    // socket of its own per rule keeps the two apart.
    AuditNetlink socket;
    if (!socket.IsOpen())
    {
        EDR_LOG_ERROR("KernelIOChannel: Failed to open an audit socket: " << std::strerror(errno));
        return errno == EPERM || errno == EACCES ? AccessDenied : Unknown;
    }
    const int rc = socket.AddRule(*rule);
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
    // Everything that is waiting goes out as one chunk (up to a bound), so
    // that a burst costs one hand-over instead of one per record.
    while (data.size() < kMaxChunkSize)
    {
        audit_reply reply{};
        const int rc = m_socket.TryGetReply(reply);
        if (rc == -EAGAIN)
        {
            break;
        }
        if (rc == -EINTR)
        {
            continue;
        }
        if (rc == -ENOBUFS)
        {
            // The kernel dropped records we were too slow for; the socket
            // stays usable.
            EDR_LOG_WARNING("KernelIOChannel::Read: Audit records were lost.");
            continue;
        }
        if (rc == -EINVAL || rc == -EPROTO || rc == -EBADE || rc == -EFBIG)
        {
            // Not from the kernel, or malformed: skip the message.
            EDR_LOG_WARNING("KernelIOChannel::Read: Ignoring an invalid netlink message (errno = " << -rc
                                                                                                   << ")");
            continue;
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
            continue;
        }
        AppendRecord(reply.type, reply.message,
                     reply.len > static_cast<int>(NLMSG_HDRLEN) ? reply.len - NLMSG_HDRLEN : 0, data);
    }
    return Success;
}

void KernelIOChannel::AppendRecord(int type, const char* message, size_t length,
                                   std::vector<uint8_t>& data) const
{
    length = std::min<size_t>(length, m_readBufSize);
    while (length > 0 && (message[length - 1] == '\0' || message[length - 1] == '\n'))
    {
        --length;
    }
    // The text form of the audit dispatcher: "type=<NAME> msg=<text>\n".
    const size_t start = data.size();
    const auto append = [&data](std::string_view text) { data.insert(data.end(), text.begin(), text.end()); };
    append("type=");
    if (const char* name = ::audit_msg_type_to_name(type); name != nullptr)
    {
        append(name);
    }
    else
    {
        append("UNKNOWN[" + std::to_string(type) + "]");
    }
    append(" msg=");
    append(std::string_view(message, length));
    const std::string_view line(reinterpret_cast<const char*>(data.data()) + start, data.size() - start);
    EDR_LOG_TRACE("KernelIOChannel: received " << line);
    EDR_LOG_EVENT_TRACE("Audit event:" << line);
    data.push_back('\n');
}

void KernelIOChannel::OnEOF() {}

} // namespace vantor::audit
