#pragma once

#include "audit/AuditNetlink.h"
#include "common/IOChannel.h"

#include <mutex>
#include <string>

namespace vantor::audit
{

// The netlink audit socket as an IO channel. Write() sends one serialised
// audit rule record (AuditRule::Serialize) to the kernel; the reader thread
// delivers the audit records the kernel sends as raw audit text, one line
// "type=<NAME> msg=<text>\n" per record (the audit dispatcher's "string"
// form, so one parser serves both sources), several records per chunk when
// they arrive together. It reads the read-only multicast group, which works
// beside a running audit daemon; where that group cannot be joined and no
// audit daemon runs, it registers itself as one (and unregisters on Stop).
class KernelIOChannel : public common::IOChannel
{
public:
    // Longest record text (the kernel's MAX_AUDIT_MESSAGE_LENGTH).
    static constexpr uint64_t kDefaultReadBufSize = 8970;
    // A chunk handed to the data callback stops growing at this size.
    static constexpr size_t kMaxChunkSize = 64 * 1024;

    explicit KernelIOChannel(uint64_t readBufSize = kDefaultReadBufSize);
    ~KernelIOChannel() override;

    // Set before Start: records flow only while audit is enabled, so a
    // channel that is the audit event source turns it on when it is off, and
    // off again on Stop (unless it was changed meanwhile).
    void SetEnableAudit(bool enable);

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
    void EnableAudit();
    void AppendRecord(int type, const char* message, size_t length, std::vector<uint8_t>& data) const;

    std::mutex m_writeMutex;
    // The socket the records come in on; m_fd names it to the event loop.
    AuditNetlink m_socket;
    bool m_started = false;
    // Whether this channel registered itself as the audit daemon.
    bool m_registered = false;
    bool m_enableAudit = false;
    // Whether Start turned audit on.
    bool m_enabledAudit = false;
};

} // namespace vantor::audit
