#include "tests/src/audit/AuditKernelState.h"
#include "tests/support/PrivateAuditd.h"
#include "tests/support/TempDir.h"

#include "audit/AuditEventBuilder.h"
#include "audit/DispatcherIOChannel.h"
#include "audit/ParserThread.h"
#include "edr/LibMagicWrapper.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <mutex>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <tuple>

namespace vantor::audit
{
namespace
{

using namespace std::chrono_literals;

const auto* const g_environment = testing::AddGlobalTestEnvironment(new test::AuditKernelStateEnvironment);

using test::PrivateAuditd;

// The whole road from a private auditd's dispatcher socket through the
// parser thread to the real event classes: what a consumer reads.
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
        if (const std::string why = PrivateAuditd::WhyUnavailable(); !why.empty())
        {
            GTEST_SKIP() << why;
        }
        m_scratch = m_dir.Path() + "/scratch";
        ASSERT_EQ(::mkdir(m_scratch.c_str(), 0700), 0);
        test::RunCommand("auditctl -w " + m_scratch + " -p wa -k " + m_key);
        // Process starts by the children of this process.
        test::RunCommand("auditctl -a always,exit -F arch=b64 -S execve -F ppid=" +
                         std::to_string(::getpid()) + " -k " + m_key);
        ASSERT_EQ(test::RulesContaining(m_key).size(), 2u);
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

