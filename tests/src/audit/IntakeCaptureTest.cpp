#include "AuditKernelState.h"
#include "RecordingEventBuilder.h"
#include "support/PrivateAuditd.h"
#include "support/TempDir.h"

#include "audit/DispatcherIOChannel.h"
#include "audit/KernelIOChannel.h"
#include "audit/ParserThread.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>

namespace vantor::audit
{
namespace
{

using namespace std::chrono_literals;
using Class = AuditEventClass;

const auto* const g_environment = testing::AddGlobalTestEnvironment(new test::AuditKernelStateEnvironment);

using test::PrivateAuditd;

class IntakeCaptureTest : public test::AuditCaptureFixture
{
protected:
    void SetUp() override
    {
        AuditCaptureFixture::SetUp();
        if (IsSkipped())
        {
            return;
        }
        if (m_state->enabled == 2)
        {
            GTEST_SKIP() << "audit configuration is locked";
        }
        m_scratch = m_dir.Path() + "/scratch";
        ASSERT_EQ(::mkdir(m_scratch.c_str(), 0700), 0);
        test::RunCommand("auditctl -w " + m_scratch + " -p wa -k " + m_key);
        ASSERT_EQ(test::RulesContaining(m_key).size(), 1u);
    }

    void TearDown() override
    {
        if (!m_scratch.empty())
        {
            test::RunCommand("auditctl -D -k " + m_key);
            EXPECT_TRUE(test::RulesContaining(m_key).empty());
        }
        AuditCaptureFixture::TearDown();
    }

    ParserThread::EventSink Sink()
    {
        return [this](ParserThread::Events events)
        {
            std::lock_guard lock(m_mutex);
            for (const auto& event : events)
            {
                m_handedOn.push_back(event->GetEventId());
            }
        };
    }

    void KeepRaw(const std::vector<uint8_t>& data)
    {
        std::lock_guard lock(m_mutex);
        m_raw.append(data.begin(), data.end());
    }

    // File work in the watched directory through the exact system calls.
    void DoFileWork()
    {
        const std::string file = m_scratch + "/created";
        const int fd = static_cast<int>(::syscall(SYS_creat, file.c_str(), 0600));
        ASSERT_GE(fd, 0);
        ::close(fd);
        ASSERT_EQ(::syscall(SYS_mkdir, (m_scratch + "/dir").c_str(), 0700), 0);
        ASSERT_EQ(::syscall(SYS_chmod, file.c_str(), 0644), 0);
        ASSERT_EQ(::syscall(SYS_unlink, file.c_str()), 0);
    }

    // The built events about the scratch directory, once all four are there.
    std::vector<test::BuiltEvent> WaitForFileWork()
    {
        std::vector<test::BuiltEvent> ours;
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        while (std::chrono::steady_clock::now() < deadline)
        {
            ours.clear();
            for (const auto& event : m_builder.Built())
            {
                for (const auto& name : event.names)
                {
                    if (name.find(m_scratch) != std::string::npos)
                    {
                        ours.push_back(event);
                        break;
                    }
                }
            }
            if (ours.size() >= 4)
            {
                break;
            }
            std::this_thread::sleep_for(20ms);
        }
        return ours;
    }

    void ExpectFileWork(const std::vector<test::BuiltEvent>& ours)
    {
        const std::vector<std::pair<Class, int>> expected = {{Class::Create, SYS_creat},
                                                             {Class::Create, SYS_mkdir},
                                                             {Class::Attribute, SYS_chmod},
                                                             {Class::Delete, SYS_unlink}};
        std::lock_guard lock(m_mutex);
        ASSERT_EQ(ours.size(), expected.size()) << m_raw;
        for (size_t i = 0; i < ours.size(); ++i)
        {
            EXPECT_EQ(ours[i].eventClass, expected[i].first) << i;
            // The serial is the one of the SYSCALL record of that call.
            const std::string record = ":" + std::to_string(ours[i].serial) +
                                       "): arch=c000003e syscall=" + std::to_string(expected[i].second) + " ";
            EXPECT_NE(m_raw.find(record), std::string::npos) << record;
            EXPECT_NE(std::find(m_handedOn.begin(), m_handedOn.end(), ours[i].serial), m_handedOn.end());
        }
    }

    test::TempDir m_dir;
    std::string m_scratch;
    const std::string m_key = "corvid_intake_test_" + std::to_string(::getpid());
    test::RecordingEventBuilder m_builder;
    std::mutex m_mutex;
    std::string m_raw;
    std::vector<uint32_t> m_handedOn;
};

TEST_F(IntakeCaptureTest, FileWorkArrivesThroughTheAuditDispatcher)
{
    if (test::StatusValue("pid").value_or(0) != 0)
    {
        GTEST_SKIP() << "an audit daemon is already running";
    }
    if (::access("/usr/sbin/auditd", X_OK) != 0)
    {
        GTEST_SKIP() << "auditd is not installed";
    }
    ParserThread parser(m_builder, Sink(), nullptr, 100);
    parser.Start();
    {
        PrivateAuditd auditd(m_dir.Path());
        const std::string problem = auditd.WaitReady();
        ASSERT_TRUE(problem.empty()) << problem;
        test::RunCommand("auditctl -e 1");

        DispatcherIOChannel channel(auditd.Socket(), -1);
        channel.SetDataCallback(
            [&](std::vector<uint8_t> data)
            {
                KeepRaw(data);
                parser.Enqueue(std::move(data));
            });
        channel.Start();
        // auditd takes the connection in its own time and only sends to the
        // clients it has accepted: a message seen through the channel shows
        // that it has.
        bool accepted = false;
        for (int i = 0; i < 50 && !accepted; ++i)
        {
            test::RunCommand("auditctl -m " + m_key);
            std::this_thread::sleep_for(100ms);
            std::lock_guard lock(m_mutex);
            accepted = m_raw.find(m_key) != std::string::npos;
        }
        ASSERT_TRUE(accepted) << "auditd does not send to the channel";
        DoFileWork();
        const auto ours = WaitForFileWork();
        channel.Stop();
        parser.Stop();
        ExpectFileWork(ours);
    }
    std::lock_guard lock(m_mutex);
    EXPECT_NE(m_raw.find("\x1d"), std::string::npos) << "the enriched form was parsed";
}

TEST_F(IntakeCaptureTest, FileWorkArrivesThroughTheKernelChannel)
{
    const auto enabledBefore = test::StatusValue("enabled");
    ParserThread parser(m_builder, Sink(), nullptr, 100);
    parser.Start();
    KernelIOChannel channel;
    channel.SetEnableAudit(true);
    channel.SetDataCallback(
        [&](std::vector<uint8_t> data)
        {
            KeepRaw(data);
            parser.Enqueue(std::move(data));
        });
    channel.Start();
    EXPECT_EQ(test::StatusValue("enabled"), 1);
    DoFileWork();
    const auto ours = WaitForFileWork();
    channel.Stop();
    parser.Stop();
    ExpectFileWork(ours);
    EXPECT_EQ(test::StatusValue("enabled"), enabledBefore) << "the channel puts the enabled flag back";
}

} // namespace
} // namespace vantor::audit
