// The acting process of events built from captured records: what the
// handlers learn of it from the process tree, which processes count as the
// host agent's tools, and how the agent's exclusion rules follow its process.

#include "tests/src/audit/AuditFixture.h"
#include "tests/src/audit/FakeProc.h"
#include "tests/src/audit/TestEvent.h"
#include "tests/support/LogCapture.h"

#include "audit/AuditEventProcessor.h"
#include "common/Logging.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <optional>

namespace vantor::audit
{
namespace
{

using edr::EventRule;
using edr::EventType;
using test::kCaptureWorkload;

constexpr pid_t kOwnPid = 99;
// The shell that ran the capture's workload.
constexpr pid_t kShell = 5173;

// What a handler learns of an event's acting process.
struct Seen
{
    EventType type{};
    pid_t pid = 0;
    bool hasProcess = false;
    std::optional<std::vector<std::string>> arguments;
    std::optional<pid_t> parent;
    std::optional<std::string> title;
    std::string image;
    std::string user;
};

template <typename T, typename Read>
std::optional<T> Answer(Read read)
{
    try
    {
        return read();
    }
    catch (const edr::EventException&)
    {
        return std::nullopt;
    }
}

class ActingProcessTest : public testing::Test
{
protected:
    ActingProcessTest()
    {
        m_router.AddRoute("files", {"fim", EventRule::DirectoryPathRule, {}, {test::kCaptureData}});
        m_router.AddRoute("processes", {"ioc", EventRule::ProcessRule, {9, 10, 11}, {}});
        m_router.AddRoute("network", {"ioc", EventRule::NetworkRule, {12, 13}, {}});
        m_proc.AddProcess(kShell, 1, "/usr/bin/bash", 50, {"bash", "capture.sh"});
    }

    AuditEventProcessor MakeProcessor(std::shared_ptr<ProcessTree> tree,
                                      OutpostProcessFollower::Target* outpost = nullptr,
                                      std::chrono::seconds cleanInterval = ProcessTreeUpdater::kCleanInterval)
    {
        return AuditEventProcessor(
            std::move(tree), kOwnPid, m_router,
            [this](const AuditEventProcessor::Tags&, edr::Event& event)
            {
                Seen seen;
                seen.type = event.GetType();
                seen.pid = event.GetActorProcessId();
                seen.hasProcess = event.HasProcess();
                seen.arguments =
                    Answer<std::vector<std::string>>([&] { return event.GetActorProcessArguments(); });
                seen.parent = Answer<pid_t>([&] { return event.GetActorParentProcessId(); });
                seen.title = Answer<std::string>([&] { return event.GetCommandLine(); });
                seen.image = event.GetImage();
                seen.user = event.GetActorUserName();
                m_seen.push_back(std::move(seen));
            },
            cleanInterval, outpost);
    }

    std::shared_ptr<ProcessTree> MakeTree() const { return std::make_shared<ProcessTree>(m_proc.Root()); }

    static void ProcessRecords(AuditEventProcessor& processor, const std::string& text)
    {
        for (auto& event : test::BuildEvents(text))
        {
            processor.ProcessEvent(std::move(event));
        }
    }

    std::vector<Seen> SeenOf(pid_t pid) const
    {
        std::vector<Seen> found;
        std::copy_if(m_seen.begin(), m_seen.end(), std::back_inserter(found),
                     [pid](const Seen& seen) { return seen.pid == pid; });
        return found;
    }