    // Does the work while a private auditd hands the records to the
    // dispatcher channel, and parses them with the builder until done.
    void CaptureThroughDispatcher(EventBuilder& builder, const std::function<void()>& work,
                                  const std::function<bool()>& done)
    {
        ParserThread parser(
            builder,
            [this](ParserThread::Events events)
            {
                std::lock_guard lock(m_mutex);
                std::move(events.begin(), events.end(), std::back_inserter(m_events));
            },
            nullptr, 100);
        parser.Start();
        PrivateAuditd auditd(m_dir.Path());
        const std::string problem = auditd.WaitReady();
        ASSERT_TRUE(problem.empty()) << problem;
        test::RunCommand("auditctl -e 1");

        DispatcherIOChannel channel(auditd.Socket(), -1);
        channel.SetDataCallback(
            [&](std::vector<uint8_t> data)
            {
                {
                    std::lock_guard lock(m_mutex);
                    m_raw.append(data.begin(), data.end());
                }
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
        work();
        for (const auto deadline = std::chrono::steady_clock::now() + 10s;
             !done() && std::chrono::steady_clock::now() < deadline;)
        {
            std::this_thread::sleep_for(20ms);
        }
        channel.Stop();
        parser.Stop();
    }

    // File work, partly by relative names from inside the watched directory,
    // then a child that starts /bin/true.
    void DoWork()
    {
        std::array<char, PATH_MAX> previous{};
        ASSERT_NE(::getcwd(previous.data(), previous.size()), nullptr);
        ASSERT_EQ(::chdir(m_scratch.c_str()), 0);
        const std::string created = m_scratch + "/created";
        const std::string renamed = m_scratch + "/renamed";
        int fd = static_cast<int>(::syscall(SYS_creat, "created", 0600));
        EXPECT_GE(fd, 0);
        ::close(fd);
        fd = static_cast<int>(::syscall(SYS_openat, AT_FDCWD, created.c_str(), O_WRONLY));
        EXPECT_GE(fd, 0);
        EXPECT_EQ(::write(fd, "x", 1), 1);
        ::close(fd);
        EXPECT_EQ(::syscall(SYS_chmod, created.c_str(), 0644), 0);
        EXPECT_EQ(::syscall(SYS_rename, created.c_str(), renamed.c_str()), 0);
        EXPECT_EQ(::syscall(SYS_unlink, renamed.c_str()), 0);
        EXPECT_EQ(::syscall(SYS_mkdir, "dir", 0700), 0);
        ASSERT_EQ(::chdir(previous.data()), 0);
        m_cwd = previous.data();

        char* const argv[] = {const_cast<char*>("/bin/true"), const_cast<char*>("first"),
                              const_cast<char*>("second arg"), nullptr};
        m_child = ::fork();
        ASSERT_GE(m_child, 0);
        if (m_child == 0)
        {
            ::execv("/bin/true", argv);
            ::_exit(127);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(m_child, &status, 0), m_child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }

    // Our file events in serial order. The kernel channel sees the whole
    // host, so other events may refuse the getters.
    std::vector<const edr::Event*> FileEvents() const
    {
        std::vector<const edr::Event*> ours;
        for (const auto& event : m_events)
        {
            try
            {
                if (event->GetFile().starts_with(m_scratch + "/"))
                {
                    ours.push_back(event.get());
                }
            }
            catch (const std::exception&)
            {
            }
        }
        std::sort(ours.begin(), ours.end(),
                  [](const edr::Event* a, const edr::Event* b) { return a->GetEventId() < b->GetEventId(); });
        return ours;
    }

    // Our child's process start.
    const edr::Event* ChildStart() const
    {
        for (const auto& event : m_events)
        {
            try
            {
                if (m_child > 0 && event->GetType() == edr::EventType::Running &&
                    event->GetActorProcessId() == m_child)
                {
                    return event.get();
                }
            }
            catch (const std::exception&)
            {
            }
        }
        return nullptr;
    }

    static void ExpectActor(const edr::Event& event, pid_t pid, pid_t ppid)
    {
        EXPECT_EQ(event.GetActorProcessId(), pid);
        EXPECT_EQ(event.GetActorParentProcessId(), ppid);
        EXPECT_EQ(event.GetActorUserId(), 0u);
        EXPECT_EQ(event.GetActorEuid(), 0u);
        EXPECT_EQ(event.GetActorUserName(), "root");
        EXPECT_TRUE(event.IsSuccessful());
        EXPECT_FALSE(event.IsThread());
    }

    test::TempDir m_dir;
    std::string m_scratch;
    const std::string m_key = "corvid_intake_test_" + std::to_string(::getpid());
    std::mutex m_mutex;
    std::string m_raw;
    ParserThread::Events m_events;
    pid_t m_child = -1;
    std::string m_cwd;
};

TEST_F(IntakeCaptureTest, FileWorkAndProcessStartArriveThroughTheAuditDispatcher)
{
    AuditEventBuilder builder(std::make_shared<const edr::LibMagicWrapper>("/usr/share/misc/magic.mgc"));
    CaptureThroughDispatcher(
        builder, [this] { DoWork(); },
        [this]
        {
            std::lock_guard lock(m_mutex);
            return FileEvents().size() >= 6 && ChildStart() != nullptr;
        });

    std::lock_guard lock(m_mutex);
    EXPECT_NE(m_raw.find("\x1d"), std::string::npos) << "the enriched form was parsed";
    const std::string created = m_scratch + "/created";
    const std::string renamed = m_scratch + "/renamed";
    using T = edr::EventType;
    const std::vector<std::tuple<T, std::string, std::string>> expected = {
        {T::Create, created, ""},      {T::Write, created, ""},  {T::Attribute, created, ""},
        {T::Rename, created, renamed}, {T::Delete, renamed, ""}, {T::Create, m_scratch + "/dir", ""}};
    const auto ours = FileEvents();
    ASSERT_EQ(ours.size(), expected.size()) << m_raw;
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    for (size_t i = 0; i < ours.size(); ++i)
    {
        SCOPED_TRACE(i);
        const auto& [type, file, newFile] = expected[i];
        EXPECT_EQ(ours[i]->GetType(), type);
        EXPECT_EQ(ours[i]->GetFile(), file);
        EXPECT_EQ(ours[i]->GetCategory(), static_cast<uint32_t>(edr::EventCategory::File));
        EXPECT_EQ(ours[i]->GetImage(), self);
        ExpectActor(*ours[i], ::getpid(), ::getppid());
        EXPECT_EQ(newFile.empty() ? "" : ours[i]->GetNewFile(), newFile);
    }
    // The directory is still there, so its stat was taken and matched.
    EXPECT_EQ(ours.back()->GetFileType(), static_cast<uint32_t>(S_IFDIR));

    const edr::Event* start = ChildStart();
    ASSERT_NE(start, nullptr) << m_raw;
    EXPECT_EQ(start->GetActionName(), "Execve");
    ExpectActor(*start, m_child, ::getpid());
    EXPECT_EQ(start->GetImage(), std::filesystem::canonical("/bin/true").string());
    EXPECT_EQ(start->GetSecondaryImage(), "/bin/true");
    EXPECT_EQ(start->GetActorProcessArguments(),
              (std::vector<std::string>{"/bin/true", "first", "second arg"}));
    EXPECT_EQ(start->GetCommandLine(), "/bin/true first second arg");
    EXPECT_EQ(start->GetCwd(), m_cwd);
}

} // namespace
} // namespace vantor::audit
