#include "ioc/TtlProcessTree.h"
#include "ioc/ProcReader.h"
#include "tests/src/audit/TestEvent.h"
#include "tests/src/ioc/FakeProc.h"
#include "tests/src/ioc/IocTestEvent.h"
#include "tests/support/ExpectThrowText.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include "common/Logging.h"
#include "common/UniqueFd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>
#include <thread>
#include <unistd.h>

using namespace vantor;
using namespace std::chrono_literals;
using ioc::ProcessInfo;
using ioc::TtlProcessTree;
using ioc::TtlProcessTreeException;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

class TtlProcessTreeTest : public testing::Test
{
protected:
    TtlProcessTreeTest()
        : m_tree(m_proc.Root(), 300s, [this] { return m_now; })
    {
        m_proc.Run(1, 0, 1, "init");
    }

    // A process-running event of a process that runs (in the fake /proc).
    void Start(pid_t pid, pid_t parentPid, uint64_t startTicks, const std::string& image = "/usr/bin/tool")
    {
        m_proc.Run(pid, parentPid, startTicks);
        m_tree.AddOrUpdate(*Running(pid, parentPid, image));
    }

    static std::unique_ptr<test::TestEvent> Running(pid_t pid, pid_t parentPid, const std::string& image)
    {
        auto event = test::MakeEvent(edr::EventType::Running, pid);
        event->ppid = parentPid;
        event->image = image;
        event->arguments = {image, "--flag"};
        return event;
    }

    static std::shared_ptr<const edr::Event> EventOf(pid_t pid, uint32_t id)
    {
        return test::MakeEvent(edr::EventType::Write, pid, id);
    }

    ioc::test::FakeProc m_proc;
    std::chrono::steady_clock::time_point m_now{std::chrono::hours(1)};
    TtlProcessTree m_tree;
};

TEST_F(TtlProcessTreeTest, ARunningEventAddsTheProcessWithItsParentLinkEvenBeforeTheParentIsKnown)
{
    test::LogCapture log(common::Logging::Edr());
    Start(20, 10, 500);
    EXPECT_TRUE(log.Contains("Ppid: 10 does not exist for process: 20"));
    Start(10, 1, 400);
    Start(30, 10, 600);

    const auto parent = m_tree.GetProcessInfo(10);
    EXPECT_THAT(parent.children, ElementsAre(20, 30)) << "the earlier child is linked when the parent comes";
    const auto child = m_tree.GetProcessInfo(20);
    EXPECT_EQ(child.parentPid, 10);
    EXPECT_EQ(child.creationTime, m_proc.StartTime(500)) << "the start time comes from /proc";
    EXPECT_EQ(child.image.path, "/usr/bin/tool");
    EXPECT_EQ(child.arguments, "/usr/bin/tool --flag");
    EXPECT_EQ(child.priority, 20);
    EXPECT_EQ(child.state, ProcessInfo::State::Sleeping);
    EXPECT_EQ(child.cwd, "") << "a field the event lacks is an empty text";
    EXPECT_EQ(m_tree.Size(), 3u);
}

TEST_F(TtlProcessTreeTest, TheCapturesReadingOfTheStatStandsWithoutASecondRead)
{
    // /proc says otherwise: what capture read for the event wins.
    m_proc.Run(20, 1, 500);
    m_proc.Run(30, 1, 600);
    auto read = Running(20, 1, "/usr/bin/tool");
    read->actorStat = edr::ProcessStat{'R', 1, 5, 700};
    m_tree.AddOrUpdate(*read);
    const auto running = m_tree.GetProcessInfo(20);
    EXPECT_EQ(running.creationTime, m_proc.StartTime(700));
    EXPECT_EQ(running.priority, 5);
    EXPECT_EQ(running.state, ProcessInfo::State::Running);

    // Gone when capture looked: the event's time, not a later /proc answer.
    auto gone = Running(30, 1, "/usr/bin/tool");
    gone->actorStat = std::optional<edr::ProcessStat>{};
    gone->timestamp = 123456;
    m_tree.AddOrUpdate(*gone);
    EXPECT_EQ(m_tree.GetProcessInfo(30).creationTime, 123456);
}

