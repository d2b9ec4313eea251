#include "tests/src/audit/DetachedCommand.h"
#include "tests/src/audit/PipelineCaptureFixture.h"
#include "tests/src/audit/TestRule.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
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

using Seen = test::SeenEvent;

class PipelineCaptureTest : public test::PipelineCaptureFixture
{
protected:
    void StartPipeline(pid_t agentPid)
    {
        PipelineCaptureFixture::StartPipeline(
            agentPid, kTag,
            {test::MakeRule("pipeline-files", Rule::DirectoryPathRule, {m_watched}, {2, 3, 5, 7, 8}, {2, 3}),
             test::MakeRule("pipeline-processes", Rule::ProcessRule, {}, {9, 11})});
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

} // namespace
} // namespace vantor::audit
