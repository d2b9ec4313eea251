#include "common/UnixServerStreamSockIOChannel.h"

#include "common/Logging.h"
#include "common/UnixSocket.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

namespace vantor::common
{

UnixServerStreamSockIOChannel::UnixServerStreamSockIOChannel(std::string socketPath)
    : IOChannel(1024, 0)
    , m_socketPath(std::move(socketPath))
{
    if (m_socketPath.empty() || m_socketPath.size() >= sizeof(sockaddr_un::sun_path))
    {
        throw IOChannelException(InvalidData);
    }
}

UnixServerStreamSockIOChannel::~UnixServerStreamSockIOChannel()
{
    Stop();
}

bool UnixServerStreamSockIOChannel::HasClient() const
{
    std::lock_guard lock(m_clientMutex);
    return m_clientFd.Valid();
}

void UnixServerStreamSockIOChannel::CreateDirectory() const
{
    const std::filesystem::path dir = std::filesystem::path(m_socketPath).parent_path();
    if (dir.empty())
    {
        return;
    }
    std::error_code ec;
    if (std::filesystem::create_directories(dir, ec))
    {
        EDR_LOG_INFO("UnixServerStreamSockIOChannel: Created dir " << dir.string());
    }
    else if (ec)
    {
        EDR_LOG_ERROR("UnixServerStreamSockIOChannel::CreateDirectory: " << dir.string() << ": "
                                                                         << ec.message());
    }
}

IOChannel::Error UnixServerStreamSockIOChannel::CreateSocket()
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
    {
        const int error = errno;
        EDR_LOG_ERROR("UnixServerStreamSockIOChannel::CreateSocket: " << std::strerror(error));
        return UnixSocket::MapErrno(error);
    }
    m_listenFd.Reset(fd);
    return Success;
}

IOChannel::Error UnixServerStreamSockIOChannel::Bind()
{
    if (!m_listenFd)
    {
        EDR_LOG_ERROR("Bind: Invalid socket");
        return InvalidState;
    }
    sockaddr_un address{};
    const socklen_t length = UnixSocket::MakeAddress(m_socketPath, address);
    if (::bind(m_listenFd.Get(), reinterpret_cast<const sockaddr*>(&address), length) != 0 ||
        ::listen(m_listenFd.Get(), 1) != 0)
    {
        const int error = errno;
        EDR_LOG_ERROR("UnixServerStreamSockIOChannel::Bind: " << m_socketPath << ": "
                                                              << std::strerror(error));
        return UnixSocket::MapErrno(error);
    }
    EDR_LOG_INFO("UnixServerStreamSockIOChannel: Bound to " << m_socketPath);
    return Success;
}

void UnixServerStreamSockIOChannel::Start()
{
    std::lock_guard lock(m_startStopMutex);
    if (m_started)
    {
        throw IOChannelException(InvalidState);
    }
    EDR_LOG_INFO("UnixServerStreamSockIOChannel: Starting...");
    CreateDirectory();
    Error error = CreateSocket();
    if (error == Success)
    {
        // A socket file left by an earlier run would make bind fail.
        if (::unlink(m_socketPath.c_str()) != 0 && errno != ENOENT)
        {
            EDR_LOG_ERROR("UnixServerStreamSockIOChannel::Start: " << m_socketPath << ": "
                                                                   << std::strerror(errno));
        }
        error = Bind();
    }
    if (error != Success)
    {
        CloseListenSocket();
        throw IOChannelException(error);
    }
    m_fd = m_listenFd.Get();
    m_started = true;
    StartEventLoop();
    EDR_LOG_INFO("UnixServerStreamSockIOChannel: Started.");
}

void UnixServerStreamSockIOChannel::Stop()
{
    std::lock_guard lock(m_startStopMutex);
    if (!m_started)
    {
        return;
    }
    EDR_LOG_INFO("UnixServerStreamSockIOChannel: Stopping...");
    StopEventLoop();
    m_fd = -1;
    // Stop accepting before the client learns of the close, so that a client
    // that reconnects at once finds no listener instead of a dying one.
    CloseListenSocket();
    if (::unlink(m_socketPath.c_str()) != 0 && errno != ENOENT)
    {
        EDR_LOG_ERROR("UnixServerStreamSockIOChannel::Stop: " << m_socketPath << ": "
                                                              << std::strerror(errno));
    }
    CloseClientSocket();
    m_started = false;
    EDR_LOG_INFO("UnixServerStreamSockIOChannel: Stopped.");
}

IOChannel::Error UnixServerStreamSockIOChannel::Read(std::vector<uint8_t>& data)
{
    data.clear();
    int clientFd = -1;
    {
        std::lock_guard lock(m_clientMutex);
        clientFd = m_clientFd.Get();
    }
    if (clientFd >= 0)
    {
        return UnixSocket::ReadAvailable(clientFd, m_readBufSize, data,
                                         "UnixServerStreamSockIOChannel::Read");
    }

    // The loop calls OnEOF after a Read that hands back no bytes.
    m_accepted = true;
    sockaddr_un address{};
    static_assert(sizeof(address) == 110);
    socklen_t length = sizeof(address);
    const int fd = ::accept4(m_listenFd.Get(), reinterpret_cast<sockaddr*>(&address), &length, SOCK_CLOEXEC);
    if (fd < 0)
    {
        const int error = errno;
        EDR_LOG_ERROR("UnixServerStreamSockIOChannel::Read: accept: " << std::strerror(error));
        // The pending client gave up before it was accepted: keep listening.
        if (error == EINTR || error == ECONNABORTED || error == EAGAIN)
        {
            return Success;
        }
        return UnixSocket::MapErrno(error);
    }
    {
        std::lock_guard lock(m_clientMutex);
        m_clientFd.Reset(fd);
    }
    m_fd = fd;
    EDR_LOG_INFO("UnixServerStreamSockIOChannel: New incoming connection accepted.");
    return Success;
}

void UnixServerStreamSockIOChannel::OnEOF()
{
    if (m_accepted)
    {
        m_accepted = false;
        return;
    }
    CloseClientSocket();
    m_fd = m_listenFd.Get();
    EDR_LOG_INFO("UnixServerStreamSockIOChannel: EOF received. Waiting for incoming connections...");
}

void UnixServerStreamSockIOChannel::Write(const std::vector<uint8_t>& data)
{
    std::lock_guard lock(m_clientMutex);
    if (!m_clientFd)
    {
        throw IOChannelException(InvalidState);
    }
    const Error error = UnixSocket::WriteAll(m_clientFd.Get(), data, "UnixServerStreamSockIOChannel::Write");
    if (error != Success)
    {
        throw IOChannelException(error);
    }
}

void UnixServerStreamSockIOChannel::CloseClientSocket()
{
    std::lock_guard lock(m_clientMutex);
    if (const int error = m_clientFd.Close(); error != 0)
    {
        EDR_LOG_ERROR("UnixServerStreamSockIOChannel::CloseClientSocket: " << std::strerror(error));
    }
}

void UnixServerStreamSockIOChannel::CloseListenSocket()
{
    if (const int error = m_listenFd.Close(); error != 0)
    {
        EDR_LOG_ERROR("UnixServerStreamSockIOChannel::CloseListenSocket: " << std::strerror(error));
    }
}

} // namespace vantor::common