TEST_F(TtlProcessTreeTest, AnExecKeepsTagsAndAChangedParentMovesTheChild)
{
    Start(10, 1, 400);
    Start(11, 1, 401);
    Start(20, 10, 500);
    ASSERT_TRUE(m_tree.AddTag(20, "Persistence", 30));

    test::LogCapture log(common::Logging::Edr());
    m_proc.Run(20, 11, 500);
    m_tree.AddOrUpdate(*Running(20, 11, "/usr/bin/python3"));
    EXPECT_TRUE(log.Contains("Updating Parent of PID: 20Old Parent PID: 10New Parent PID: 11"));
    EXPECT_THAT(m_tree.GetProcessInfo(10).children, IsEmpty());
    EXPECT_THAT(m_tree.GetProcessInfo(11).children, ElementsAre(20));
    const auto process = m_tree.GetProcessInfo(20);
    EXPECT_EQ(process.image.path, "/usr/bin/python3");
    EXPECT_EQ(process.tags.at("Persistence"), 30);
    EXPECT_EQ(process.Score(), 30);
}

TEST_F(TtlProcessTreeTest, AReusedPidNeitherAdoptsTheOldChildrenNorKeepsTheOldEntry)
{
    Start(10, 1, 400);
    Start(20, 10, 500);
    m_tree.Delete(10);
    Start(10, 1, 700);
    EXPECT_THAT(m_tree.GetProcessInfo(10).children, IsEmpty());
    EXPECT_THAT(m_tree.GetAncestors(20), IsEmpty()) << "a parent cannot start after its child";
    m_tree.Delete(20);
    Start(30, 40, 800);
    m_tree.Delete(30);
    Start(40, 1, 900);
    EXPECT_THAT(m_tree.GetProcessInfo(40).children, IsEmpty()) << "a deleted waiting child is forgotten";

    // A pid reused by a new process replaces the old entry with nothing of it.
    Start(20, 1, 500);
    m_tree.AddTag(20, "Execution", 10);
    m_tree.CacheEvent(EventOf(20, 7));

    test::LogCapture log(common::Logging::Edr());
    Start(20, 1, 900);
    EXPECT_TRUE(log.Contains("Reuse of pid detected for 20"));
    EXPECT_THAT(m_tree.GetProcessInfo(20).tags, IsEmpty());
    EXPECT_EQ(m_tree.GetProcessInfo(20).creationTime, m_proc.StartTime(900));
    EXPECT_THAT(m_tree.TakeCachedEvents(20), IsEmpty());
}

TEST_F(TtlProcessTreeTest, CachedEventsComeBackInEventIdOrderOnce)
{
    Start(20, 1, 500);
    for (uint32_t id : {9u, 3u, 5u, 3u})
    {
        EXPECT_TRUE(m_tree.CacheEvent(EventOf(20, id)));
    }
    EXPECT_FALSE(m_tree.CacheEvent(EventOf(21, 1))) << "no such process";
    EXPECT_EQ(m_tree.CachedEventCount(), 3u) << "one event per id";
    test::LogCapture log(common::Logging::Edr());
    std::vector<uint32_t> ids;
    for (const auto& event : m_tree.TakeCachedEvents(20))
    {
        ids.push_back(event->GetEventId());
    }
    EXPECT_THAT(ids, ElementsAre(3u, 5u, 9u));
    EXPECT_TRUE(log.Contains("Adding Events from cache for PID: 20"));
    EXPECT_THAT(m_tree.TakeCachedEvents(20), IsEmpty());
}

