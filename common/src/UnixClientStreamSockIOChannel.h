#pragma once

#include "common/IOChannel.h"

#include <functional>
#include <string>

namespace vantor::common
{

// Client end of a Unix stream socket. When the peer closes, it reconnects
// once a second until the reconnect time-out (in attempts) runs out; then it
// reports a time-out through the error callback.
class UnixClientStreamSockIOChannel : public IOChannel
{
public:
    static constexpr size_t kMaxPathLength = 91;
    static constexpr uint64_t kDefaultReadBufSize = 1024;

    // 0: retry for ever; negative: never retry.
    UnixClientStreamSockIOChannel(std::string socketPath, int64_t reconnectTimeout);
    ~UnixClientStreamSockIOChannel() override;

    void OnEOF() override;
    Error Read(std::vector<uint8_t>& data) override;
    void Write(const std::vector<uint8_t>& data) override;
    void Start() override;
    void Stop() override;

    void SetReconnectedCallback(std::function<void()> callback);

protected:
    // For derived channels: socket failures are logged under logName
    // ("<logName>::CreateSocket", "<logName>::CloseSocket", ...).
    UnixClientStreamSockIOChannel(std::string socketPath, int64_t reconnectTimeout, std::string logName,
                                  uint64_t readBufSize = kDefaultReadBufSize);

private:
    Error CreateSocket();
    void CloseSocket();
    Error Connect();

    std::string m_socketPath;
    std::string m_logName;
    int64_t m_reconnectTimeout;
    std::function<void()> m_reconnectedCallback;
    // Guards m_socket; m_fd mirrors it for the event loop.
    std::mutex m_writeMutex;
    UniqueFd m_socket;
    bool m_started = false;
};

} // namespace vantor::common
