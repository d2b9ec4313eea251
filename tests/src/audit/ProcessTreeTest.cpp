#include "tests/src/audit/AuditFixture.h"
#include "tests/src/audit/FakeProc.h"
#include "tests/src/audit/TestEvent.h"
#include "tests/support/ExpectThrowText.h"
#include "tests/support/LogCapture.h"

#include "audit/ProcessTree.h"
#include "common/Logging.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <thread>

namespace vantor::audit
{
namespace
{

using edr::EventType;
using test::FakeProc;
using test::MakeEvent;
using test::TestEvent;

// Stands in for the pseudo event classes: remembers whom it was made for.
std::unique_ptr<edr::Event> MakePseudo(EventType type, const ProcessInfo& process)
{
    auto event = MakeEvent(type, process.GetPid(), 0);
    event->image = process.GetImage();
    return event;
}

struct Update
{
    bool goesOn;
    ProcessTree::Events pseudo;
    // Cached clones the event made of no further use.
    ProcessTree::Events released;
};

Update Apply(ProcessTree& tree, std::unique_ptr<edr::Event>& event)
{
    Update update;
    update.goesOn = tree.UpdateFromEvent(event, update.pseudo, nullptr, nullptr, &update.released);
    return update;
}

Update Apply(ProcessTree& tree, std::unique_ptr<TestEvent> testEvent)
{
    std::unique_ptr<edr::Event> event = std::move(testEvent);
    return Apply(tree, event);
}

class ProcessTreeTest : public testing::Test
{
protected:
    FakeProc m_proc;
    ProcessTree m_tree{m_proc.Root(), [](const ProcessInfo& p) { return MakePseudo(EventType::Running, p); },
                       [](const ProcessInfo& p) { return MakePseudo(EventType::Exit, p); }};
    test::LogCapture m_log{common::Logging::Edr()};
};

TEST_F(ProcessTreeTest, BootTimeAndProcessFromProcWithDeletedSuffixRemoved)
{
    EXPECT_EQ(m_tree.GetBootTime(), FakeProc::kBootTime);
    m_proc.AddProcess(4100, 1, "/opt/app/server (deleted)", 250, {"server", "--port", "80"});
    Apply(m_tree, MakeEvent(EventType::Write, 4100));

    const auto process = m_tree.GetProcess(4100);
    ASSERT_TRUE(process);
    EXPECT_EQ(process->GetImage(), "/opt/app/server");
    EXPECT_EQ(process->GetName(), "server");
    EXPECT_EQ(process->GetArguments(), (std::vector<std::string>{"server", "--port", "80"}));
    EXPECT_EQ(process->GetParentPid(), 1);
    EXPECT_EQ(process->GetUserId(), 1000U);
    EXPECT_EQ(process->GetEffectiveUserId(), 1001U);
    EXPECT_EQ(process->GetCreationTime(),
              std::chrono::system_clock::time_point(std::chrono::seconds(FakeProc::kBootTime)) +
                  std::chrono::milliseconds(2500));
    EXPECT_TRUE(m_log.Contains("Creating actor process from ProcFS: 4100"));
}

TEST_F(ProcessTreeTest, AnEndedParentIsAskedOfProcOnlyOnceBetweenCleanings)
{
    m_proc.AddProcess(4300, 4299, "/usr/bin/worker", 300);
    Apply(m_tree, MakeEvent(EventType::Write, 4300));
    for (int i = 0; i < 5; ++i)
    {
        EXPECT_EQ(m_tree.GetAncestors(4300).size(), 1U);
    }
    EXPECT_EQ(m_log.Count("Creating actor process from ProcFS: 4299"), 1U)
        << "one failed read, not one per lookup";

    // A process that appears with that pid is found after the next cleaning.
    m_proc.AddProcess(4299, 1, "/usr/bin/launcher", 200);
    m_tree.Clean();
    EXPECT_EQ(m_tree.GetAncestors(4300).size(), 2U);
}

TEST_F(ProcessTreeTest, AnActorGoneFromProcIsNotAskedForAgainBeforeTheNextCleaning)
{
    Apply(m_tree, MakeEvent(EventType::Write, 5001));
    EXPECT_FALSE(m_tree.GetProcess(5001));
    // It shows up, as a thread of another process; not asked for until the
    // tree is cleaned.
    m_proc.AddProcess(5000, 1, "/usr/bin/server", 100);
    m_proc.AddProcess(5001, 1, "/usr/bin/server", 100, {}, 5000);
    std::unique_ptr<edr::Event> write = MakeEvent(EventType::Write, 5001);
    Apply(m_tree, write);
    EXPECT_EQ(write->GetActorProcessId(), 5001);
    m_tree.Clean();
    Apply(m_tree, write);
    EXPECT_EQ(write->GetActorProcessId(), 5000) << "the thread id is mapped after the cleaning";
    EXPECT_FALSE(m_log.Contains("Failed to create process from")) << "a write describes no process";
}

TEST_F(ProcessTreeTest, ReusedPidIsNotTakenForTheOldProcess)
{
    m_proc.AddProcess(4242, 1, "/usr/bin/old", 100);
    Apply(m_tree, MakeEvent(EventType::Write, 4242));
    ASSERT_EQ(m_tree.GetProcess(4242)->GetImage(), "/usr/bin/old");

    // The old process ended unseen; a new one got its pid.
    m_proc.AddProcess(4242, 1, "/usr/bin/new", 900);
    const auto ended = m_tree.Clean();
    EXPECT_TRUE(
        m_log.Contains("ProcessID: 4242 creation time from processInfo differs with Proc creation time"));
    EXPECT_TRUE(m_log.Contains("ProcessID: 4242 exited. "));
    ASSERT_EQ(ended.size(), 1U);
    EXPECT_EQ(ended[0]->GetType(), EventType::Exit);
    EXPECT_EQ(ended[0]->GetImage(), "/usr/bin/old");

    Apply(m_tree, MakeEvent(EventType::Write, 4242));
    EXPECT_EQ(m_tree.GetProcess(4242)->GetImage(), "/usr/bin/new");
}

// fork.log: workload 5254 (parent 5173) forks 5255, which exits, then 5256.
class ProcessTreeForkTest : public ProcessTreeTest
{
protected:
    static constexpr pid_t kCaller = 5254;

