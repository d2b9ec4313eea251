#include "common/Logging.h"
#include "tests/support/LogCapture.h"

#include "audit/KernelRecordDecoder.h"

#include <gtest/gtest.h>
#include <libaudit.h>

#include <cstring>
#include <linux/netlink.h>
#include <string>
#include <vector>

namespace vantor::audit
{
namespace
{

// A datagram as the kernel sends it: the multicast copy states its whole
// length, a unicast record 16 bytes less.
std::vector<uint8_t> Datagram(uint16_t type, const std::string& text, bool unicast = false)
{
    std::vector<uint8_t> bytes(NLMSG_HDRLEN + text.size());
    nlmsghdr header{};
    header.nlmsg_type = type;
    header.nlmsg_len = static_cast<uint32_t>(bytes.size() - (unicast ? NLMSG_HDRLEN : 0));
    std::memcpy(bytes.data(), &header, sizeof header);
    std::memcpy(bytes.data() + NLMSG_HDRLEN, text.data(), text.size());
    return bytes;
}

void Append(std::vector<uint8_t>& chunk, const std::vector<uint8_t>& datagram)
{
    KernelRecordDecoder::AppendFrame(chunk, datagram.data(), static_cast<uint32_t>(datagram.size()));
}

std::string Text(const std::vector<uint8_t>& bytes)
{
    return {bytes.begin(), bytes.end()};
}

const std::string kSyscall = "audit(1700000000.123:42): arch=c000003e syscall=87 success=yes exit=0";

TEST(KernelRecordDecoderTest, RecordsBecomeDispatcherTextLinesInTheirOrder)
{
    std::vector<uint8_t> chunk;
    Append(chunk, Datagram(AUDIT_SYSCALL, kSyscall));
    Append(chunk, Datagram(AUDIT_CWD, "audit(1700000000.123:42): cwd=\"/tmp\"", true));
    // Padding after the text, as the kernel may send it.
    Append(chunk,
           Datagram(AUDIT_PROCTITLE, std::string("audit(1700000000.123:42): proctitle=7270\n\0\0", 44)));
    Append(chunk, Datagram(1999, "audit(1700000000.123:43): odd"));
    const KernelRecordDecoder decoder(KernelRecordDecoder::kMaxDatagram);
    EXPECT_EQ(Text(decoder.Decode(chunk)), "type=SYSCALL msg=" + kSyscall +
                                               "\n"
                                               "type=CWD msg=audit(1700000000.123:42): cwd=\"/tmp\"\n"
                                               "type=PROCTITLE msg=audit(1700000000.123:42): proctitle=7270\n"
                                               "type=UNKNOWN[1999] msg=audit(1700000000.123:43): odd\n");
}

TEST(KernelRecordDecoderTest, ControlMessagesAndMalformedDatagramsAreSkipped)
{
    std::vector<uint8_t> chunk;
    Append(chunk, Datagram(NLMSG_ERROR, std::string(20, '\0')));
    Append(chunk, Datagram(NLMSG_DONE, ""));
    Append(chunk, Datagram(AUDIT_GET, std::string(40, '\1')));
    auto tooLong = Datagram(AUDIT_SYSCALL, kSyscall);
    reinterpret_cast<nlmsghdr*>(tooLong.data())->nlmsg_len = static_cast<uint32_t>(tooLong.size() + 1);
    Append(chunk, tooLong);
    const std::vector<uint8_t> headerOnly(8, 0);
    Append(chunk, headerOnly);
    Append(chunk, Datagram(AUDIT_SYSCALL, kSyscall));

    test::LogCapture log(common::Logging::Edr());
    const KernelRecordDecoder decoder(KernelRecordDecoder::kMaxDatagram);
    EXPECT_EQ(Text(decoder.Decode(chunk)), "type=SYSCALL msg=" + kSyscall + "\n");
    EXPECT_EQ(log.Count("Ignoring an invalid netlink message"), 2u);

    // A frame whose bytes are not all there ends the chunk.
    chunk.resize(chunk.size() - 3);
    EXPECT_EQ(Text(decoder.Decode(chunk)), "");
    EXPECT_TRUE(log.Contains("KernelIOChannel: Ignoring a datagram cut short"));
    EXPECT_TRUE(decoder.Decode({}).empty());
}

TEST(KernelRecordDecoderTest, LongRecordsAreCutAtTheRecordLength)
{
    std::vector<uint8_t> chunk;
    Append(chunk, Datagram(AUDIT_PATH, std::string(100, 'x')));
    const KernelRecordDecoder decoder(10);
    EXPECT_EQ(Text(decoder.Decode(chunk)), "type=PATH msg=xxxxxxxxxx\n");
}

} // namespace
} // namespace vantor::audit
