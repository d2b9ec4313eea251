#include "ioc/SnapshotDeletes.h"
#include "ioc/SnapshotSqlDataFormatter.h"
#include "ioc/TtlProcessRow.h"
#include "ioc/TtlProcessTree.h"
#include "tests/src/audit/TestEvent.h"
#include "tests/src/ioc/FakeProc.h"
#include "tests/src/ioc/SnapshotDatabase.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include "common/Logging.h"
#include "common/SqlStorage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

using namespace vantor;
using namespace std::chrono_literals;
using ioc::ProcessInfo;
using ioc::TtlProcessTree;
using ioc::internal::SnapshotSqlDataFormatter;
using ioc::internal::TtlProcessRow;
using ioc::test::SnapshotDatabase;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

class TtlProcessSnapshotTest : public testing::Test
{
protected:
    TtlProcessSnapshotTest() { m_proc.Run(1, 0, 1, "init"); }

    std::unique_ptr<common::SqlStorage> Open()
    {
        return std::make_unique<common::SqlStorage>(m_dir.Path(), "SnapshotEdr.db",
                                                    std::make_unique<SnapshotSqlDataFormatter>(), false);
    }
    std::unique_ptr<TtlProcessTree> MakeTree()
    {
        return std::make_unique<TtlProcessTree>(m_proc.Root(), 300s, [this] { return m_now; });
    }
    ProcessInfo Running(pid_t pid, pid_t parentPid, uint64_t startTicks)
    {
        m_proc.Run(pid, parentPid, startTicks);
        ProcessInfo process;
        process.pid = pid;
        process.parentPid = parentPid;
        process.creationTime = m_proc.StartTime(startTicks);
        process.arguments = "/bin/tool 'quoted' arg";
        process.image.path = "/bin/tool";
        return process;
    }
    // A tree of init, 10 and its children 20 and 30, saved.
    void SaveFamily()
    {
        auto tree = MakeTree();
        tree->Add(Running(10, 1, 400));
        tree->Add(Running(20, 10, 500));
        tree->Add(Running(30, 10, 600));
        tree->AddTag(20, "Persistence", 30);
        tree->AddTag(20, TtlProcessTree::kReported);
        tree->AddTag(30, "Execution", 5);
        auto storage = Open();
        ASSERT_TRUE(tree->Save(*storage));
    }
    SnapshotDatabase Db() { return SnapshotDatabase(m_dir.File("SnapshotEdr.db")); }
    std::vector<std::string> StoredPids()
    {
        return Db().Column("SELECT ProcessID FROM TtlProcesses ORDER BY ProcessID");
    }

    test::TempDir m_dir;
    ioc::test::FakeProc m_proc;
    std::chrono::steady_clock::time_point m_now{std::chrono::hours(1)};
};

TEST_F(TtlProcessSnapshotTest, ARestartKeepsTagsAndParentsAndExitedProcessesExpireEvenPastAFailedSave)
{
    SaveFamily();
    EXPECT_THAT(Db().Column("SELECT ProcessID || ' ' || Children || ' ' || Score || ' ' || Tags FROM "
                            "TtlProcesses ORDER BY ProcessID"),
                ElementsAre("1 10 0 {}", "10 20,30 0 {}", "20  30 {\"Persistence\":30,\"Reported\":0}",
                            "30  5 {\"Execution\":5}"))
        << "process 1 is always saved, for reboot detection";
    m_proc.Exit(30);
    test::LogCapture log(common::Logging::Edr());
    auto tree = MakeTree();
    auto storage = Open();
    tree->Load(*storage);
    EXPECT_TRUE(log.Contains("Loading up processes from TtlProcesses table."));
    EXPECT_TRUE(log.Contains("ProcessID: 30 exited."));
    EXPECT_EQ(tree->Size(), 4u);
    EXPECT_THAT(tree->GetProcessInfo(10).children, ElementsAre(20, 30));
    EXPECT_EQ(tree->GetProcessInfo(20).tags.at("Persistence"), 30);
    EXPECT_TRUE(tree->HasTag(20, TtlProcessTree::kReported));
    EXPECT_EQ(tree->GetProcessInfo(20).arguments, "/bin/tool 'quoted' arg");
    EXPECT_TRUE(tree->HasTag(30, TtlProcessTree::kTerminated));
    EXPECT_FALSE(tree->HasTag(20, TtlProcessTree::kTerminated));

    // The exited process expires and its row goes at the next save; a
    // failed save keeps the tree and the rows to delete for the next one.
    m_now += 301s;
    EXPECT_TRUE(tree->DeleteStaleProcesses());
    Db().Run("ALTER TABLE TtlProcesses RENAME TO Elsewhere");
    EXPECT_FALSE(tree->Save(*storage));
    EXPECT_TRUE(log.Contains("Failed to update 'TtlProcesses' table in snapshot DB."));
    EXPECT_EQ(tree->Size(), 3u);
    EXPECT_EQ(tree->GetProcessInfo(20).tags.at("Persistence"), 30);
    Db().Run("ALTER TABLE Elsewhere RENAME TO TtlProcesses");
    EXPECT_TRUE(tree->Save(*storage));
    EXPECT_THAT(StoredPids(), ElementsAre("1", "10", "20"));
}