    void SetUp() override
    {
        m_fork = test::BuildEvents(test::AuditFixture("fork"));
        ASSERT_EQ(m_fork.size(), 5U);
        ASSERT_EQ(m_fork[0]->GetType(), EventType::Clone);
        ASSERT_EQ(m_fork[2]->GetType(), EventType::Clone);
    }

    // The records' events in order: clone (to 5255), exit of 5255, fork (to
    // 5256), exit of 5256, exit of the caller.
    Update ApplyRecord(size_t index) { return Apply(m_tree, m_fork.at(index)); }

    ProcessTree::Events m_fork;
};

TEST_F(ProcessTreeForkTest, AForkIsKeptForTheChildAndLeavesTheCallerAlone)
{
    // A container runtime that started long before it forks.
    m_proc.AddProcess(kCaller, 5173, "/usr/bin/conmon", 100, {"conmon", "-c", "ctr"});
    EXPECT_EQ(Apply(m_tree, MakeEvent(EventType::Write, kCaller)).pseudo.size(), 1U);
    const auto caller = m_tree.GetProcess(kCaller);
    ASSERT_TRUE(caller);

    EXPECT_FALSE(ApplyRecord(0).goesOn);
    EXPECT_TRUE(m_log.Contains("Added Clone event Pid: 5255 to cache. Size = 1"));
    EXPECT_EQ(m_tree.GetProcess(kCaller), caller) << "the caller is not retired by its own fork";
    const auto released = ApplyRecord(1).released; // the child's exit
    EXPECT_EQ(m_tree.CloneCacheSize(), 0U);
    ASSERT_EQ(released.size(), 1U) << "handed back, not destroyed";
    EXPECT_EQ(released[0]->GetType(), EventType::Clone);
    ApplyRecord(2);
    EXPECT_TRUE(m_log.Contains("Added Clone event Pid: 5256 to cache. Size = 1"));

    EXPECT_TRUE(Apply(m_tree, MakeEvent(EventType::Write, kCaller)).pseudo.empty());
    EXPECT_EQ(m_tree.GetProcess(kCaller), caller);
    EXPECT_EQ(m_log.Count("Creating actor process from ProcFS: 5254"), 1U);
    EXPECT_EQ(m_log.Count("Creating pseudo event for container process conmon"), 1U);
}

TEST_F(ProcessTreeForkTest, AChildGoneFromProcIsMadeFromItsForkRecord)
{
    // The caller unknown: the child takes the title the record carries.
    ApplyRecord(0);
    EXPECT_EQ(Apply(m_tree, MakeEvent(EventType::Write, 5255)).released.size(), 1U);
    const auto first = m_tree.GetProcess(5255);
    ASSERT_TRUE(first);
    EXPECT_EQ(first->GetParentPid(), kCaller);
    EXPECT_EQ(first->GetImage(), test::kCaptureWorkload);
    EXPECT_EQ(first->GetArguments(), (std::vector<std::string>{test::kCaptureWorkload, "fork"}));
    EXPECT_TRUE(m_log.Contains("Failed to create process for 5255 using ProcFS: "));
    EXPECT_TRUE(m_log.Contains("Creating process from Clone Cache: 5255"));

    // The caller known: the child shares its arguments.
    m_proc.AddProcess(kCaller, 5173, test::kCaptureWorkload, 100, {"workload", "fork", "--from-proc"});
    Apply(m_tree, MakeEvent(EventType::Write, kCaller));
    ApplyRecord(2);
    Apply(m_tree, MakeEvent(EventType::Write, 5256));
    const auto second = m_tree.GetProcess(5256);
    ASSERT_TRUE(second);
    EXPECT_EQ(second->GetArguments(), (std::vector<std::string>{"workload", "fork", "--from-proc"}));
    EXPECT_EQ(m_tree.GetAncestors(5256).size(), 2U);
    EXPECT_EQ(m_tree.CloneCacheSize(), 0U);

    Apply(m_tree, MakeEvent(EventType::Write, 6000));
    EXPECT_FALSE(m_tree.GetProcess(6000));
    EXPECT_TRUE(m_log.Contains("Process with pid 6000 does not exist in Clone Cache"));
}

TEST_F(ProcessTreeForkTest, AForkRetiresAnOldEntryThatHeldTheChildsPid)
{
    m_proc.AddProcess(5255, 1, "/usr/bin/old", 100); // started 1 s after boot
    Apply(m_tree, MakeEvent(EventType::Write, 5255));
    m_proc.RemoveProcess(5255);

    ApplyRecord(0);
    EXPECT_FALSE(m_tree.GetProcess(5255));
    Apply(m_tree, MakeEvent(EventType::Write, 5255));
    ASSERT_TRUE(m_tree.GetProcess(5255));
    EXPECT_EQ(m_tree.GetProcess(5255)->GetImage(), test::kCaptureWorkload);
}

TEST_F(ProcessTreeTest, ExecveReplacesTheEntryAndProcessStartLooksUpTheParent)
{
    m_proc.AddProcess(700, 1, "/usr/bin/bash", 10);
    m_proc.AddProcess(701, 700, "/usr/bin/bash", 20);
    auto exec = MakeEvent(EventType::Running, 701);
    exec->ppid = 700;
    exec->category = 3;
    exec->image = "/usr/bin/curl";
    exec->arguments = {"curl", "http://x"};
    Apply(m_tree, std::move(exec));

    ASSERT_TRUE(m_tree.GetProcess(700)); // the actor of a process start
    const auto started = m_tree.GetProcess(701);
    ASSERT_TRUE(started);
    EXPECT_EQ(started->GetImage(), "/usr/bin/curl");
    EXPECT_EQ(started->GetArguments(), (std::vector<std::string>{"curl", "http://x"}));
    const auto lineage = m_tree.GetAncestors(701);
    ASSERT_EQ(lineage.size(), 2U);
    EXPECT_EQ(lineage[1]->GetPid(), 700);
}

TEST_F(ProcessTreeTest, AProcessStartCarriesTheProcStatTheTreeReadForIt)
{
    // execve.log: 5250 forks 5251, which runs a script.
    auto events = test::BuildEvents(test::AuditFixture("execve"));
    ASSERT_EQ(events.size(), 4U);
    ASSERT_EQ(events[1]->GetType(), EventType::Running);
    auto again = events[1]->Clone();
    m_proc.AddProcess(5251, 5250, "/usr/bin/dash", 20);

    Apply(m_tree, events[1]);
    ASSERT_TRUE(events[1]->HasActorProcessStat());
    const auto stat = events[1]->GetActorProcessStat();
    ASSERT_TRUE(stat);
    EXPECT_EQ(stat->startTicks, 20U);
    EXPECT_EQ(stat->parentPid, 5250);
    EXPECT_EQ(stat->state, 'S');
    EXPECT_EQ(events[1]->Clone()->GetActorProcessStat(), stat) << "a copy keeps the reading";

    Apply(m_tree, events[3]);
    EXPECT_FALSE(events[3]->HasActorProcessStat()) << "only a process start is read for";
    test::ExpectThrowText<edr::EventException>([&] { events[3]->GetActorProcessStat(); },
                                               "GetActorProcessStat is not implemented");

    // Gone before the tree read it: read, and nothing found.
    m_proc.RemoveProcess(5251);
    Apply(m_tree, again);
    EXPECT_TRUE(again->HasActorProcessStat());
    EXPECT_FALSE(again->GetActorProcessStat());
}

TEST_F(ProcessTreeTest, TheUpdateAnswersTheActorsLineageUnderItsOwnLock)
{
    m_proc.AddProcess(900, 1, "/usr/bin/tool", 10);
    m_proc.AddProcess(901, 900, "/usr/bin/bash", 20);
    m_proc.AddProcess(902, 1, "/usr/bin/other", 30);
    const ProcessTree::Match isTool = [](const ProcessInfo& p) { return p.GetImage() == "/usr/bin/tool"; };
    const struct
    {
        pid_t pid;
        std::optional<bool> expected;
    } cases[] = {
        {901, true},   // child of the tool
        {902, false},  // unrelated
        {900, true},   // the tool itself
        {4444, false}, // unknown anywhere
    };
    for (const auto& c : cases)
    {
        std::unique_ptr<edr::Event> event = MakeEvent(EventType::Write, c.pid);
        ProcessTree::Events pseudo;
        std::optional<bool> matched;
        EXPECT_TRUE(m_tree.UpdateFromEvent(event, pseudo, &isTool, &matched));
        EXPECT_EQ(matched, c.expected) << c.pid;
        EXPECT_EQ(matched, m_tree.AnyInLineage(c.pid, isTool)) << c.pid;
    }
}

TEST_F(ProcessTreeTest, ExitedEntriesGoAtCleaningOrTheSecondSweepButParentsOfLiveChildrenStay)
{
    m_proc.AddProcess(900, 1, "/usr/bin/parent", 10);
    m_proc.AddProcess(901, 900, "/usr/bin/child", 20);
    m_proc.AddProcess(902, 1, "/usr/bin/short", 30);
    Apply(m_tree, MakeEvent(EventType::Write, 901));
    Apply(m_tree, MakeEvent(EventType::Write, 902));
    ASSERT_EQ(m_tree.GetAncestors(901).size(), 2U);
    Apply(m_tree, MakeEvent(EventType::Exit, 900));
    Apply(m_tree, MakeEvent(EventType::Exit, 902));
    EXPECT_FALSE(m_tree.GetProcess(900));
    ASSERT_EQ(m_tree.Size(), 3U);

    // The first sweep only notes the ended entries: one that ended just
    // before it is still there for events straggling behind the exit.
    EXPECT_EQ(m_tree.RemoveTerminated(), 0U);
    EXPECT_EQ(m_tree.Size(), 3U);
    EXPECT_EQ(m_tree.RemoveTerminated(), 1U);
    EXPECT_EQ(m_tree.Size(), 2U);
    EXPECT_EQ(m_tree.GetAncestors(901).size(), 2U) << "the parent of a live child stays";

    m_proc.RemoveProcess(900);
    EXPECT_TRUE(m_tree.Clean().empty()) << "exited with an exit event: no pseudo event";
    EXPECT_EQ(m_tree.GetAncestors(901).size(), 2U) << "the orphan's lineage is kept";
    Apply(m_tree, MakeEvent(EventType::Exit, 901));
    m_tree.Clean();
    EXPECT_EQ(m_tree.Size(), 0U);
    EXPECT_TRUE(m_log.Contains("Cleaning process tree for terminated processes"));
}

TEST_F(ProcessTreeTest, ProcessInfoComesOnlyFromExecOrClone)
{
    EXPECT_THAT([&] { ProcessInfo info(*MakeEvent(EventType::Write, 1), {}); },
                testing::ThrowsMessage<std::runtime_error>(
                    testing::StrEq("ProcessInfo can only be created from a Process Exec or Clone event")));
    // A clone that does not say which process it made.
    EXPECT_THAT([&] { ProcessInfo info(*MakeEvent(EventType::Clone, 12), {}); },
                testing::ThrowsMessage<std::runtime_error>(
                    testing::StrEq("ProcessInfo cannot find the new process of the Clone event")));
    auto exec = MakeEvent(EventType::Running, 12);
    exec->image.clear();
    EXPECT_THAT([&] { ProcessInfo info(*exec, {}); },
                testing::ThrowsMessage<std::runtime_error>(
                    testing::StrEq("ProcessInfo cannot find image information for PID:12")));
}

TEST(ProcessTreeLiveTest, ThreadIdIsRewrittenToItsProcessId)
{
    ProcessTree tree;
    std::promise<pid_t> tidPromise;
    std::promise<void> done;
    std::thread thread(
        [&]
        {
            tidPromise.set_value(::gettid());
            done.get_future().wait();
        });
    const pid_t tid = tidPromise.get_future().get();
    ASSERT_NE(tid, ::getpid());

    test::LogCapture log(common::Logging::Edr());
    auto event = MakeEvent(EventType::Write, tid);
    TestEvent* raw = event.get();
    std::unique_ptr<edr::Event> owned = std::move(event);
    ProcessTree::Events pseudo;
    EXPECT_TRUE(tree.UpdateFromEvent(owned, pseudo));
    EXPECT_EQ(raw->pid, ::getpid());
    EXPECT_TRUE(
        log.Contains("Detected that Event has thread id " + std::to_string(tid) + " instead of process id"));
    EXPECT_TRUE(log.Contains("Updating Event with process id " + std::to_string(::getpid())));
    EXPECT_TRUE(tree.GetProcess(::getpid()));
    EXPECT_FALSE(tree.GetProcess(tid));

    // Known from now on without /proc.
    auto again = MakeEvent(EventType::Write, tid);
    TestEvent* rawAgain = again.get();
    owned = std::move(again);
    tree.UpdateFromEvent(owned, pseudo);
    EXPECT_EQ(rawAgain->pid, ::getpid());
    EXPECT_EQ(tree.ThreadCount(), 1U);

    done.set_value();
    thread.join();
    tree.Clean();
    EXPECT_EQ(tree.ThreadCount(), 0U) << "a finished thread is forgotten";
}

} // namespace
} // namespace vantor::audit
