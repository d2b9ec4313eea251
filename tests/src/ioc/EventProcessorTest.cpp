#include "ioc/EventProcessor.h"
#include "ioc/FilteringEngine.h"
#include "ioc/HashMatchingEngine.h"
#include "ioc/HeuristicsEngine.h"
#include "ioc/NetworkRule.h"
#include "ioc/ProcessingThread.h"
#include "ioc/TtlProcessTree.h"
#include "tests/src/ioc/FakeProc.h"
#include "tests/src/ioc/IocTestEvent.h"
#include "tests/src/ioc/IocTestJson.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include "common/Logging.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <pthread.h>

#include <atomic>
#include <future>
#include <mutex>
#include <thread>

using namespace vantor;
using namespace std::chrono_literals;
using ioc::TtlProcessTree;
using ioc::Verdict;
using ioc::internal::EventProcessor;
using ioc::internal::FilteringEngine;
using ioc::internal::HashMatchingEngine;
using ioc::internal::HeuristicsEngine;
using ioc::internal::NetworkRule;
using ioc::internal::ProcessingThread;
using ioc::test::IocTestEvent;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

// An engine that answers what the test scripts and records the ids of the
// events it was asked about.
class ScriptedEngine : public ioc::internal::Engine
{
public:
    Verdict verdict = Verdict::Unknown;
    std::function<void()> before;

    Verdict GetVerdict(const EventPtr& event) override
    {
        std::lock_guard lock(m_mutex);
        seen.push_back(event->GetEventId());
        if (before)
        {
            before();
        }
        return verdict;
    }

    std::vector<uint32_t> seen;
};

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
    ScriptedEngine m_filtering, m_hash, m_heuristics, m_tagging;
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

class ProcessingThreadTest : public testing::Test
{
protected:
    std::shared_ptr<const edr::Event> Event(uint32_t id)
    {
        auto event = ioc::test::By(4242, ioc::test::NetworkEvent(edr::EventType::Connect, "10.0.0.1", 80));
        event.id = id;
        return std::make_shared<ioc::test::IocTestEvent>(event);
    }

    // Closes the sink's gate, starts the thread and gives it event 1, which
    // it then holds in the sink: the queue fills behind it. Setting the
    // answered promise opens the gate.
    std::promise<void> HoldTheWorkerOnEvent1(ProcessingThread& thread)
    {
        std::promise<void> open;
        m_gate = open.get_future().share();
        thread.Start();
        EXPECT_TRUE(thread.Enqueue(Event(1)));
        EXPECT_TRUE(test::Eventually([&] { return thread.QueuedCount() == 0; }, 5s));
        return open;
    }

    std::vector<uint32_t> Reported()
    {
        std::lock_guard lock(m_mutex);
        return m_reported;
    }

    ioc::test::FakeProc m_proc;
    ioc::TtlProcessTree m_tree{m_proc.Root()};
    ScriptedEngine m_filtering, m_hash, m_heuristics, m_tagging;
    std::mutex m_mutex;
    std::vector<uint32_t> m_reported;
    std::vector<std::string> m_threadNames;
    std::shared_future<void> m_gate = []
    {
        std::promise<void> open;
        open.set_value();
        return open.get_future().share();
    }();
    ioc::internal::EventProcessor m_processor{m_tree,
                                              m_filtering,
                                              m_hash,
                                              m_heuristics,
                                              m_tagging,
                                              [this](const auto& event)
                                              {
                                                  m_gate.wait();
                                                  char name[16] = {};
                                                  pthread_getname_np(pthread_self(), name, sizeof name);
                                                  std::lock_guard lock(m_mutex);
                                                  m_reported.push_back(event->GetEventId());
                                                  m_threadNames.emplace_back(name);
                                              }};
};

TEST_F(ProcessingThreadTest, EventsRunInOrderOnTheProcessingThreadAndAFullQueueHoldsTheProducerBack)
{
    ProcessingThread thread(m_processor, {}, 2, 1, 30s);
    auto open = HoldTheWorkerOnEvent1(thread);
    ASSERT_TRUE(thread.Enqueue(Event(2)));
    ASSERT_TRUE(thread.Enqueue(Event(3)));
    auto held = std::async(std::launch::async, [&] { return thread.Enqueue(Event(4)); });
    EXPECT_EQ(held.wait_for(200ms), std::future_status::timeout) << "the producer went on past a full queue";
    open.set_value();
    ASSERT_EQ(held.wait_for(5s), std::future_status::ready);
    EXPECT_TRUE(held.get());
    ASSERT_TRUE(test::Eventually([&] { return Reported().size() == 4; }, 5s));
    EXPECT_THAT(Reported(), ElementsAre(1u, 2u, 3u, 4u));
    EXPECT_EQ(thread.DroppedCount(), 0u);
    std::lock_guard lock(m_mutex);
    EXPECT_THAT(m_threadNames, testing::Each(std::string("EdrProcessingTh")));
}

