#include "tests/src/audit/DetachedCommand.h"
#include "tests/src/audit/PipelineCaptureFixture.h"
#include "tests/src/audit/TestRule.h"

#include "audit/AuditRuleBuilder.h"
#include "audit/ProcessInfo.h"

#include <gtest/gtest.h>
#include <libaudit.h>

#include <algorithm>
#include <optional>

// The acting process of events captured on the real kernel: what handlers
// learn of it, and the host agent's exclusion rules following its process.

namespace vantor::audit
{
namespace
{

using Rule = edr::EventRule;
using test::DetachedCommand;

const auto* const g_environment = testing::AddGlobalTestEnvironment(new test::AuditKernelStateEnvironment);

constexpr const char* kTag = "corvid_actor_test";

using Seen = test::SeenEvent;

class ActorCaptureTest : public test::PipelineCaptureFixture
{
protected:
    void StartPipeline(pid_t agentPid)
    {
        PipelineCaptureFixture::StartPipeline(
            agentPid, kTag,
            {test::MakeRule("actor-files", Rule::DirectoryPathRule, {m_watched}, {2, 5}, {2}),
             test::MakeRule("actor-processes", Rule::ProcessRule, {}, {9, 10, 11})});
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
    ASSERT_TRUE(KernelExcludes(agent.Pid()));

    agent.Run();
    EXPECT_TRUE(WaitFor([&] { return m_engine->GetOutpostPid() == 0; }));
    EXPECT_FALSE(KernelExcludes(agent.Pid())) << "a later process with the agent's pid would go unaudited";
    EXPECT_TRUE(m_log.Contains("Host agent process " + std::to_string(agent.Pid()) +
                               " exited; removing its exclusion rules"));
}

} // namespace
} // namespace vantor::audit