TEST_F(TtlProcessTreeTest, TagsVerdictsStatesAndMisuseRefusedWithItsText)
{
    Start(20, 1, 500);
    EXPECT_TRUE(m_tree.AddTag(20, TtlProcessTree::kExcluded));
    EXPECT_TRUE(m_tree.SetVerdict(20, "HashMatching", 5));
    EXPECT_TRUE(m_tree.AddTag(20, TtlProcessTree::kReported));
    EXPECT_FALSE(m_tree.HasTag(20, TtlProcessTree::kExcluded)) << "reporting lifts the exclusion";
    EXPECT_TRUE(m_tree.HasTag(20, TtlProcessTree::kReported));
    EXPECT_EQ(m_tree.GetProcessInfo(20).verdicts.at("HashMatching"), 5);
    EXPECT_FALSE(m_tree.AddTag(99, "x"));
    EXPECT_FALSE(m_tree.SetVerdict(99, "x", 1));

    test::LogCapture log(common::Logging::Edr());
    EXPECT_FALSE(m_tree.RemoveTag(20, "Discovery"));
    EXPECT_TRUE(log.Contains("Failed to remove tag Discovery from process 20"));
    EXPECT_TRUE(m_tree.RemoveTag(20, TtlProcessTree::kReported));

    test::ExpectThrowText<TtlProcessTreeException>([&] { m_tree.GetProcessInfo(21); },
                                                   "ProcessInfo for pid 21 does not exist");
    test::ExpectThrowText<TtlProcessTreeException>([&] { m_tree.GetAncestors(0); },
                                                   "TtlProcessTree::GetAncestors: 'pid' is invalid");
    test::ExpectThrowText<TtlProcessTreeException>([&] { m_tree.Delete(-1); },
                                                   "ProcessTree::Delete: 'pid' is invalid");
    test::ExpectThrowText<TtlProcessTreeException>([&] { m_tree.Delete(21); }, "Process PID: 21 not found.");
    ProcessInfo again;
    again.pid = 20;
    test::ExpectThrowText<TtlProcessTreeException>([&] { m_tree.Add(again); },
                                                   "Process with pid 20 already exists in the process tree");
    test::ExpectThrowText<TtlProcessTreeException>([&] { m_tree.AddOrUpdate(*Running(0, 1, "/bin/x")); },
                                                   "0 cannot be added as actor process information");
}

TEST_F(TtlProcessTreeTest, SiblingsAndTheTaggedKinAStartingProcessMayInheritFrom)
{
    Start(10, 1, 400);
    Start(20, 10, 500);
    Start(21, 10, 510);
    Start(22, 10, 520);
    Start(31, 30, 610); // the parent is not known (yet)
    Start(32, 30, 620);
    EXPECT_THAT(m_tree.GetSiblings(21), ElementsAre(20, 22));
    EXPECT_THAT(m_tree.GetSiblings(31), ElementsAre(32)) << "a shared parent pid makes siblings";
    EXPECT_THAT(m_tree.GetSiblings(99), IsEmpty());

    const auto kin = [&](pid_t pid, bool withSiblings)
    {
        std::vector<pid_t> visited;
        m_tree.VisitTaggedKin(pid, withSiblings, [&](const ProcessInfo& p) { visited.push_back(p.pid); });
        return visited;
    };
    m_tree.MarkTerminated(20);
    m_tree.AddTag(22, TtlProcessTree::kReported);
    EXPECT_THAT(kin(21, true), IsEmpty()) << "states are no tags to inherit";
    m_tree.AddTag(22, "Execution", 5);
    m_tree.AddTag(10, "Persistence", 5);
    m_tree.AddTag(32, "Discovery", 1);
    EXPECT_THAT(kin(21, true), ElementsAre(10, 22));
    EXPECT_THAT(kin(21, false), ElementsAre(10));
    EXPECT_THAT(kin(31, true), ElementsAre(32));
    // What leaves or loses its tags is no longer visited; the others still are.
    m_tree.RemoveTag(10, "Persistence");
    m_tree.Delete(22);
    EXPECT_THAT(kin(21, true), IsEmpty());
    EXPECT_THAT(kin(31, true), ElementsAre(32));
    m_proc.Exit(32);
    Start(32, 30, 900); // a reused pid starts without the old tags
    EXPECT_THAT(kin(31, true), IsEmpty());
    m_tree.AddTag(20, "Execution", 5);
    EXPECT_THAT(kin(21, true), ElementsAre(20));
    // A tagged process that moves to another parent is kin there only.
    Start(20, 30, 500);
    EXPECT_THAT(kin(21, true), IsEmpty());
    EXPECT_THAT(kin(31, true), ElementsAre(20));
}

