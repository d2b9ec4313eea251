#include "common/UnixSocket.h"

#include "common/Logging.h"
#include "common/ReadBufferPool.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

namespace vantor::common
{

socklen_t UnixSocket::MakeAddress(const std::string& path, sockaddr_un& address)
{
    address = sockaddr_un{};
    address.sun_family = AF_UNIX;
    const size_t n = std::min<size_t>(path.size(), sizeof(address.sun_path) - 1);
    std::memcpy(address.sun_path, path.data(), n);
    return static_cast<socklen_t>(n + 2);
}

IOChannel::Error UnixSocket::MapErrno(int error)
{
    switch (error)
    {
    case EAGAIN:
    case ECONNREFUSED:
        return IOChannel::RemoteFailure;
    case EACCES:
    case EPERM:
        return IOChannel::AccessDenied;
    case ENOENT:
        return IOChannel::InvalidData;
    default:
        return IOChannel::Unknown;
    }
}

IOChannel::Error UnixSocket::ReadAvailable(int fd, size_t bufSize, std::vector<uint8_t>& data,
                                           const char* what)
{
    // Read into a per-thread scratch area and hand on a buffer of exactly
    // the bytes read: a large read size then costs no memory per chunk.
    thread_local std::vector<uint8_t> scratch;
    if (scratch.size() < bufSize)
    {
        scratch.resize(bufSize);
    }
    ssize_t n = 0;
    do
    {
        n = ::recv(fd, scratch.data(), bufSize, 0);
    } while (n < 0 && errno == EINTR);
    if (n < 0)
    {
        const int error = errno;
        data.clear();
        if (error == EAGAIN)
        {
            return IOChannel::Success;
        }
        EDR_LOG_ERROR(what << ": " << std::strerror(error));
        // A reset connection is the peer going away, like end of file.
        return error == ECONNRESET ? IOChannel::Success : MapErrno(error);
    }
    if (static_cast<size_t>(n) * 2 >= bufSize && data.capacity() < bufSize)
    {
        // A full read under load: a warm buffer the consumer gave back.
        data = ReadBufferPool::Take(bufSize);
    }
    data.assign(scratch.begin(), scratch.begin() + n);
    return IOChannel::Success;
}

IOChannel::Error UnixSocket::WriteAll(int fd, const std::vector<uint8_t>& data, const char* what)
{
    size_t written = 0;
    while (written < data.size())
    {
        // MSG_NOSIGNAL: a closed peer yields EPIPE instead of SIGPIPE.
        const ssize_t n = ::send(fd, data.data() + written, data.size() - written, MSG_NOSIGNAL);
        if (n < 0)
        {
            if (errno == EINTR)
            {
                continue;
            }
            // Logging may overwrite errno.
            const int error = errno;
            EDR_LOG_ERROR(what << ": " << std::strerror(error));
            return error == EPIPE ? IOChannel::RemoteFailure : MapErrno(error);
        }
        written += static_cast<size_t>(n);
    }
    return IOChannel::Success;
}

} // namespace vantor::common
