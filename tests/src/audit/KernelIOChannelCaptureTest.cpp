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

#include <chrono>
#include <mutex>
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

// Counts the marker messages a channel delivers.
class MarkerCounter
{
public:
    explicit MarkerCounter(std::string marker)
        : m_marker(std::move(marker))
    {
    }

    common::IOChannel::DataCallback Callback()
    {
        return [this](std::vector<uint8_t> data)
        {
            const std::string text(data.begin(), data.end());
            std::lock_guard lock(m_mutex);
            for (size_t at = text.find(m_marker); at != std::string::npos; at = text.find(m_marker, at + 1))
            {
                ++m_count;
            }
        };
    }

    size_t Count()
    {
        std::lock_guard lock(m_mutex);
        return m_count;
    }

private:
    std::string m_marker;
    std::mutex m_mutex;
    size_t m_count = 0;
};

TEST_F(KernelIOChannelCaptureTest, ABurstFitsTheReceiveBufferAndOverflowsAreCounted)
{
    if (m_state->enabled == 2)
    {
        GTEST_SKIP() << "audit configuration is locked";
    }
    const std::string marker = "corvid-burst-" + std::to_string(::getpid()) + "-";
    MarkerCounter large(marker);
    MarkerCounter tiny(marker);
    KernelIOChannel channel;
    // The kernel raises a size this small to its minimum of a few records.
    KernelIOChannel small(KernelIOChannel::kDefaultReadBufSize, 1);
    channel.SetDataCallback(large.Callback());
    small.SetDataCallback(tiny.Callback());
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
    while (large.Count() < kMessages && std::chrono::steady_clock::now() < deadline)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    test::RunCommand("auditctl -e " + std::to_string(*m_state->enabled));
    channel.Stop();
    small.Stop();

    EXPECT_EQ(large.Count(), kMessages);
    EXPECT_EQ(channel.GetOverflowCount(), 0u);
    // The small buffer could not hold the burst: what it lost is counted
    // and reported, not dropped silently.
    EXPECT_LT(tiny.Count(), kMessages);
    EXPECT_GT(small.GetOverflowCount(), 0u);
    EXPECT_TRUE(log.Contains("KernelIOChannel::Read: Audit records were lost."));
}

} // namespace
} // namespace vantor::audit
