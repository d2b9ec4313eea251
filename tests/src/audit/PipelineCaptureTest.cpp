#include "common/Logging.h"
#include "tests/src/audit/AuditKernelState.h"
#include "tests/src/audit/DetachedCommand.h"
#include "tests/src/audit/TestRule.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include "audit/CapturePipeline.h"
#include "audit/KernelIOChannel.h"
#include "audit/ProcessTree.h"
#include "audit/RuleEngine.h"
#include "edr/LibMagicWrapper.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

// The capture path as the daemon assembles it, on the real kernel: kernel
// channel -> parser thread -> processing thread -> rule engine -> handler.

namespace vantor::audit
{
namespace
{

using namespace std::chrono_literals;
using Rule = edr::EventRule;

const auto* const g_environment = testing::AddGlobalTestEnvironment(new test::AuditKernelStateEnvironment);

using test::DetachedCommand;
using test::RunDetached;

constexpr const char* kTag = "corvid_pipeline_test";

// What a handler saw of one event.
struct Seen
{
    edr::EventType type = edr::EventType::Accept;
    pid_t pid = 0;
    pid_t ppid = 0;
    std::string image;
    std::string file;
    uint32_t uid = 0;
    std::string userName;
};

class PipelineCaptureTest : public test::AuditCaptureFixture
{
protected:
    void SetUp() override
    {
        AuditCaptureFixture::SetUp();
        if (IsSkipped())
        {
            return;
        }
        m_watched = m_dir.Path() + "/watched";
        std::filesystem::create_directories(m_watched);
    }

    void StartPipeline(pid_t agentPid)
    {
        m_engine = std::make_unique<RuleEngine>(agentPid, "/usr/sbin/outpost",
                                                std::make_shared<ProcessTree>(), 0, m_dir.Path());
        m_engine->RegisterEventHandlers(
            kTag,
            [this](edr::Event& event)
            {
                Seen seen;
                seen.type = event.GetType();
                seen.pid = event.GetActorProcessId();
                seen.ppid = event.GetActorParentProcessId();
                seen.image = event.GetImage();
                seen.uid = event.GetActorUserId();
                seen.userName = event.GetActorUserName();
                if (event.GetCategory() == static_cast<uint32_t>(edr::EventCategory::File))
                {
                    seen.file = event.GetFile();
                }
                std::lock_guard lock(m_mutex);
                m_seen.push_back(std::move(seen));
            },
            [] {});
        m_engine->AddRules(
            {test::MakeRule("pipeline-files", Rule::DirectoryPathRule, {m_watched}, {2, 3, 5, 7, 8}, {2, 3}),
             test::MakeRule("pipeline-processes", Rule::ProcessRule, {}, {9, 11})},
            kTag);

        auto channel = std::make_unique<KernelIOChannel>();
        channel->SetEnableAudit(true);
        m_capture = std::make_unique<CapturePipeline>(
            std::move(channel), std::make_shared<const edr::LibMagicWrapper>("/usr/share/misc/magic.mgc"),
            m_engine->GetEventProcessor(), CapturePipeline::Limits{});
        m_capture->Start();
    }

    void TearDown() override
    {
        m_capture.reset();
        m_engine.reset();
        if (HasFailure())
        {
            for (const auto& line : m_log.Lines())
            {
                std::cerr << line << "\n";
            }
            std::lock_guard lock(m_mutex);
            for (const auto& s : m_seen)
            {
                std::cerr << "seen type " << static_cast<int>(s.type) << " pid " << s.pid << " " << s.file
                          << "\n";
            }
        }
        AuditCaptureFixture::TearDown();
    }

    std::vector<Seen> SeenBy(pid_t pid)
    {
        std::lock_guard lock(m_mutex);
        std::vector<Seen> out;
        for (const auto& s : m_seen)
        {
            if (s.pid == pid)
            {
                out.push_back(s);
            }
        }
        return out;
    }

    template <typename Pred>
    bool WaitFor(Pred pred, std::chrono::milliseconds limit = 8000ms)
    {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (!pred())
        {
            if (std::chrono::steady_clock::now() > end)
            {
                return false;
            }
            std::this_thread::sleep_for(20ms);
        }
        return true;
    }

    test::LogCapture m_log{common::Logging::Edr(), Poco::Message::PRIO_DEBUG};
    test::TempDir m_dir;
    std::string m_watched;
    std::unique_ptr<RuleEngine> m_engine;
    std::unique_ptr<CapturePipeline> m_capture;
    std::mutex m_mutex;
    std::vector<Seen> m_seen;
};

bool Has(const std::vector<Seen>& seen, edr::EventType type, const std::string& file = {})
{
    for (const auto& s : seen)
    {
        if (s.type == type && (file.empty() || s.file == file))
        {
            return true;
        }
    }
    return false;
}

TEST_F(PipelineCaptureTest, ProcessAndFileEventsReachTheHandlerWithTheirActor)
{
    DetachedCommand agent({"/usr/bin/touch", m_watched + "/by-agent.txt"});
    StartPipeline(agent.Pid());

    const std::string created = m_watched + "/by-child.txt";
    const pid_t child = RunDetached({"/usr/bin/touch", created});
    ASSERT_TRUE(WaitFor(
        [&]
        {
            const auto seen = SeenBy(child);
            return Has(seen, edr::EventType::Running) && Has(seen, edr::EventType::Create, created) &&
                   Has(seen, edr::EventType::Exit);
        }))
        << "events of pid " << child << " did not all arrive";

    for (const auto& s : SeenBy(child))
    {
        if (s.type == edr::EventType::Exit)
        {
            continue; // an exit carries the process as it ended
        }
        EXPECT_EQ(s.image, "/usr/bin/touch");
        EXPECT_NE(s.ppid, ::getpid()) << "a detached process";
        EXPECT_GT(s.ppid, 0);
        EXPECT_EQ(s.uid, ::getuid());
        EXPECT_EQ(s.userName, "root");
    }
    const std::string changed = m_watched + "/by-child.txt";
    const pid_t chmodder = RunDetached({"/usr/bin/chmod", "600", changed});
    const pid_t remover = RunDetached({"/usr/bin/rm", changed});
    EXPECT_TRUE(WaitFor([&] { return Has(SeenBy(chmodder), edr::EventType::Attribute, changed); }));
    EXPECT_TRUE(WaitFor([&] { return Has(SeenBy(remover), edr::EventType::Delete, changed); }));
}

TEST_F(PipelineCaptureTest, OwnAndAgentActivityNeverArrives)
{
    DetachedCommand agent({"/usr/bin/touch", m_watched + "/by-agent.txt"});
    const pid_t agentPid = agent.Pid();
    StartPipeline(agentPid);

    // This process plays the daemon: its own work is excluded in the kernel.
    std::ofstream(m_watched + "/by-self.txt") << "self";
    agent.Run();
    // A marker afterwards: once its event is in, the earlier ones would be too.
    const std::string marker = m_watched + "/marker.txt";
    const pid_t markerPid = RunDetached({"/usr/bin/touch", marker});
    ASSERT_TRUE(WaitFor([&] { return Has(SeenBy(markerPid), edr::EventType::Create, marker); }));
    std::this_thread::sleep_for(300ms);

    EXPECT_TRUE(SeenBy(::getpid()).empty()) << "the daemon's own activity was reported";
    // Only the agent's exit passes its exclusion, deliberately: the process
    // tree must learn that the agent ended.
    for (const auto& s : SeenBy(agentPid))
    {
        EXPECT_EQ(s.type, edr::EventType::Exit) << "the agent's activity was reported: " << s.file;
    }
}

} // namespace
} // namespace vantor::audit
