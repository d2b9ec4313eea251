#include "common/Logging.h"
#include "tests/src/audit/AuditKernelState.h"
#include "tests/src/audit/DetachedCommand.h"
#include "tests/src/audit/TestRule.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include "audit/AuditRuleBuilder.h"
#include "audit/CapturePipeline.h"
#include "audit/KernelIOChannel.h"
#include "audit/ProcessInfo.h"
#include "audit/ProcessTree.h"
#include "audit/RuleEngine.h"
#include "edr/LibMagicWrapper.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <iostream>
#include <mutex>
#include <thread>

// The acting process of events captured on the real kernel: what handlers
// learn of it, and the host agent's exclusion rules following its process.

namespace vantor::audit
{
namespace
{

using namespace std::chrono_literals;
using Rule = edr::EventRule;
using test::DetachedCommand;

const auto* const g_environment = testing::AddGlobalTestEnvironment(new test::AuditKernelStateEnvironment);

constexpr const char* kTag = "corvid_actor_test";

struct Seen
{
    edr::EventType type = edr::EventType::Accept;
    pid_t pid = 0;
    bool hasProcess = false;
    std::vector<std::string> arguments;
    std::string title;
    std::string file;
};

class ActorCaptureTest : public test::AuditCaptureFixture
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
        }
        AuditCaptureFixture::TearDown();
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
                seen.hasProcess = event.HasProcess();
                if (seen.hasProcess)
                {
                    seen.arguments = event.GetActorProcessArguments();
                    seen.title = event.GetCommandLine();
                }
                if (event.GetCategory() == static_cast<uint32_t>(edr::EventCategory::File))
                {
                    seen.file = event.GetFile();
                }
                std::lock_guard lock(m_mutex);
                m_seen.push_back(std::move(seen));
            },
            [] {});
        m_engine->AddRules({test::MakeRule("actor-files", Rule::DirectoryPathRule, {m_watched}, {2, 5}, {2}),
                            test::MakeRule("actor-processes", Rule::ProcessRule, {}, {9, 10, 11})},
                           kTag);
        auto channel = std::make_unique<KernelIOChannel>();
        channel->SetEnableAudit(true);
        m_capture = std::make_unique<CapturePipeline>(
            std::move(channel), std::make_shared<const edr::LibMagicWrapper>("/usr/share/misc/magic.mgc"),
            m_engine->GetEventProcessor(), CapturePipeline::Limits{});
        m_capture->Start();
    }

    std::optional<Seen> SeenFile(edr::EventType type, const std::string& file)
    {
        std::lock_guard lock(m_mutex);
        for (const auto& seen : m_seen)
        {
            if (seen.type == type && seen.file == file)
            {
                return seen;
            }
        }
        return std::nullopt;
    }

    bool OutpostRulesInKernel() const
    {
        const auto rules = m_engine->GetRulesFromAudit();
        const std::string key = AuditRuleBuilder::IgnoreRuleKey(AuditRuleBuilder::kOutpostSuffix);
        return std::any_of(rules.begin(), rules.end(),
                           [&](const AuditRule& rule) { return rule.HasKey(key); });
    }

    template <typename Pred>
    static bool WaitFor(Pred pred, std::chrono::milliseconds limit = 8000ms)
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

// The kernel keeps the first 128 bytes of a process title.
void ExpectTitleOf(const Seen& seen, const std::vector<std::string>& arguments)
{
    const std::string full = ProcessInfo::JoinArguments(arguments);
    EXPECT_EQ(seen.arguments, arguments);
    EXPECT_TRUE(full.starts_with(seen.title)) << seen.title;
    EXPECT_GE(seen.title.size(), std::min<size_t>(full.size(), 100)) << seen.title;
}

TEST_F(ActorCaptureTest, FileEventsNameTheProcessTitleAndArgumentsOfTheirActor)
{
    DetachedCommand agent({"/usr/bin/true"});
    StartPipeline(agent.Pid());

    // The shell writes one file itself and runs touch for the other.
    const std::string written = m_watched + "/by-shell.txt";
    const std::string touched = m_watched + "/by-touch.txt";
    const std::vector<std::string> shell{"/bin/sh", "-c",
                                         "echo text > " + written + "; /usr/bin/touch " + touched};
    test::RunDetached(shell);
    std::optional<Seen> byShell;
    std::optional<Seen> byTouch;
    ASSERT_TRUE(WaitFor(
        [&]
        {
            byShell = SeenFile(edr::EventType::Create, written);
            byTouch = SeenFile(edr::EventType::Create, touched);
            return byShell && byTouch;
        }));
    EXPECT_TRUE(byShell->hasProcess);
    ExpectTitleOf(*byShell, shell);
    EXPECT_TRUE(byTouch->hasProcess);
    ExpectTitleOf(*byTouch, {"/usr/bin/touch", touched});
}

TEST_F(ActorCaptureTest, TheAgentsExitTakesItsExclusionRulesOffItsPid)
{
    DetachedCommand agent({"/usr/bin/true"});
    StartPipeline(agent.Pid());
    ASSERT_TRUE(OutpostRulesInKernel());

    agent.Run();
    EXPECT_TRUE(WaitFor([&] { return m_engine->GetOutpostPid() == 0; }));
    EXPECT_FALSE(OutpostRulesInKernel()) << "a later process with the agent's pid would go unaudited";
    EXPECT_TRUE(m_log.Contains("Host agent process " + std::to_string(agent.Pid()) +
                               " exited; removing its exclusion rules"));
}

} // namespace
} // namespace vantor::audit
