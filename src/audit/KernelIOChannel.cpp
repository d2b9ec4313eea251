#include "audit/KernelIOChannel.h"

#include "common/Logging.h"

#include <libaudit.h>

#include <cerrno>
#include <chrono>
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

KernelIOChannel::KernelIOChannel(uint64_t readBufSize, int receiveBufferBytes)
    : IOChannel(readBufSize, 0)
    , m_requestedReceiveBuffer(receiveBufferBytes)
    , m_decoder(readBufSize)
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
    StartDecoding();
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
    StopDecoding();
    m_started = false;
    if (GetOverflowCount() != 0 || GetDroppedBytes() != 0)
    {
        EDR_LOG_WARNING("KernelIOChannel: Records were lost while it ran: "
                        << GetOverflowCount() << " receive buffer overflows, " << GetDroppedBytes()
                        << " bytes dropped before decoding");
    }
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
    SizeReceiveBuffer(fd);
    m_socket = std::move(socket);
    m_fd = fd;
    return Success;
}

void KernelIOChannel::SizeReceiveBuffer(int fd)
{
    // Root may go beyond the system's limit (net.core.rmem_max); otherwise
    // the kernel caps the size at that limit.
    const int size = m_requestedReceiveBuffer;
    if (::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0 &&
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size) != 0)
    {
        EDR_LOG_WARNING(
            "KernelIOChannel::CreateSocket: Cannot size the receive buffer: " << std::strerror(errno));
    }
    int granted = 0;
    socklen_t length = sizeof granted;
    if (::getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &granted, &length) == 0)
    {
        m_receiveBufferSize = granted;
        EDR_LOG_INFO("KernelIOChannel: Receive buffer of " << (granted / 1024) << " KB");
    }
}

void KernelIOChannel::CloseSocket()
{
    m_fd = -1;
    m_receiveBufferSize = 0;
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
    // Only receiving here: every datagram waiting goes out as it came (up to
    // a bound), so that the socket is emptied as fast as the kernel fills it.
    data.reserve(kMaxChunkSize + KernelRecordDecoder::kFrameHeader + KernelRecordDecoder::kMaxDatagram);
    const int fd = m_fd.load();
    while (data.size() < kMaxChunkSize)
    {
        sockaddr_nl sender{};
        iovec buffer{m_datagram.data(), m_datagram.size()};
        msghdr message{};
        message.msg_name = &sender;
        message.msg_namelen = sizeof sender;
        message.msg_iov = &buffer;
        message.msg_iovlen = 1;
        const ssize_t received = ::recvmsg(fd, &message, MSG_DONTWAIT);
        if (received < 0)
        {
            if (errno == EINTR)
            {
                continue;
            }
            if (errno == EAGAIN || errno == EWOULDBLOCK)
            {
                break;
            }
            if (errno == ENOBUFS)
            {
                // The kernel dropped records we were too slow for; the
                // socket stays usable.
                CountOverflow();
                continue;
            }
            EDR_LOG_ERROR("KernelIOChannel::Read: Failed to read audit reply. (" << std::strerror(errno)
                                                                                 << ")");
            return RemoteFailure;
        }
        if (sender.nl_pid != 0)
        {
            // Not from the kernel.
            EDR_LOG_WARNING("KernelIOChannel::Read: Ignoring a message from port " << sender.nl_pid);
            continue;
        }
        KernelRecordDecoder::AppendFrame(data, m_datagram.data(), static_cast<uint32_t>(received));
    }
    return Success;
}

void KernelIOChannel::CountOverflow()
{
    const uint64_t count = m_overflows.fetch_add(1, std::memory_order_relaxed) + 1;
    const auto now = std::chrono::steady_clock::now();
    if (count == 1 || now - m_lastOverflowLog >= std::chrono::seconds(1))
    {
        EDR_LOG_WARNING("KernelIOChannel::Read: Audit records were lost. (receive buffer overflows: "
                        << count << ", " << (count - m_overflowsLogged) << " since the last report)");
        m_overflowsLogged = count;
        m_lastOverflowLog = now;
    }
}

void KernelIOChannel::OnData(std::vector<uint8_t> data)
{
    {
        std::lock_guard lock(m_pendingMutex);
        if (m_pendingBytes + data.size() > kMaxPendingBytes)
        {
            const uint64_t dropped = m_droppedBytes.fetch_add(data.size(), std::memory_order_relaxed);
            if (dropped == 0)
            {
                EDR_LOG_WARNING("KernelIOChannel: Decoding falls behind; dropping received audit records.");
            }
            return;
        }
        m_pendingBytes += data.size();
        m_pending.push_back(std::move(data));
    }
    m_pendingChanged.notify_one();
}

void KernelIOChannel::StartDecoding()
{
    {
        std::lock_guard lock(m_pendingMutex);
        m_stopDecoding = false;
    }
    m_decoding.Start([this] { DecodeLoop(); });
}

void KernelIOChannel::StopDecoding()
{
    {
        std::lock_guard lock(m_pendingMutex);
        m_stopDecoding = true;
    }
    m_pendingChanged.notify_one();
    m_decoding.Join();
}

void KernelIOChannel::DecodeLoop()
{
    for (;;)
    {
        std::vector<uint8_t> raw;
        {
            std::unique_lock lock(m_pendingMutex);
            m_pendingChanged.wait(lock, [this] { return m_stopDecoding || !m_pending.empty(); });
            if (m_pending.empty())
            {
                // Stopping, and everything read has been handed on.
                return;
            }
            raw = std::move(m_pending.front());
            m_pending.pop_front();
            m_pendingBytes -= raw.size();
        }
        try
        {
            auto text = m_decoder.Decode(raw);
            raw = std::vector<uint8_t>();
            if (!text.empty())
            {
                IOChannel::OnData(std::move(text));
            }
        }
        catch (const std::exception& e)
        {
            EDR_LOG_ERROR("KernelIOChannel: Failed to hand on audit records: " << e.what());
        }
    }
}

void KernelIOChannel::OnEOF() {}

} // namespace vantor::audit
