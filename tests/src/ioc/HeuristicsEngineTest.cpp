// The heuristics engine: which events count as the same behaviour, the
// switch, and the refused maxCount.

#include "ioc/HeuristicsEngine.h"
#include "ioc/TtlProcessTree.h"
#include "tests/src/ioc/FakeProc.h"
#include "tests/src/ioc/IocTestEvent.h"
#include "tests/support/ExpectThrowText.h"

#include <gtest/gtest.h>

using namespace vantor;
using ioc::Verdict;
using ioc::internal::HeuristicsEngine;
using ioc::test::IocTestEvent;

namespace
{

class HeuristicsEngineTest : public testing::Test
{
protected:
    HeuristicsEngineTest()
    {
        Start(1, 0, "/sbin/init");
        Start(2, 0, "/usr/sbin/cron");
        for (const pid_t pid : {10, 11})
        {
            Start(pid, 1, "/usr/bin/tool");
        }
        Start(12, 2, "/usr/bin/tool");
        // Parents that differ from process 1 in one text only.
        Start(3, 0, "/sbin/init", {"/sbin/init", "--other"});
        Start(4, 0, "/sbin/init2", {"/sbin/init", "--run"});
        Start(13, 3, "/usr/bin/tool");
        Start(14, 4, "/usr/bin/tool");
        // A parent the tree does not know: the lineage is one process long.
        Start(15, 99, "/usr/bin/tool");
    }

    void Start(pid_t pid, pid_t parent, const std::string& image, std::vector<std::string> arguments = {})
    {
        if (arguments.empty())
        {
            arguments = {image, "--run"};
        }
        m_tree.AddOrUpdate(ioc::test::RunningEvent(pid, parent, image, std::move(arguments)));
    }

    Verdict Judge(const IocTestEvent& event)
    {
        return m_engine.GetVerdict(std::make_shared<IocTestEvent>(event));
    }

    ioc::test::FakeProc m_proc;
    ioc::TtlProcessTree m_tree{m_proc.Root()};
    HeuristicsEngine m_engine{m_tree, true, 1};
};

IocTestEvent Connect(pid_t pid, const std::string& address, uint16_t port)
{
    return ioc::test::By(pid, ioc::test::NetworkEvent(edr::EventType::Connect, address, port));
}

IocTestEvent Write(pid_t pid, const std::string& path)
{
    return ioc::test::By(pid, ioc::test::FileEvent(edr::EventType::Write, path));
}

TEST_F(HeuristicsEngineTest, OneBehaviourIsOneEventOfOneCommandLineageWhateverItsPids)
{
    const std::vector<std::tuple<const char*, IocTestEvent, IocTestEvent, bool>> cases{
        {"same connection", Connect(10, "10.0.0.1", 443), Connect(10, "10.0.0.1", 443), true},
        {"other port", Connect(10, "10.0.0.1", 443), Connect(10, "10.0.0.1", 80), false},
        {"other address", Connect(10, "10.0.0.1", 443), Connect(10, "10.0.0.2", 443), false},
        {"other file", Write(10, "/tmp/a"), Write(10, "/tmp/b"), false},
        {"another run of the command", Write(10, "/tmp/a"), Write(11, "/tmp/a"), true},
        {"the command under another parent", Write(10, "/tmp/a"), Write(12, "/tmp/a"), false},
        {"a parent with other arguments", Write(10, "/tmp/a"), Write(13, "/tmp/a"), false},
        {"a parent with another image", Write(10, "/tmp/a"), Write(14, "/tmp/a"), false},
        {"a shorter lineage", Write(10, "/tmp/a"), Write(15, "/tmp/a"), false},
        {"an unknown process", Write(10, "/tmp/a"), Write(77, "/tmp/a"), false},
        {"other kind of event", Write(10, "/tmp/a"),
         ioc::test::By(10, ioc::test::ProcessEvent(edr::EventType::Exit, "/usr/bin/tool")), false}};
    for (const auto& [name, first, second, same] : cases)
    {
        m_engine.Reconfigure(true, 1);
        EXPECT_EQ(Judge(first), Verdict::Unknown) << name;
        EXPECT_EQ(Judge(second), same ? Verdict::Clean : Verdict::Unknown) << name;
    }
    EXPECT_EQ(m_tree.GetProcessInfo(11).verdicts.at(HeuristicsEngine::kVerdictKey),
              static_cast<int>(Verdict::Clean));
}

TEST_F(HeuristicsEngineTest, AProcessThatRunsAnotherCommandLineCountsUnderItsNewLineage)
{
    EXPECT_EQ(Judge(Write(10, "/tmp/a")), Verdict::Unknown);
    Start(10, 1, "/usr/bin/tool", {"/usr/bin/tool", "--again"});
    EXPECT_EQ(Judge(Write(10, "/tmp/a")), Verdict::Unknown) << "a new behaviour";
    EXPECT_EQ(Judge(Write(10, "/tmp/a")), Verdict::Clean);
    EXPECT_EQ(Judge(Write(11, "/tmp/a")), Verdict::Clean) << "the old lineage keeps its count";
    Start(1, 0, "/sbin/init", {"/sbin/init", "--single"});
    EXPECT_EQ(Judge(Write(11, "/tmp/a")), Verdict::Unknown) << "an ancestor ran another command line";
}

TEST_F(HeuristicsEngineTest, SwitchedOffItCountsNothingAndAZeroMaxCountChangesNothing)
{
    m_engine.Reconfigure(false);
    EXPECT_EQ(Judge(Write(10, "/tmp/a")), Verdict::Unknown);
    EXPECT_EQ(Judge(Write(10, "/tmp/a")), Verdict::Unknown);
    EXPECT_EQ(m_engine.GetCacheSize(), 0u);

    const std::string zero = "maxCount cannot be set to 0 on the heuristics engine";
    test::ExpectThrowText<std::invalid_argument>([&] { HeuristicsEngine engine(m_tree, true, 0); }, zero);
    m_engine.Reconfigure(true, 1);
    Judge(Write(10, "/tmp/a"));
    test::ExpectThrowText<std::invalid_argument>([&] { m_engine.Reconfigure(false, 0); }, zero);
    EXPECT_EQ(Judge(Write(10, "/tmp/a")), Verdict::Clean) << "settings and counts stay";
}

} // namespace
