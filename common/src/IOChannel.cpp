#include "common/IOChannel.h"

#include "common/Logging.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/select.h>
#include <unistd.h>

namespace vantor::common
{

const char* IOChannel::ErrorText(Error error)
{
    switch (error)
    {
    case Success:
        return "IOChannel: Success";
    case Timeout:
        return "IOChannel: Timeout";
    case RemoteFailure:
        return "IOChannel: Remote failure";
    case AccessDenied:
        return "IOChannel: Access denied";
    case InvalidData:
        return "IOChannel: Invalid data";
    case InvalidState:
        return "IOChannel: Invalid state";
    default:
        return "IOChannel: Unknown error";
    }
}

IOChannelException::IOChannelException(IOChannel::Error error)
    : std::runtime_error("IOChannelException")
    , m_error(error)
{
}

const char* IOChannelException::what() const noexcept
{
    return IOChannel::ErrorText(m_error);
}

IOChannel::IOChannel(uint64_t readBufSize, int64_t selectTimeoutSeconds)
    : m_eventLoop("IOChannel")
    , m_readBufSize(readBufSize)
    , m_selectTimeoutSeconds(selectTimeoutSeconds)
{
    if (readBufSize == 0)
    {
        throw std::invalid_argument("IOChannel: readBufSize cannot be 0");
    }
    int fds[2] = {-1, -1};
    if (::pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0)
    {
        throw IOChannelException(Unknown);
    }
    m_selfPipe[0].Reset(fds[0]);
    m_selfPipe[1].Reset(fds[1]);
}

IOChannel::~IOChannel() = default;

void IOChannel::OnData(std::vector<uint8_t> data)
{
    if (m_dataCallback)
    {
        m_dataCallback(std::move(data));
    }
}

IOChannel::Error IOChannel::OnTimeout()
{
    return Timeout;
}

void IOChannel::SetErrorCallback(ErrorCallback callback)
{
    m_errorCallback = std::move(callback);
}

void IOChannel::SetDataCallback(DataCallback callback)
{
    m_dataCallback = std::move(callback);
}

bool IOChannel::IsStopping() const
{
    return m_stopping.load(std::memory_order_acquire);
}

void IOChannel::WakeUp()
{
    const char byte = 1;
    // A full pipe already holds a wake-up; nothing more is needed.
    [[maybe_unused]] const ssize_t n = ::write(m_selfPipe[1].Get(), &byte, 1);
}

void IOChannel::ReportError(Error error)
{
    if (m_errorCallback)
    {
        m_errorCallback(error);
    }
}

void IOChannel::StartEventLoop()
{
    m_stopping = false;
    m_eventLoop.Start([this] { EventLoop(); });
}

void IOChannel::StopEventLoop()
{
    m_stopping.store(true, std::memory_order_release);
    WakeUp();
    m_eventLoop.Join();
}

void IOChannel::EventLoop()
{
    std::vector<uint8_t> data;
    while (!IsStopping())
    {
        const int fd = m_fd.load();
        fd_set readSet;
        FD_ZERO(&readSet);
        const int wakeFd = m_selfPipe[0].Get();
        FD_SET(wakeFd, &readSet);
        int maxFd = wakeFd;
        if (fd >= 0 && fd < FD_SETSIZE)
        {
            FD_SET(fd, &readSet);
            maxFd = std::max(maxFd, fd);
        }
        timeval timeout{m_selectTimeoutSeconds, 0};
        const int rc =
            ::select(maxFd + 1, &readSet, nullptr, nullptr, m_selectTimeoutSeconds > 0 ? &timeout : nullptr);
        if (rc < 0)
        {
            if (errno == EINTR)
            {
                continue;
            }
            EDR_LOG_ERROR("IOChannel::EventLoop: select failed: " << std::strerror(errno));
            break;
        }
        if (rc == 0)
        {
            const Error error = OnTimeout();
            if (error != Success)
            {
                ReportError(error);
            }
            break;
        }
        if (fd >= 0 && FD_ISSET(fd, &readSet) && !IsStopping())
        {
            data.clear();
            const Error error = Read(data);
            if (!data.empty())
            {
                OnData(std::move(data));
                data = std::vector<uint8_t>();
            }
            else if (error == Success)
            {
                // Readable with nothing to read: the peer closed.
                OnEOF();
                if (m_fd.load() < 0 && !IsStopping())
                {
                    break;
                }
            }
            if (error != Success)
            {
                ReportError(error);
                break;
            }
        }
        if (FD_ISSET(wakeFd, &readSet))
        {
            char drain[32];
            while (::read(wakeFd, drain, sizeof drain) > 0)
            {
            }
            EDR_LOG_DEBUG("IOChannel: Wake up triggered using self-pipe.");
        }
    }
    EDR_LOG_DEBUG("IOChannel: Exiting the event loop.");
}

} // namespace vantor::common
