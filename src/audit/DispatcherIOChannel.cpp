#include "audit/DispatcherIOChannel.h"

#include "common/Logging.h"

#include <string_view>

namespace vantor::audit
{

DispatcherIOChannel::DispatcherIOChannel(std::string socketPath, int64_t reconnectTimeout)
    : UnixClientStreamSockIOChannel(std::move(socketPath), reconnectTimeout, "DispatcherIOChannel",
                                    kReadBufSize)
{
}

DispatcherIOChannel::~DispatcherIOChannel()
{
    // The loop thread calls OnData of this class: stop it before this part
    // of the object is gone.
    Stop();
}

void DispatcherIOChannel::OnData(std::vector<uint8_t> data)
{
    EDR_LOG_TRACE("DispatcherIOChannel: Received " << data.size() << " bytes.");
    EDR_LOG_EVENT_TRACE(
        "Audit Event: " << std::string_view(reinterpret_cast<const char*>(data.data()), data.size()));
    UnixClientStreamSockIOChannel::OnData(std::move(data));
}

void DispatcherIOChannel::Write(const std::vector<uint8_t>& data)
{
    try
    {
        UnixClientStreamSockIOChannel::Write(data);
    }
    catch (const common::IOChannelException& e)
    {
        EDR_LOG_ERROR("DispatcherIOChannel::Send: " << e.what());
        throw;
    }
}

void DispatcherIOChannel::Start()
{
    EDR_LOG_INFO("DispatcherIOChannel: Starting...");
    UnixClientStreamSockIOChannel::Start();
    m_started = true;
    EDR_LOG_INFO("DispatcherIOChannel: Started.");
}

void DispatcherIOChannel::Stop()
{
    if (!m_started.exchange(false))
    {
        return;
    }
    EDR_LOG_INFO("DispatcherIOChannel: Stopping...");
    UnixClientStreamSockIOChannel::Stop();
    EDR_LOG_INFO("DispatcherIOChannel: Stopped.");
}

} // namespace vantor::audit
