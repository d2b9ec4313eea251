#pragma once

#include "IOChannel.h"

#include <mutex>
#include <string>

namespace vantor::audit
{

// The netlink audit socket as an IO channel. Write() sends one serialised
// audit rule record (AuditRule::Serialize) to the kernel; the reader thread
// delivers the audit records the kernel sends, each as one line of raw audit
// text "type=<NAME> msg=<text>\n", the form the parser takes. Without an
// audit daemon the channel registers itself as one (and unregisters on
// Stop); beside one it reads the read-only multicast group.
class KernelIOChannel : public common::IOChannel
{
public:
    static constexpr uint64_t kDefaultReadBufSize = 8970;

    explicit KernelIOChannel(uint64_t readBufSize = kDefaultReadBufSize);
    ~KernelIOChannel() override;

    // Throws IOChannelException when the socket cannot be opened.
    void Start() override;
    void Stop() override;

    // Sends a serialised rule record; throws IOChannelException InvalidData
    // for bytes that are not one, RemoteFailure when the kernel refuses it and
    // InvalidState when the channel is not started.
    void Write(const std::vector<uint8_t>& data) override;
    Error Read(std::vector<uint8_t>& data) override;
    // A netlink socket has no end of stream; nothing to do.
    void OnEOF() override;

private:
    Error CreateSocket();
    void CloseSocket();
    Error Send(const std::vector<uint8_t>& data);

    std::mutex m_writeMutex;
    bool m_started = false;
    // Whether this channel registered itself as the audit daemon.
    bool m_registered = false;
};

} // namespace vantor::audit
