#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vantor::audit
{

// Turns the netlink datagrams the kernel channel received into raw audit
// text, one line "type=<NAME> msg=<text>\n" per record (the audit
// dispatcher's "string" form, so that one parser serves both sources).
//
// The reader thread only frames what it receives: each datagram goes into a
// chunk as its length (32 bits, host order) followed by its bytes, so that
// the costly part, the text, is made on another thread.
//
// Acknowledgements, binary control replies and malformed messages are
// skipped (malformed ones with a warning). Stateless apart from the record
// length; thread-safe.
class KernelRecordDecoder
{
public:
    // The largest datagram the kernel sends on the audit socket: a header and
    // the longest record text (MAX_AUDIT_MESSAGE_LENGTH).
    static constexpr size_t kMaxDatagram = 16 + 8970;
    static constexpr size_t kFrameHeader = sizeof(uint32_t);

    // Record texts are cut at maxRecordLength bytes.
    explicit KernelRecordDecoder(size_t maxRecordLength);

    // Appends one framed datagram to chunk.
    static void AppendFrame(std::vector<uint8_t>& chunk, const uint8_t* datagram, uint32_t length);
    // The audit text of every record in a chunk of framed datagrams; a frame
    // cut short ends the chunk with a warning.
    std::vector<uint8_t> Decode(const std::vector<uint8_t>& chunk) const;

private:
    void AppendRecord(int type, const char* message, size_t length, std::vector<uint8_t>& text) const;

    size_t m_maxRecordLength;
};

} // namespace vantor::audit
