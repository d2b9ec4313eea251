// The event processor: which events reach the engines, when an event is
// reported, cached or dropped, the order of cached events, heuristics
// dropping repeated runs, and failures that end only their own event.

#include "ioc/EventProcessor.h"
#include "ioc/HeuristicsEngine.h"
#include "ioc/TtlProcessTree.h"
#include "tests/src/ioc/FakeProc.h"
#include "tests/src/ioc/IocTestEvent.h"
#include "tests/src/ioc/ScriptedEngine.h"
#include "tests/support/LogCapture.h"

#include "common/Logging.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace vantor;
using namespace std::chrono_literals;
using ioc::TtlProcessTree;
using ioc::Verdict;
using ioc::test::IocTestEvent;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

using EventPtr = std::shared_ptr<const edr::Event>;

class EventProcessorTest : public testing::Test
{
protected:
    EventProcessorTest() { Use(m_filtering, m_heuristics); }

    void Use(ioc::internal::Engine& filtering, ioc::internal::Engine& heuristics)
    {
        m_processor = std::make_unique<ioc::internal::EventProcessor>(
            m_tree, filtering, m_hash, heuristics, m_tagging,
            [this](const EventPtr& event)
            {
                if (m_sinkFails)
                {
                    throw std::runtime_error("no room");
                }
                m_reported.push_back(event->GetEventId());
            },
            [this] { ++m_sweeps; }, [this] { return m_now; });
    }

    static IocTestEvent Event(edr::EventType type, pid_t pid, uint32_t id)
    {
        auto event = ioc::test::By(pid, ioc::test::FileEvent(type, "/tmp/file"));
        event.id = id;
        return event;
    }

    static IocTestEvent Running(pid_t pid, pid_t parent, uint32_t id,
                                const std::string& image = "/usr/bin/tool",
                                std::vector<std::string> arguments = {})
    {
        auto event = ioc::test::RunningEvent(pid, parent, image, std::move(arguments));
        event.id = id;
        return event;
    }

    void Process(const IocTestEvent& event) { m_processor->Process(std::make_shared<IocTestEvent>(event)); }

    std::vector<uint32_t> TakeReported() { return std::exchange(m_reported, {}); }

    ioc::test::FakeProc m_proc;
    std::chrono::steady_clock::time_point m_now{1h};
    TtlProcessTree m_tree{m_proc.Root(), 300s, [this] { return m_now; }};
    ioc::test::ScriptedEngine m_filtering;
    ioc::test::ScriptedEngine m_hash;
    ioc::test::ScriptedEngine m_heuristics;
    ioc::test::ScriptedEngine m_tagging;
    std::unique_ptr<ioc::internal::EventProcessor> m_processor;
    std::vector<uint32_t> m_reported;
    bool m_sinkFails = false;
    int m_sweeps = 0;
};

TEST_F(EventProcessorTest, AnUnsuccessfulEventReachesNoEngineAndNoProcess)
{
    test::LogCapture log(common::Logging::Edr());
    auto start = Running(10, 1, 5);
    start.successful = false;
    Process(start);
    EXPECT_TRUE(log.Contains("Dropping unsuccessful Test event with ID 5"));
    for (const auto* engine : {&m_filtering, &m_hash, &m_heuristics, &m_tagging})
    {
        EXPECT_THAT(engine->seen, IsEmpty());
    }
    EXPECT_FALSE(m_tree.Contains(10));
}

TEST_F(EventProcessorTest, TheHashVerdictDecidesFirstAndTaggingOnlyWhenItDoesNot)
{
    struct Case
    {
        Verdict hash;
        Verdict tagging;
        edr::EventType type;
        bool reported;
        bool marked;
        bool tagged;
    };
    const Case cases[]{
        {Verdict::Unknown, Verdict::Clean, edr::EventType::Write, true, true, false},
        {Verdict::Malicious, Verdict::Clean, edr::EventType::Write, true, true, false},
        {Verdict::CleanWithoutHash, Verdict::Clean, edr::EventType::Running, true, false, false},
        {Verdict::CleanWithoutHash, Verdict::Clean, edr::EventType::Write, false, false, true},
        {Verdict::Clean, Verdict::Suspicious, edr::EventType::Write, true, true, true},
        {Verdict::Clean, Verdict::CleanWithoutHash, edr::EventType::Running, false, false, true}};
    pid_t pid = 100;
    for (const auto& c : cases)
    {
        SCOPED_TRACE(testing::Message() << "case of pid " << ++pid);
        test::LogCapture log(common::Logging::Edr());
        m_tree.AddOrUpdate(Running(pid, 1, 1));
        m_hash.verdict = c.hash;
        m_tagging.verdict = c.tagging;
        m_tagging.seen.clear();
        auto event = c.type == edr::EventType::Running ? Running(pid, 1, 2) : Event(c.type, pid, 2);
        Process(event);
        EXPECT_EQ(TakeReported(), c.reported ? std::vector<uint32_t>{2} : std::vector<uint32_t>{});
        EXPECT_EQ(m_tree.HasTag(pid, TtlProcessTree::kReported), c.marked);
        EXPECT_EQ(m_tagging.seen.empty(), !c.tagged);
        EXPECT_EQ(log.Contains("Ignoring Test event for clean process with pid " + std::to_string(pid)),
                  !c.reported);
    }
    EXPECT_EQ(m_tree.CachedEventCount(), 2u) << "what is not reported waits in the cache";
}

