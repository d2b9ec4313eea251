#include "tests/src/audit/AuditKernelState.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include "audit/AuditRule.h"
#include "audit/AuditRuleBuilder.h"
#include "audit/KernelIOChannel.h"
#include "common/Logging.h"
#include "tests/src/audit/TestRule.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

namespace vantor::audit
{
namespace
{

const auto* const g_environment = testing::AddGlobalTestEnvironment(new test::AuditKernelStateEnvironment);

using KernelIOChannelCaptureTest = test::AuditCaptureFixture;

TEST_F(KernelIOChannelCaptureTest, SendsRuleRecordsAndRefusesOtherBytes)
{
    test::TempDir dir;
    const std::string file = dir.Write("watched", "x");
    auto built = AuditRuleBuilder::CreateRules(test::TestRule("r", edr::EventRule::FilePathRule, {file}, {5}),
                                               "corvid_test_channel");
    ASSERT_EQ(built.records.size(), 1u);
    const auto bytes = built.records[0].Serialize();

    KernelIOChannel channel;
    EXPECT_THROW(channel.Write(bytes), common::IOChannelException); // not started
    channel.Start();
    channel.Write(bytes);
    EXPECT_THAT(test::RulesContaining("corvid_test_channel"),
                testing::ElementsAre("-w " + file + " -p w -k corvid_test_channel"));

    auto truncated = bytes;
    truncated.pop_back();
    try
    {
        channel.Write(truncated);
        ADD_FAILURE() << "a truncated record was sent";
    }
    catch (const common::IOChannelException& e)
    {
        EXPECT_EQ(e.GetError(), common::IOChannel::InvalidData);
    }
    // The same rule again: the kernel refuses the duplicate.
    EXPECT_THROW(channel.Write(bytes), common::IOChannelException);
    channel.Stop();
}

// A callback that counts the marker messages a channel delivers.
common::IOChannel::DataCallback CountMarkers(const std::string& marker, std::atomic<size_t>& count)
{
    return [&marker, &count](std::vector<uint8_t> data)
    {
        const std::string text(data.begin(), data.end());
        for (size_t at = text.find(marker); at != std::string::npos; at = text.find(marker, at + 1))
        {
            ++count;
        }
    };
}

TEST_F(KernelIOChannelCaptureTest, ABurstFitsTheReceiveBufferAndOverflowsAreCounted)
{
    if (m_state->enabled == 2)
    {
        GTEST_SKIP() << "audit configuration is locked";
    }
    const std::string marker = "corvid-burst-" + std::to_string(::getpid()) + "-";
    std::atomic<size_t> large{0};
    std::atomic<size_t> tiny{0};
    KernelIOChannel channel;
    // The kernel raises a size this small to its minimum of a few records.
    KernelIOChannel small(KernelIOChannel::kDefaultReadBufSize, 1);
    channel.SetDataCallback(CountMarkers(marker, large));
    small.SetDataCallback(CountMarkers(marker, tiny));
    test::LogCapture log(common::Logging::Edr());
    channel.Start();
    small.Start();
    EXPECT_GE(channel.GetReceiveBufferSize(), KernelIOChannel::kDefaultReceiveBufferBytes);
    EXPECT_LT(small.GetReceiveBufferSize(), 64 * 1024);
    test::RunCommand("auditctl -e 1");

    // On an idle machine the small reader may keep up with one burst; a few
    // more make its overflow all but certain.
    constexpr size_t kBurst = 3000;
    size_t kMessages = 0;
    const int fd = ::audit_open();
    ASSERT_GE(fd, 0);
    for (int burst = 0; burst < 10 && (burst == 0 || small.GetOverflowCount() == 0); ++burst)
    {
        for (size_t i = 0; i < kBurst; ++i, ++kMessages)
        {
            ::audit_log_user_message(fd, AUDIT_USER_CMD, ("op=" + marker + std::to_string(kMessages)).c_str(),
                                     nullptr, nullptr, nullptr, 1);
        }
    }
    ::audit_close(fd);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (large.load() < kMessages && std::chrono::steady_clock::now() < deadline)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    test::RunCommand("auditctl -e " + std::to_string(*m_state->enabled));
    channel.Stop();
    small.Stop();

    EXPECT_EQ(large.load(), kMessages);
    EXPECT_EQ(channel.GetOverflowCount(), 0u);
    // The small buffer could not hold the burst: what it lost is counted
    // and reported, not dropped silently.
    EXPECT_LT(tiny.load(), kMessages);
    EXPECT_GT(small.GetOverflowCount(), 0u);
    EXPECT_TRUE(log.Contains("KernelIOChannel::Read: Audit records were lost."));
}

} // namespace
} // namespace vantor::audit