TEST_F(TtlProcessTreeTest, AncestorsAreTheKnownParentsNearestFirstAndALoopEnds)
{
    Start(10, 1, 400);
    Start(20, 10, 500);
    Start(30, 20, 600);
    EXPECT_THAT(m_tree.GetAncestors(30), ElementsAre(20, 10));
    EXPECT_THAT(m_tree.GetAncestors(99), IsEmpty());

    ProcessInfo a;
    a.pid = 40;
    a.parentPid = 41;
    ProcessInfo b;
    b.pid = 41;
    b.parentPid = 40;
    m_tree.Add(a);
    m_tree.Add(b);
    EXPECT_THAT(m_tree.GetAncestors(40), ElementsAre(41));
}

TEST_F(TtlProcessTreeTest, AnExitedProcessStaysForItsTtlAndSweepsRunAtMostOnceASecond)
{
    Start(10, 1, 400);
    Start(20, 10, 500);
    m_tree.CacheEvent(EventOf(20, 1));
    m_tree.MarkTerminated(20);
    EXPECT_TRUE(m_tree.HasTag(20, TtlProcessTree::kTerminated));

    EXPECT_TRUE(m_tree.DeleteStaleProcesses());
    m_now += 299s;
    EXPECT_TRUE(m_tree.DeleteStaleProcesses());
    EXPECT_TRUE(m_tree.Contains(20)) << "the TTL has not run out";
    m_now += 500ms;
    EXPECT_FALSE(m_tree.DeleteStaleProcesses()) << "less than a second since the last sweep";
    m_now += 500ms;
    m_tree.MarkTerminated(20); // a second exit does not restart the TTL
    test::LogCapture log(common::Logging::Edr());
    EXPECT_TRUE(m_tree.DeleteStaleProcesses());
    EXPECT_FALSE(m_tree.Contains(20));
    EXPECT_TRUE(log.Contains("DeleteStaleProcesses: Deleting ProcessInfo for PID: 20"));
    EXPECT_EQ(m_tree.CachedEventCount(), 0u);
    EXPECT_THAT(m_tree.GetProcessInfo(10).children, IsEmpty());
    EXPECT_TRUE(m_tree.Contains(10)) << "a running process never expires";
}

TEST(IocProcessInfoTest, ReadsTheRunningTestProcessFromProc)
{
    const ioc::internal::ProcReader proc;
    const auto self = ProcessInfo::FromProc(proc, getpid());
    char exe[4096] = {};
    ASSERT_GT(readlink("/proc/self/exe", exe, sizeof(exe) - 1), 0);
    EXPECT_EQ(self.image.path, exe);
    EXPECT_EQ(self.image.inode != 0, true);
    EXPECT_EQ(self.uid, static_cast<int64_t>(getuid()));
    EXPECT_EQ(self.euid, static_cast<int64_t>(geteuid()));
    EXPECT_EQ(self.gid, static_cast<int64_t>(getgid()));
    EXPECT_EQ(self.parentPid, getppid());
    EXPECT_EQ(self.state, ProcessInfo::State::Running);
    EXPECT_FALSE(self.libraries.empty());
    for (const auto& library : self.libraries)
    {
        EXPECT_NE(library.find(".so"), std::string::npos) << library;
    }
    EXPECT_NE(self.arguments.find("TtlProcessTreeTest"), std::string::npos) << self.arguments;
    EXPECT_FALSE(self.cwd.empty());
    test::ExpectThrowText<std::runtime_error>([&] { ProcessInfo::FromProc(proc, 0x7ffffff0); },
                                              "Failed to update process info: ");
}

