#include "tests/src/audit/DetachedCommand.h"
#include "tests/src/audit/PipelineCaptureFixture.h"
#include "tests/src/audit/TestRule.h"

#include "audit/AuditRuleBuilder.h"
#include "audit/ProcessInfo.h"

#include <gtest/gtest.h>
#include <libaudit.h>

#include <algorithm>

#include <chrono>
#include <fstream>
#include <optional>
#include <thread>
#include <unistd.h>

// The capture path as the daemon assembles it, on the real kernel: kernel
// channel -> parser thread -> processing thread -> rule engine -> handler;
// what handlers learn of the acting process, and the host agent's exclusion
// rules following its process.

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

using Seen = test::SeenEvent;

class PipelineCaptureTest : public test::PipelineCaptureFixture
{
protected:
    void StartPipeline(pid_t agentPid)
    {
        PipelineCaptureFixture::StartPipeline(
            agentPid, kTag,
            {test::MakeRule("pipeline-files", Rule::DirectoryPathRule, {m_watched}, {2, 3, 5, 7, 8}, {2, 3}),
             test::MakeRule("pipeline-processes", Rule::ProcessRule, {}, {9, 10, 11})});
    }
    // Whether the kernel holds an agent exclusion rule for the pid (other
    // engines on this host may hold rules under the same key).
    bool KernelExcludes(pid_t pid) const
    {
        const std::string key = AuditRuleBuilder::IgnoreRuleKey(AuditRuleBuilder::kOutpostSuffix);
        for (const auto& rule : m_engine->GetRulesFromAudit())
        {
            const audit_rule_data* data = rule.Get();
            for (uint32_t i = 0; rule.HasKey(key) && i < data->field_count; ++i)
            {
                if (data->fields[i] == AUDIT_PID && data->values[i] == static_cast<uint32_t>(pid))
                {
                    return true;
                }
            }
        }
        return false;
    }
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

// The kernel keeps the first 128 bytes of a process title.
void ExpectTitleOf(const Seen& seen, const std::vector<std::string>& arguments)
{
    const std::string full = ProcessInfo::JoinArguments(arguments);
    EXPECT_EQ(seen.arguments, arguments);
    EXPECT_TRUE(full.starts_with(seen.title)) << seen.title;
    EXPECT_GE(seen.title.size(), std::min<size_t>(full.size(), 100)) << seen.title;
}

TEST_F(PipelineCaptureTest, FileEventsNameTheProcessTitleAndArgumentsOfTheirActor)
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

TEST_F(PipelineCaptureTest, TheAgentsExitTakesItsExclusionRulesOffItsPid)
{
    DetachedCommand agent({"/usr/bin/true"});
    StartPipeline(agent.Pid());
    ASSERT_TRUE(KernelExcludes(agent.Pid()));

    agent.Run();
    EXPECT_TRUE(WaitFor([&] { return m_engine->GetOutpostPid() == 0; }));
    EXPECT_FALSE(KernelExcludes(agent.Pid())) << "a later process with the agent's pid would go unaudited";
    EXPECT_TRUE(m_log.Contains("Host agent process " + std::to_string(agent.Pid()) +
                               " exited; removing its exclusion rules"));
}

} // namespace
} // namespace vantor::audit
