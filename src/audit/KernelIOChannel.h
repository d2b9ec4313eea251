#pragma once

#include "audit/AuditNetlink.h"
#include "audit/KernelRecordDecoder.h"
#include "common/IOChannel.h"
#include "common/WorkerThread.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>

namespace vantor::audit
{

// The netlink audit socket as an IO channel. Write() sends one serialised
// audit rule record (AuditRule::Serialize) to the kernel; the data callback
// receives the audit records the kernel sends as raw audit text (see
// KernelRecordDecoder), several records per chunk when they arrive together.
// It reads the read-only multicast group, which works beside a running audit
// daemon; where that group cannot be joined and no audit daemon runs, it
// registers itself as one (and unregisters on Stop).
//
// The kernel drops multicast records for a reader whose receive buffer is
// full, so the buffer is made large and the reader thread does nothing but
// read: it hands the datagrams as they came to a decoding thread, which makes
// the text and runs the data callback. Each time the kernel reports dropped
// records the overflow counter goes up.
//
// Start and Stop are serialised; the counters may be read from any thread.
class KernelIOChannel : public common::IOChannel
{
public:
    // Longest record text (the kernel's MAX_AUDIT_MESSAGE_LENGTH).
    static constexpr uint64_t kDefaultReadBufSize = 8970;
    // A read pass hands on what it has once it holds this much.
    static constexpr size_t kMaxChunkSize = 256 * 1024;
    // Room for a few seconds of a burst that the reader cannot keep up with
    // (a record takes about a kilobyte of it).
    static constexpr int kDefaultReceiveBufferBytes = 64 * 1024 * 1024;
    // Received datagrams waiting for the decoding thread beyond this are
    // dropped (and counted).
    static constexpr size_t kMaxPendingBytes = 256 * 1024 * 1024;

    explicit KernelIOChannel(uint64_t readBufSize = kDefaultReadBufSize,
                             int receiveBufferBytes = kDefaultReceiveBufferBytes);
    ~KernelIOChannel() override;

    // Set before Start: records flow only while audit is enabled, so a
    // channel that is the audit event source turns it on when it is off, and
    // off again on Stop (unless it was changed meanwhile).
    void SetEnableAudit(bool enable);

    // Throws IOChannelException when the socket cannot be opened.
    void Start() override;
    // Stops reading, then hands on what was read before it returns.
    void Stop() override;

    // Sends a serialised rule record; throws IOChannelException InvalidData
    // for bytes that are not one, RemoteFailure when the kernel refuses it and
    // InvalidState when the channel is not started.
    void Write(const std::vector<uint8_t>& data) override;
    // Reads every datagram waiting, framed (KernelRecordDecoder).
    Error Read(std::vector<uint8_t>& data) override;
    // Queues the framed datagrams for the decoding thread.
    void OnData(std::vector<uint8_t> data) override;
    // A netlink socket has no end of stream; nothing to do.
    void OnEOF() override;

    // How often the kernel reported records dropped for a full receive
    // buffer (each report stands for one or more records).
    uint64_t GetOverflowCount() const { return m_overflows.load(std::memory_order_relaxed); }
    // Bytes of received datagrams dropped because decoding fell behind.
    uint64_t GetDroppedBytes() const { return m_droppedBytes.load(std::memory_order_relaxed); }
    // The receive buffer the kernel granted (bytes, as the kernel counts
    // them); 0 while stopped.
    int GetReceiveBufferSize() const { return m_receiveBufferSize.load(std::memory_order_relaxed); }

private:
    Error CreateSocket();
    void SizeReceiveBuffer(int fd);
    void CloseSocket();
    Error Send(const std::vector<uint8_t>& data);
    void EnableAudit();
    void CountOverflow();
    void StartDecoding();
    void StopDecoding();
    void DecodeLoop();

    std::mutex m_writeMutex;
    // The socket the records come in on; m_fd names it to the event loop.
    AuditNetlink m_socket;
    bool m_started = false;
    // Whether this channel registered itself as the audit daemon.
    bool m_registered = false;
    bool m_enableAudit = false;
    // Whether Start turned audit on.
    bool m_enabledAudit = false;
    const int m_requestedReceiveBuffer;
    std::atomic<int> m_receiveBufferSize{0};

    std::atomic<uint64_t> m_overflows{0};
    std::atomic<uint64_t> m_droppedBytes{0};
    // Overflows already warned about, so that a flood logs once a second.
    uint64_t m_overflowsLogged = 0;
    std::chrono::steady_clock::time_point m_lastOverflowLog{};

    // Where the reader receives one datagram.
    std::vector<uint8_t> m_datagram = std::vector<uint8_t>(KernelRecordDecoder::kMaxDatagram);
    KernelRecordDecoder m_decoder;
    std::mutex m_pendingMutex;
    std::condition_variable m_pendingChanged;
    std::deque<std::vector<uint8_t>> m_pending;
    size_t m_pendingBytes = 0;
    bool m_stopDecoding = false;
    common::WorkerThread m_decoding{"KernelIOChannel decoding"};
};

} // namespace vantor::audit
