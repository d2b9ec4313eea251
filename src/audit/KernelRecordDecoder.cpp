#include "audit/KernelRecordDecoder.h"

#include "common/Logging.h"

#include <libaudit.h>

#include <algorithm>
#include <cstring>
#include <linux/netlink.h>
#include <string>
#include <string_view>

namespace vantor::audit
{

KernelRecordDecoder::KernelRecordDecoder(size_t maxRecordLength)
    : m_maxRecordLength(maxRecordLength)
{
}

void KernelRecordDecoder::AppendFrame(std::vector<uint8_t>& chunk, const uint8_t* datagram, uint32_t length)
{
    const size_t at = chunk.size();
    chunk.resize(at + kFrameHeader + length);
    std::memcpy(chunk.data() + at, &length, kFrameHeader);
    std::memcpy(chunk.data() + at + kFrameHeader, datagram, length);
}

std::vector<uint8_t> KernelRecordDecoder::Decode(const std::vector<uint8_t>& chunk) const
{
    std::vector<uint8_t> text;
    text.reserve(chunk.size());
    size_t at = 0;
    while (at < chunk.size())
    {
        uint32_t length = 0;
        if (chunk.size() - at >= kFrameHeader)
        {
            std::memcpy(&length, chunk.data() + at, kFrameHeader);
        }
        if (chunk.size() - at < kFrameHeader || chunk.size() - at - kFrameHeader < length)
        {
            EDR_LOG_WARNING("KernelIOChannel: Ignoring a datagram cut short");
            break;
        }
        const uint8_t* datagram = chunk.data() + at + kFrameHeader;
        at += kFrameHeader + length;
        nlmsghdr header{};
        if (length >= sizeof header)
        {
            std::memcpy(&header, datagram, sizeof header);
        }
        // The kernel's unicast records state a length 16 bytes short of the
        // datagram; more than the datagram is never valid.
        if (length < NLMSG_HDRLEN || header.nlmsg_len < NLMSG_HDRLEN || header.nlmsg_len > length)
        {
            EDR_LOG_WARNING("KernelIOChannel::Read: Ignoring an invalid netlink message (" << length
                                                                                           << " bytes)");
            continue;
        }
        const int type = header.nlmsg_type;
        if (type == NLMSG_ERROR || type == NLMSG_DONE || type == NLMSG_NOOP || type < AUDIT_FIRST_USER_MSG)
        {
            // Acknowledgements and binary control replies are not audit text.
            continue;
        }
        AppendRecord(type, reinterpret_cast<const char*>(datagram + NLMSG_HDRLEN), length - NLMSG_HDRLEN,
                     text);
    }
    return text;
}

void KernelRecordDecoder::AppendRecord(int type, const char* message, size_t length,
                                       std::vector<uint8_t>& text) const
{
    length = std::min(length, m_maxRecordLength);
    // The text ends at its first NUL (the kernel pads), and without a newline.
    length = static_cast<size_t>(std::find(message, message + length, '\0') - message);
    while (length > 0 && message[length - 1] == '\n')
    {
        --length;
    }
    const size_t start = text.size();
    const auto append = [&text](std::string_view part) { text.insert(text.end(), part.begin(), part.end()); };
    append("type=");
    if (const char* name = ::audit_msg_type_to_name(type); name != nullptr)
    {
        append(name);
    }
    else
    {
        append("UNKNOWN[" + std::to_string(type) + "]");
    }
    append(" msg=");
    append(std::string_view(message, length));
    const std::string_view line(reinterpret_cast<const char*>(text.data()) + start, text.size() - start);
    EDR_LOG_TRACE("KernelIOChannel: received " << line);
    EDR_LOG_EVENT_TRACE("Audit event:" << line);
    text.push_back('\n');
}

} // namespace vantor::audit