    test::FakeProc m_proc;
    EventRouter m_router;
    std::vector<Seen> m_seen;
    test::LogCapture m_log{common::Logging::Edr()};
};

TEST_F(ActingProcessTest, EveryEventNamesItsActingProcessFromTheTree)
{
    m_proc.AddProcess(5250, kShell, kCaptureWorkload, 100, {"workload", "execve"});
    m_proc.AddProcess(5225, kShell, kCaptureWorkload, 100, {"workload", "create", "--verbose"});
    m_proc.AddProcess(5259, kShell, kCaptureWorkload, 100, {"workload", "network4", "--port=47011"});
    auto processor = MakeProcessor(MakeTree());
    ProcessRecords(processor, test::AuditFixture("execve"));
    ProcessRecords(processor, test::AuditFixture("create"));
    ProcessRecords(processor, test::AuditFixture("network4"));

    std::vector<EventType> types;
    for (const auto& seen : m_seen)
    {
        types.push_back(seen.type);
        EXPECT_TRUE(seen.hasProcess) << static_cast<int>(seen.type) << " of " << seen.pid;
        EXPECT_EQ(seen.user, "root");
    }
    EXPECT_EQ(types, (std::vector<EventType>{EventType::Running, EventType::Read, EventType::Exit,
                                             EventType::Create, EventType::Exit, EventType::Bind,
                                             EventType::Connect, EventType::Exit}));

    // The script started by execve, then reading itself: the tree has it
    // from the execve.
    const std::vector<std::string> script{"/bin/sh", "./script.sh", "first arg", "second"};
    for (const auto& seen : SeenOf(5251))
    {
        EXPECT_EQ(seen.arguments, script);
        EXPECT_EQ(seen.parent, 5250);
        EXPECT_EQ(seen.image, "/usr/bin/dash");
        EXPECT_EQ(seen.title, "/bin/sh ./script.sh first arg second");
    }

    // Processes that started unseen: the tree has them from /proc, while
    // the title is the one the kernel recorded with the call.
    const auto created = SeenOf(5225);
    ASSERT_EQ(created.size(), 2U);
    EXPECT_EQ(created[0].arguments, (std::vector<std::string>{"workload", "create", "--verbose"}));
    EXPECT_EQ(created[0].parent, kShell);
    EXPECT_EQ(created[0].image, kCaptureWorkload);
    EXPECT_EQ(created[0].title, kCaptureWorkload + " create");
    const auto network = SeenOf(5259);
    ASSERT_EQ(network.size(), 3U);
    EXPECT_EQ(network[1].arguments, (std::vector<std::string>{"workload", "network4", "--port=47011"}));
    EXPECT_EQ(network[1].title, kCaptureWorkload + " network4");
    EXPECT_EQ(SeenOf(5250).at(0).arguments, (std::vector<std::string>{"workload", "execve"}));
}

TEST_F(ActingProcessTest, WithoutItsRecordsTitleAnEventTakesTheCommandLineTheTreeKnows)
{
    m_proc.AddProcess(5225, kShell, kCaptureWorkload, 100, {"workload", "create", "--verbose"});
    auto processor = MakeProcessor(MakeTree());
    ProcessRecords(processor, test::WithoutRecords(test::AuditFixture("create"), "PROCTITLE"));
    ASSERT_FALSE(m_seen.empty());
    EXPECT_EQ(m_seen[0].title, "workload create --verbose");

    // Neither record nor tree: nothing names the title.
    m_seen.clear();
    auto treeless = MakeProcessor(nullptr);
    ProcessRecords(treeless, test::WithoutRecords(test::AuditFixture("create"), "PROCTITLE"));
    ASSERT_FALSE(m_seen.empty());
    EXPECT_FALSE(m_seen[0].hasProcess);
    EXPECT_EQ(m_seen[0].title, std::nullopt);
    EXPECT_EQ(m_seen[0].parent, kShell) << "the call's own record still names the parent";
}

TEST_F(ActingProcessTest, ToolNamesCountOnlyInsideTheToolDirectories)
{
    // (image of the workload's parent, whether the workload's events are dropped)
    const std::vector<std::pair<std::string, bool>> cases{
        {"/usr/sbin/outpost-updater", true},
        {"/usr/libexec/outpost-watchdog", true},
        {"/usr/local/bin/outpost-probeoutpost-scan", true},
        {"/home/alice/bin/outpost-updater", false},
        {"/opt/tools/outpost", false},
        {"/usr/bin/sub/outpost", false},
        {"/usr/bin/outpost-probe", false}, // half of a run-together entry
    };
    for (const auto& [image, dropped] : cases)
    {
        m_seen.clear();
        m_proc.AddProcess(kShell, 1, image, 50);
        m_proc.AddProcess(5225, kShell, kCaptureWorkload, 100);
        auto processor = MakeProcessor(MakeTree());
        ProcessRecords(processor, test::AuditFixture("create"));
        EXPECT_EQ(m_seen.empty(), dropped) << image;
    }
    EXPECT_TRUE(AuditEventProcessor::IsOutpostTool("/usr/bin/outpost"));
    EXPECT_FALSE(AuditEventProcessor::IsOutpostTool("outpost"));
}

// The audit rule engine's side of the agent's exclusion rules.
class FakeOutpost : public OutpostProcessFollower::Target
{
public:
    FakeOutpost(pid_t pid, std::string path)
        : m_pid(pid)
        , m_path(std::move(path))
    {
    }
    pid_t GetOutpostPid() const override { return m_pid; }
    std::string GetOutpostPath() const override { return m_path; }
    bool RefreshOutpostExclusionRules(pid_t pid, const std::string& path) override
    {
        refreshes.emplace_back(pid, path);
        m_pid = pid;
        return true;
    }

