#include "common/UnixClientStreamSockIOChannel.h"

#include "common/Logging.h"
#include "common/UnixSocket.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace vantor::common
{

UnixClientStreamSockIOChannel::UnixClientStreamSockIOChannel(std::string socketPath, int64_t reconnectTimeout)
    : UnixClientStreamSockIOChannel(std::move(socketPath), reconnectTimeout, "UnixClientStreamSockIOChannel")
{
}

UnixClientStreamSockIOChannel::UnixClientStreamSockIOChannel(std::string socketPath, int64_t reconnectTimeout,
                                                             std::string logName, uint64_t readBufSize)
    : IOChannel(readBufSize, 0)
    , m_socketPath(std::move(socketPath))
    , m_logName(std::move(logName))
    , m_reconnectTimeout(reconnectTimeout)
{
    if (m_socketPath.empty() || m_socketPath.size() > kMaxPathLength)
    {
        throw IOChannelException(InvalidData);
    }
}

UnixClientStreamSockIOChannel::~UnixClientStreamSockIOChannel()
{
    Stop();
}

void UnixClientStreamSockIOChannel::SetReconnectedCallback(std::function<void()> callback)
{
    m_reconnectedCallback = std::move(callback);
}

IOChannel::Error UnixClientStreamSockIOChannel::CreateSocket()
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
    {
        const int error = errno;
        EDR_LOG_ERROR(m_logName << "::CreateSocket: " << std::strerror(error));
        return UnixSocket::MapErrno(error);
    }
    std::lock_guard lock(m_writeMutex);
    m_socket.Reset(fd);
    m_fd = fd;
    return Success;
}

void UnixClientStreamSockIOChannel::CloseSocket()
{
    // A writer on another thread must not send on a descriptor that is being
    // closed (and may be reused at once).
    std::lock_guard lock(m_writeMutex);
    m_fd = -1;
    if (const int error = m_socket.Close(); error != 0)
    {
        EDR_LOG_ERROR(m_logName << "::CloseSocket: " << std::strerror(error));
    }
}

IOChannel::Error UnixClientStreamSockIOChannel::Connect()
{
    sockaddr_un address{};
    const socklen_t length = UnixSocket::MakeAddress(m_socketPath, address);
    int rc = 0;
    do
    {
        rc = ::connect(m_fd.load(), reinterpret_cast<const sockaddr*>(&address), length);
    } while (rc != 0 && errno == EINTR);
    if (rc == 0)
    {
        EDR_LOG_INFO("UnixClientStreamSockIOChannel: Connected.");
        return Success;
    }
    const int error = errno;
    EDR_LOG_ERROR(m_logName << "::Connect: " << m_socketPath << ": " << std::strerror(error));
    return UnixSocket::MapErrno(error);
}

void UnixClientStreamSockIOChannel::Start()
{
    std::lock_guard lock(m_startStopMutex);
    if (m_started)
    {
        throw IOChannelException(InvalidState);
    }
    EDR_LOG_INFO("UnixClientStreamSockIOChannel: Starting...");
    Error error = CreateSocket();
    if (error == Success)
    {
        error = Connect();
    }
    if (error != Success)
    {
        CloseSocket();
        throw IOChannelException(error);
    }
    m_started = true;
    StartEventLoop();
    EDR_LOG_INFO("UnixClientStreamSockIOChannel: Started.");
}

void UnixClientStreamSockIOChannel::Stop()
{
    std::lock_guard lock(m_startStopMutex);
    if (!m_started)
    {
        return;
    }
    EDR_LOG_INFO("UnixClientStreamSockIOChannel: Stopping...");
    StopEventLoop();
    CloseSocket();
    m_started = false;
    EDR_LOG_INFO("UnixClientStreamSockIOChannel: Stopped.");
}

IOChannel::Error UnixClientStreamSockIOChannel::Read(std::vector<uint8_t>& data)
{
    return UnixSocket::ReadAvailable(m_fd.load(), m_readBufSize, data, "UnixClientStreamSockIOChannel::Read");
}

void UnixClientStreamSockIOChannel::Write(const std::vector<uint8_t>& data)
{
    std::lock_guard lock(m_writeMutex);
    if (!m_socket)
    {
        throw IOChannelException(InvalidState);
    }
    const Error error = UnixSocket::WriteAll(m_socket.Get(), data, "UnixClientStreamSockIOChannel::Write");
    if (error != Success)
    {
        throw IOChannelException(error);
    }
}

void UnixClientStreamSockIOChannel::OnEOF()
{
    EDR_LOG_INFO("UnixClientStreamSockIOChannel: EOF Received. Trying to reconnect...");
    CloseSocket();
    if (const Error error = CreateSocket(); error != Success)
    {
        ReportError(error);
        return;
    }
    if (m_reconnectTimeout >= 0)
    {
        for (int64_t attempt = 1;; ++attempt)
        {
            EDR_LOG_INFO("UnixClientStreamSockIOChannel: Trying to reconnect... " << attempt);
            const Error error = Connect();
            if (IsStopping())
            {
                EDR_LOG_INFO(
                    "UnixClientStreamSockIOChannel: Aborting reconnection because socket is closing.");
                CloseSocket();
                return;
            }
            if (error == Success)
            {
                if (m_reconnectedCallback)
                {
                    m_reconnectedCallback();
                }
                return;
            }
            // A failed connect leaves the socket unusable; start afresh.
            CloseSocket();
            if (const Error createError = CreateSocket(); createError != Success)
            {
                ReportError(createError);
                return;
            }
            // Sleep one second, but wake at once when stopped.
            for (int i = 0; i < 10 && !IsStopping(); ++i)
            {
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
            }
            if (IsStopping())
            {
                EDR_LOG_INFO(
                    "UnixClientStreamSockIOChannel: Aborting reconnection because socket is closing.");
                CloseSocket();
                return;
            }
            if (m_reconnectTimeout != 0 && attempt >= m_reconnectTimeout)
            {
                break;
            }
        }
    }
    CloseSocket();
    EDR_LOG_WARNING("UnixClientStreamSockIOChannel: Aborting reconnection due to timeout.");
    ReportError(Timeout);
}

} // namespace vantor::common