TEST_F(EventProcessorTest, CachedEventsAreReportedInIdOrderWithTheirProcess)
{
    m_hash.verdict = Verdict::Clean;
    m_tagging.verdict = Verdict::Clean;
    Process(Running(10, 1, 1));
    for (const uint32_t id : {7, 3, 5})
    {
        Process(Event(edr::EventType::Write, 10, id));
    }
    EXPECT_THAT(m_reported, IsEmpty());

    m_tagging.verdict = Verdict::Suspicious;
    Process(Event(edr::EventType::Read, 10, 9));
    EXPECT_THAT(TakeReported(), ElementsAre(1, 3, 5, 7, 9));
    EXPECT_THAT(m_filtering.seen, ElementsAre(1, 3, 5, 7, 9));

    // A reported process's events go at once; what was left in its cache
    // goes first.
    m_tagging.verdict = Verdict::Clean;
    m_tree.CacheEvent(std::make_shared<IocTestEvent>(Event(edr::EventType::Write, 10, 14)));
    m_tree.CacheEvent(std::make_shared<IocTestEvent>(Event(edr::EventType::Write, 10, 12)));
    test::LogCapture log(common::Logging::Edr());
    Process(Event(edr::EventType::Write, 10, 16));
    EXPECT_THAT(TakeReported(), ElementsAre(12, 14, 16));
    EXPECT_TRUE(log.Contains("Processing pending Event: Test. Event ID: 12. PID: 10"));
    EXPECT_EQ(m_tree.CachedEventCount(), 0u);

    auto reuse = Running(10, 1, 20);
    reuse.timestamp = 99000;
    Process(reuse);
    EXPECT_THAT(TakeReported(), IsEmpty()) << "a reused pid is another process";
}

TEST_F(EventProcessorTest, AFailureEndsOnlyItsOwnEvent)
{
    m_tree.AddOrUpdate(Running(10, 1, 1));
    const std::vector<std::pair<std::function<void()>, std::string>> failures{
        {[this] { m_hash.before = [] { throw ioc::TtlProcessTreeException("gone"); }; },
         "TTL exception: gone"},
        {[this] { m_hash.before = [] { throw std::runtime_error("bad"); }; }, "Failed to process event: bad"},
        {[this] { m_sinkFails = true; }, "Failed to generate protobuf: no room"}};
    uint32_t id = 10;
    for (const auto& [fail, message] : failures)
    {
        SCOPED_TRACE(message);
        test::LogCapture log(common::Logging::Edr());
        fail();
        Process(Event(edr::EventType::Write, 10, ++id));
        EXPECT_TRUE(log.Contains(message));
        m_hash.before = nullptr;
        m_sinkFails = false;
        Process(Event(edr::EventType::Write, 10, ++id));
        EXPECT_THAT(TakeReported(), testing::Contains(id));
    }
}

TEST_F(EventProcessorTest, TheEleventhRunOfACommandByOneParentWithinADayIsDropped)
{
    ioc::internal::HeuristicsEngine heuristics(m_tree, true, ioc::internal::HeuristicsEngine::kMaxCount,
                                               [this] { return m_now; });
    Use(m_filtering, heuristics);
    m_tree.AddOrUpdate(Running(100, 1, 1, "/bin/bash"));
    m_tree.AddOrUpdate(Running(101, 1, 1, "/bin/sh"));
    pid_t pid = 200;
    const auto run = [&](pid_t parent, const char* flag)
    {
        Process(Running(++pid, parent, 1, "/usr/bin/ls", {"ls", flag}));
        return !TakeReported().empty();
    };
    for (int day = 0; day < 2; ++day)
    {
        SCOPED_TRACE(day);
        test::LogCapture log(common::Logging::Edr());
        for (int i = 1; i <= 10; ++i)
        {
            EXPECT_TRUE(run(100, "-l")) << "run " << i;
        }
        EXPECT_FALSE(run(100, "-l"));
        EXPECT_TRUE(
            log.Contains("Dropping Test event for process " + std::to_string(pid) + " based on heuristics"));
        EXPECT_FALSE(run(100, "-l"));
        EXPECT_TRUE(run(100, "-a")) << "another command";
        EXPECT_TRUE(run(101, "-l")) << "another parent";
        m_now += 24h + 1ns;
    }
}

TEST_F(EventProcessorTest, AnExitEndsItsProcessWhichASweepRemovesAfterItsTimeToLive)
{
    m_tree.AddOrUpdate(Running(10, 1, 1));
    Process(Event(edr::EventType::Exit, 10, 2));
    EXPECT_TRUE(m_tree.HasTag(10, TtlProcessTree::kTerminated));
    const int sweeps = m_sweeps;

    m_now += 301s;
    Process(Event(edr::EventType::Write, 20, 3));
    EXPECT_FALSE(m_tree.Contains(10));
    EXPECT_EQ(m_sweeps, sweeps + 1);
    Process(Event(edr::EventType::Write, 20, 4));
    EXPECT_EQ(m_sweeps, sweeps + 1) << "at most one sweep a second";
}

} // namespace