TEST_F(ProcessingThreadTest, AQueueThatStaysFullDropsAndCountsAndLogsOncePerEpisode)
{
    test::LogCapture log(common::Logging::Edr());
    ProcessingThread thread(m_processor, {}, 4, 2, 20ms);
    auto open = HoldTheWorkerOnEvent1(thread);
    for (uint32_t id = 2; id <= 9; ++id)
    {
        EXPECT_EQ(thread.Enqueue(Event(id)), id <= 5) << id;
    }
    EXPECT_EQ(thread.DroppedCount(), 4u);
    EXPECT_EQ(log.Count("IOC processing queue is full"), 1u);

    open.set_value();
    ASSERT_TRUE(test::Eventually([&] { return Reported().size() == 5; }, 5s));
    EXPECT_THAT(Reported(), ElementsAre(1u, 2u, 3u, 4u, 5u));
    EXPECT_TRUE(test::Eventually([&] { return log.Contains("4 dropped while it was full"); }, 5s));
    EXPECT_TRUE(thread.Enqueue(Event(10)));
}

TEST_F(ProcessingThreadTest, StopProcessesWhatIsQueuedBeforeTheLastPass)
{
    std::vector<std::string> passes;
    ProcessingThread thread(
        m_processor,
        [&](bool stopping)
        {
            std::lock_guard lock(m_mutex);
            passes.push_back(stopping ? "last pass after " + std::to_string(m_reported.size()) : "pass");
        });
    auto open = HoldTheWorkerOnEvent1(thread);
    ASSERT_TRUE(thread.Enqueue(Event(2)));
    ASSERT_TRUE(thread.Enqueue(Event(3)));
    auto stopped = std::async(std::launch::async, [&] { thread.Stop(); });
    open.set_value();
    stopped.get();
    EXPECT_THAT(Reported(), ElementsAre(1u, 2u, 3u));
    std::lock_guard lock(m_mutex);
    ASSERT_FALSE(passes.empty());
    EXPECT_EQ(passes.back(), "last pass after 3");
}

// Meant for the sanitizer builds, which see the races a plain build hides.
TEST(VerdictChainConcurrencyTest, EnginesAreReconfiguredWhileEventsAreProcessed)
{
    test::TempDir dir;
    const std::string tool = dir.Write("tool", "#!/bin/sh\n");
    ioc::test::FakeProc proc;
    ioc::TtlProcessTree tree(proc.Root());
    FilteringEngine filtering(tree);
    HashMatchingEngine hashMatching(tree);
    HeuristicsEngine heuristics(tree, true);
    ScriptedEngine tagging;
    std::atomic<uint64_t> reported{0};
    EventProcessor processor(tree, filtering, hashMatching, heuristics, tagging,
                             [&](const auto&) { ++reported; });

    const auto connects =
        std::make_shared<const FilteringEngine::Rules>(FilteringEngine::Rules{std::make_shared<NetworkRule>(
            ioc::test::Json(R"({"ruleId": "c", "ruleType": "Network", "notify": ["establish"]})"))});
    const auto none = std::make_shared<const FilteringEngine::Rules>();
    std::atomic<bool> done{false};
    std::atomic<int> updates{0};
    std::thread updater(
        [&]
        {
            for (int i = 0; !done; ++i, ++updates)
            {
                filtering.SetRules(i % 2 == 0 ? connects : none);
                hashMatching.Reset(i % 2 == 0 ? std::vector<std::string>{tool} : std::vector<std::string>{},
                                   1024);
                heuristics.Reconfigure(i % 3 != 0);
            }
        });

    while (updates.load() == 0)
    {
        std::this_thread::yield();
    }
    constexpr pid_t kProcesses = 50;
    for (uint32_t id = 1; id <= 3000 || updates.load() < 100; ++id)
    {
        const pid_t pid = 100 + static_cast<pid_t>(id % kProcesses);
        IocTestEvent event;
        if (id <= kProcesses)
        {
            event = ioc::test::ProcessEvent(edr::EventType::Running, tool);
            event.ppid = 100;
        }
        else if (id % 2 == 0)
        {
            event =
                ioc::test::NetworkEvent(edr::EventType::Connect, "10.0.0.1", static_cast<uint16_t>(id % 7));
        }
        else
        {
            event = ioc::test::FileEvent(edr::EventType::Write, tool);
        }
        event.pid = pid;
        event.id = id;
        processor.Process(std::make_shared<IocTestEvent>(event));
    }
    done = true;
    updater.join();
    EXPECT_EQ(tree.Size(), static_cast<size_t>(kProcesses));

    // The last configuration holds for the next events: a connection of a
    // process the chain has not seen is reported.
    filtering.SetRules(connects);
    hashMatching.Reset({}, 1024);
    heuristics.Reconfigure(false);
    const uint64_t before = reported.load();
    auto start = ioc::test::RunningEvent(999, 1, tool);
    start.id = 1;
    processor.Process(std::make_shared<IocTestEvent>(start));
    auto connect = ioc::test::By(999, ioc::test::NetworkEvent(edr::EventType::Connect, "10.0.0.1", 1));
    connect.id = 2;
    processor.Process(std::make_shared<IocTestEvent>(connect));
    EXPECT_EQ(reported.load() - before, 1u);
}

} // namespace