// The kernel names the interpreter as the executed file when it is run with
// the script as an argument, under whatever name the caller used; only a
// script executed by itself is named.
TEST(IocProcessInfoTest, TheScriptOfAProcessStartIsTheExecutedFileOrTheInterpretersArgument)
{
    const vantor::test::TempDir dir;
    const std::string bash = dir.Path() + "/bash";
    const std::string alias = dir.Path() + "/sh-alias";
    const std::string script = dir.Path() + "/stage.sh";
    for (const auto& file : {bash, script})
    {
        std::ofstream(file) << "#!" << bash << "\n";
    }
    ASSERT_EQ(::link(bash.c_str(), alias.c_str()), 0);
    struct Case
    {
        std::optional<std::string> executed;
        std::vector<std::string> arguments;
        std::string secondary;
    };
    const std::vector<Case> cases{
        {bash, {"bash", "/opt/run.sh"}, "/opt/run.sh"},
        {alias, {"sh-alias", "-x", "/opt/run.sh"}, "/opt/run.sh"},
        {std::nullopt, {"bash", "/opt/run.sh"}, "/opt/run.sh"},
        {script, {bash, script}, script},
        {bash, {"bash", "-c", "echo"}, ""},
    };
    for (const auto& c : cases)
    {
        ioc::test::IocTestEvent event;
        event.type = edr::EventType::Running;
        event.image = bash;
        event.executed = c.executed;
        event.arguments = c.arguments;
        EXPECT_EQ(ProcessInfo::FromEvent(event, 1).secondaryImage.path, c.secondary)
            << c.executed.value_or("(none)") << " " << c.arguments.back();
    }
    EXPECT_EQ(ProcessInfo::ScriptOf("/usr/bin/python3.11", {"python3", "-u", "/opt/x.py", "a"}), "/opt/x.py");
    EXPECT_EQ(ProcessInfo::ScriptOf("/usr/bin/shred", {"shred", "file"}), "") << "no interpreter";
}

} // namespace

TEST(IocImageFileTest, TheInodeFlagsFollowTheFileAtThePath)
{
    const vantor::test::TempDir dir;
    const std::string path = dir.Write("tool", "#!/bin/sh\n");
    const auto before = ioc::ImageFile::FromPath(path);
    int flags = 0;
    {
        const common::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        if (before.fsAttributes.empty() || ::ioctl(fd.Get(), FS_IOC_GETFLAGS, &flags) != 0)
        {
            GTEST_SKIP() << "the file system keeps no inode flags";
        }
        flags |= FS_NOATIME_FL;
        ASSERT_EQ(::ioctl(fd.Get(), FS_IOC_SETFLAGS, &flags), 0);
    }
    char text[16];
    std::snprintf(text, sizeof(text), "%x", static_cast<unsigned>(flags));
    EXPECT_EQ(ioc::ImageFile::FromPath(path).fsAttributes, text) << "changed flags are read again";
    std::filesystem::remove(path);
    dir.Write("tool", "#!/bin/sh\n");
    EXPECT_EQ(ioc::ImageFile::FromPath(path).fsAttributes, before.fsAttributes) << "a new file at the path";
}

TEST(IocProcessInfoTest, StartTimesFromTheStatAndABootTimeThatMovesWithinASecond)
{
    ioc::test::FakeProc fake;
    fake.Run(20, 1, 500, "odd) (name");
    const ioc::internal::ProcReader proc(fake.Root());
    EXPECT_EQ(proc.StartTime(20), fake.StartTime(500)) << "the fields follow the name's last parenthesis";
    {
        test::LogCapture log(common::Logging::Edr());
        std::filesystem::create_directories(fake.Root() + "/21");
        std::ofstream(fake.Root() + "/21/stat") << "21 (sh) S 1 1 1\n";
        EXPECT_EQ(proc.StartTime(21), std::nullopt);
        EXPECT_TRUE(log.Contains("Failed to parse startTime: malformed " + fake.Root() + "/21/stat"));
    }
    fake.SetBootTime(1700000042); // a step of the wall clock moves it
    std::this_thread::sleep_for(1100ms);
    EXPECT_EQ(proc.StartTime(20), fake.StartTime(500));
    fake.Exit(20);
    EXPECT_EQ(proc.StartTime(20), std::nullopt);
}