    std::vector<std::pair<pid_t, std::string>> refreshes;

private:
    pid_t m_pid;
    std::string m_path;
};

using Refreshes = std::vector<std::pair<pid_t, std::string>>;

TEST_F(ActingProcessTest, TheAgentsRulesFollowItsProcessThroughExitAndReplacement)
{
    // execve.log: 5250 forks 5251, which runs a script with /usr/bin/dash;
    // then 5250 exits. Here 5250 plays the agent and dash is its image.
    m_proc.AddProcess(5250, kShell, "/usr/bin/dash", 100);
    FakeOutpost outpost(5250, "/usr/bin/dash");
    auto processor = MakeProcessor(MakeTree(), &outpost);
    auto events = test::BuildEvents(test::AuditFixture("execve"));
    ASSERT_EQ(events.size(), 4U);
    ASSERT_EQ(events[1]->GetType(), EventType::Running);
    auto restart = events[1]->Clone();

    // The agent is alive: a process of its image is its helper.
    processor.ProcessEvent(std::move(events[0]));
    processor.ProcessEvent(std::move(events[1]));
    processor.ProcessEvent(std::move(events[2]));
    EXPECT_TRUE(outpost.refreshes.empty());

    // Its exit frees the pid: the rules go.
    m_proc.RemoveProcess(5250);
    processor.ProcessEvent(std::move(events[3]));
    EXPECT_EQ(outpost.refreshes, (Refreshes{{0, "/usr/bin/dash"}}));
    EXPECT_TRUE(m_log.Contains("Host agent process 5250 exited; removing its exclusion rules"));
    EXPECT_EQ(m_seen.size(), 3U) << "the agent's events still reach the handlers";

    // A process that starts running its image replaces it.
    processor.ProcessEvent(std::move(restart));
    EXPECT_EQ(outpost.refreshes, (Refreshes{{0, "/usr/bin/dash"}, {5251, "/usr/bin/dash"}}));
    EXPECT_TRUE(m_log.Contains("Host agent now runs as pid 5251"));

    // Other exits leave the rules alone.
    ProcessRecords(processor, test::AuditFixture("create"));
    EXPECT_EQ(outpost.refreshes.size(), 2U);
}

TEST_F(ActingProcessTest, AnAgentKilledWithoutExitLosesItsRulesWhenTheTreeIsCleaned)
{
    FakeOutpost alive(kShell, "/usr/bin/bash");
    FakeOutpost killed(4000, "/usr/bin/outpost");
    auto cleanedAlways = MakeProcessor(MakeTree(), &alive, std::chrono::seconds(0));
    auto cleanedWithKilled = MakeProcessor(MakeTree(), &killed, std::chrono::seconds(0));
    ProcessRecords(cleanedAlways, test::AuditFixture("create"));
    ProcessRecords(cleanedWithKilled, test::AuditFixture("create"));
    EXPECT_TRUE(alive.refreshes.empty());
    EXPECT_EQ(killed.refreshes, (Refreshes{{0, "/usr/bin/outpost"}}));
    EXPECT_TRUE(m_log.Contains("Host agent process 4000 is gone; removing its exclusion rules"));
}

TEST_F(ActingProcessTest, AReplacementUnknownToTheTreeIsReported)
{
    FakeOutpost outpost(0, "/usr/bin/dash");
    auto treeless = MakeProcessor(nullptr, &outpost);
    ProcessRecords(treeless, test::AuditFixture("execve"));
    EXPECT_TRUE(outpost.refreshes.empty());
    EXPECT_TRUE(m_log.Contains("Failed to find process information for pid:5251"));
}

} // namespace
} // namespace vantor::audit
