// The IOC processing thread: events run in queue order on the thread's own
// name, a full queue drops and counts what does not fit and says so once
// per episode, and a stop processes what is queued before the last pass.

#include "ioc/ProcessingThread.h"
#include "ioc/EventProcessor.h"
#include "ioc/TtlProcessTree.h"
#include "tests/src/ioc/FakeProc.h"
#include "tests/src/ioc/IocTestEvent.h"
#include "tests/src/ioc/ScriptedEngine.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"

#include "common/Logging.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <pthread.h>

#include <future>
#include <mutex>

using namespace vantor;
using namespace std::chrono_literals;
using ioc::internal::ProcessingThread;
using testing::ElementsAre;

namespace
{

class ProcessingThreadTest : public testing::Test
{
protected:
    ProcessingThreadTest()
    {
        // Every event is judged worth reporting, so each reaches the sink.
        m_hash.verdict = ioc::Verdict::Unknown;
    }

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
    ioc::test::ScriptedEngine m_filtering, m_hash, m_heuristics, m_tagging;
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

TEST_F(ProcessingThreadTest, EventsRunInQueueOrderOnTheProcessingThread)
{
    ProcessingThread thread(m_processor, {});
    thread.Start();
    for (uint32_t id = 1; id <= 3; ++id)
    {
        ASSERT_TRUE(thread.Enqueue(Event(id)));
    }
    ASSERT_TRUE(test::Eventually([&] { return Reported().size() == 3; }, 5s));
    EXPECT_THAT(Reported(), ElementsAre(1u, 2u, 3u));
    std::lock_guard lock(m_mutex);
    EXPECT_THAT(m_threadNames, testing::Each(std::string("EdrProcessingTh")));
}

TEST_F(ProcessingThreadTest, AFullQueueHoldsTheProducerBackUntilTheWorkerTakesIt)
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

} // namespace
