#pragma once

#include "common/IOChannel.h"

#include <mutex>
#include <string>

namespace vantor::common
{

// Server end of a Unix stream socket serving one client at a time. While a
// client is connected the loop watches only that client, so a second client
// waits in the listen backlog (of 1) until the first one goes away.
class UnixServerStreamSockIOChannel : public IOChannel
{
public:
    explicit UnixServerStreamSockIOChannel(std::string socketPath);
    ~UnixServerStreamSockIOChannel() override;

    void OnEOF() override;
    // Accepts a client on the listening socket; afterwards reads the client.
    Error Read(std::vector<uint8_t>& data) override;
    // Writes to the connected client; without one: IOChannelException(InvalidState).
    void Write(const std::vector<uint8_t>& data) override;
    void Start() override;
    void Stop() override;

    bool HasClient() const;

private:
    void CreateDirectory() const;
    Error CreateSocket();
    Error Bind();
    void CloseClientSocket();
    void CloseListenSocket();

    std::string m_socketPath;
    UniqueFd m_listenFd;
    UniqueFd m_clientFd;
    // Guards m_clientFd between the loop thread and writers.
    mutable std::mutex m_clientMutex;
    // Set by an accepting Read, which hands back no bytes; the loop then
    // calls OnEOF, which must not drop the client it has just accepted.
    bool m_accepted = false;
    bool m_started = false;
};

} // namespace vantor::common