TEST_F(TtlProcessSnapshotTest, APidReusedWhileStoppedInheritsNothingAndAfterARebootTheTableIsCleared)
{
    SaveFamily();
    m_proc.Run(20, 1, 9000);
    test::LogCapture log(common::Logging::Edr());
    auto tree = MakeTree();
    auto storage = Open();
    tree->Load(*storage);
    EXPECT_TRUE(log.Contains("20 creation time from SnapshotDB differs with Proc creation time"));
    EXPECT_FALSE(tree->Contains(20));
    EXPECT_THAT(tree->GetProcessInfo(10).children, ElementsAre(30));
    EXPECT_TRUE(tree->Save(*storage));
    EXPECT_THAT(StoredPids(), ElementsAre("1", "10", "30")) << "the old row goes";

    m_proc.SetBootTime(1700003600);
    log.Channel().Clear();
    auto rebooted = MakeTree();
    rebooted->Load(*Open());
    EXPECT_EQ(rebooted->Size(), 0u);
    EXPECT_EQ(log.Count("Start time for PID: 1 Process: "), 1u);
    EXPECT_EQ(log.Count(" differs from stored start time."), 1u);
    EXPECT_TRUE(log.Contains("System reboot detected. Clearing the TtlProcessTree."));
    EXPECT_TRUE(log.Contains("Successfully cleared TtlProcesses table from sql storage"));
    EXPECT_THAT(StoredPids(), IsEmpty());
}

TEST_F(TtlProcessSnapshotTest, TheColumnTextsReadBack)
{
    EXPECT_EQ(TtlProcessRow::FormatChildren({}), "");
    EXPECT_EQ(TtlProcessRow::ParseChildren(TtlProcessRow::FormatChildren({3, 12, 4711})),
              (std::set<pid_t>{3, 12, 4711}));
    test::LogCapture log(common::Logging::Edr());
    EXPECT_EQ(TtlProcessRow::ParseChildren("3,x,-4,5"), (std::set<pid_t>{3, 5}));
    EXPECT_TRUE(log.Contains("Child pid x is deformed in db."));
    const std::map<std::string, int64_t> tags{{"a\"b,c", -2}, {"T1059", 40}};
    EXPECT_EQ(TtlProcessRow::ParseTags(TtlProcessRow::FormatTags(tags)), tags);
    EXPECT_THAT(TtlProcessRow::ParseTags(""), IsEmpty());
    EXPECT_EQ(TtlProcessRow::ParseTags(R"({"Persistence":"high","Discovery":4})"),
              (std::map<std::string, int64_t>{{"Discovery", 4}}));
    EXPECT_TRUE(log.Contains("Tag value \"high\" is deformed in db."));
    EXPECT_THAT(TtlProcessRow::ParseTags("Execution=5"), IsEmpty());
    EXPECT_TRUE(log.Contains("Tag value Execution=5 is deformed in db."));
    // A damaged row nested deeper than a recursive parse or write could bear.
    const std::size_t depth = 1'000'000;
    const std::string deep = std::string(depth, '[') + std::string(depth, ']');
    EXPECT_EQ(TtlProcessRow::ParseTags(R"({"T1059":40,"deep":)" + deep + "}"),
              (std::map<std::string, int64_t>{{"T1059", 40}}));
    EXPECT_TRUE(log.Contains("Tag value (nested too deep) is deformed in db."));
    EXPECT_THAT(TtlProcessRow::ParseTags(R"({"deep":)" + deep), IsEmpty());
}

// A save killed at any point (SIGKILL, no chance to clean up) must leave a
// database that opens and loads: SQLite's transaction either happened or
// did not.
TEST_F(TtlProcessSnapshotTest, ASaveKilledHalfWayLeavesADatabaseThatOpensAndLoads)
{
    SaveFamily();
    for (const auto delay : {0ms, 7ms, 30ms})
    {
        int ready[2];
        ASSERT_EQ(pipe(ready), 0);
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0)
        {
            close(ready[0]);
            // Saves a big tree over and over until killed.
            TtlProcessTree tree(m_proc.Root());
            for (pid_t pid = 100; pid < 20100; ++pid)
            {
                ProcessInfo process;
                process.pid = pid;
                process.parentPid = pid - 1;
                process.arguments = std::string(200, 'a');
                process.tags = {{"Execution", pid}};
                tree.Add(process);
            }
            auto storage = Open();
            tree.Save(*storage);
            // From here on the child is always inside a save.
            (void)!write(ready[1], "x", 1);
            for (;;)
            {
                tree.Save(*storage);
                tree.AddTag(100, "Round", 1);
            }
        }
        close(ready[1]);
        char byte = 0;
        ASSERT_EQ(read(ready[0], &byte, 1), 1) << "the child saved once";
        close(ready[0]);
        std::this_thread::sleep_for(delay);
        ASSERT_EQ(kill(child, SIGKILL), 0);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status));

        auto tree = MakeTree();
        std::unique_ptr<common::SqlStorage> storage;
        ASSERT_NO_THROW(storage = Open()) << "after " << delay.count() << " ms";
        tree->Load(*storage);
        const auto rows = StoredPids().size();
        EXPECT_EQ(rows, 20004u) << "every save wrote the same rows";
        EXPECT_TRUE(tree->Contains(10));
        EXPECT_TRUE(tree->Contains(20099));
    }
}

TEST_F(TtlProcessSnapshotTest, ASaveWritesOnlyTheRowsThatChanged)
{
    auto tree = MakeTree();
    tree->Add(Running(10, 1, 400));
    auto storage = Open();
    ASSERT_TRUE(tree->Save(*storage));
    Db().Run("DELETE FROM TtlProcesses WHERE ProcessID = 10");
    EXPECT_TRUE(tree->Save(*storage));
    EXPECT_THAT(StoredPids(), ElementsAre("1")) << "nothing was written";
    tree->CacheEvent(std::make_shared<test::TestEvent>());
    tree->SetVerdict(10, "Heuristics", 4);
    EXPECT_TRUE(tree->Save(*storage));
    EXPECT_THAT(StoredPids(), ElementsAre("1")) << "events and verdicts are not stored";
    tree->AddTag(10, "Discovery", 2);
    EXPECT_TRUE(tree->Save(*storage));
    EXPECT_THAT(StoredPids(), ElementsAre("1", "10"));

    // A change writes its own row, and its parent's when the children
    // changed, not the whole tree.
    tree->Add(Running(20, 1, 500));
    ASSERT_TRUE(tree->Save(*storage));
    Db().Run("DELETE FROM TtlProcesses WHERE ProcessID <> 20");
    tree->Add(Running(30, 10, 600));
    EXPECT_TRUE(tree->Save(*storage));
    EXPECT_THAT(StoredPids(), ElementsAre("10", "20", "30"));
    EXPECT_EQ(Db().Column("SELECT Children FROM TtlProcesses WHERE ProcessID = 10"),
              std::vector<std::string>{"30"});
}

TEST_F(TtlProcessSnapshotTest, ASaveDeletesTheRowsOfAllProcessesThatLeftAndNoOther)
{
    auto tree = MakeTree();
    // More than one delete statement's worth.
    const pid_t last = 100 + static_cast<pid_t>(ioc::internal::SnapshotDeletes::kKeysPerStatement) + 1;
    for (pid_t pid = 100; pid <= last; ++pid)
    {
        ProcessInfo process;
        process.pid = pid;
        process.parentPid = 1;
        tree->Add(process);
    }
    auto storage = Open();
    ASSERT_TRUE(tree->Save(*storage));
    for (pid_t pid = 101; pid < last; ++pid)
    {
        tree->Delete(pid);
    }
    EXPECT_TRUE(tree->Save(*storage));
    EXPECT_THAT(StoredPids(), ElementsAre("1", "100", std::to_string(last)));
}

} // namespace
