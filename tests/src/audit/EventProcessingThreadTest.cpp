#include "tests/src/audit/TestEvent.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"

#include "audit/EventProcessingThread.h"
#include "common/Logging.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <map>
#include <mutex>
#include <thread>

namespace vantor::audit
{
namespace
{

using edr::EventRule;
using edr::EventType;
using test::MakeEvent;
using Events = EventProcessingThread::Events;

// The event processor of a rule engine with one file rule, handing what
// matches to one handler.
class TestProcessor
{
public:
    TestProcessor() { m_router.AddRoute("rule", {"tag", EventRule::FilePathRule, {}, {"/watched/file"}}); }

    AuditEventProcessor& Get() { return m_processor; }
    // Set before the thread starts.
    void SetHandler(std::function<void(edr::Event&)> handler) { m_handler = std::move(handler); }

private:
    EventRouter m_router;
    std::function<void(edr::Event&)> m_handler;
    AuditEventProcessor m_processor{nullptr, 99, m_router,
                                    [this](const AuditEventProcessor::Tags&, edr::Event& event)
                                    {
                                        if (m_handler)
                                        {
                                            m_handler(event);
                                        }
                                    }};
};

std::unique_ptr<edr::Event> Event(uint64_t timestamp, uint32_t serial)
{
    auto event = MakeEvent(EventType::Write, 0, serial);
    event->timestamp = timestamp;
    return event;
}

// Count events of one timestamp, serials counting up from first.
Events Batch(uint64_t timestamp, uint32_t first, uint32_t count = 1)
{
    Events events;
    for (uint32_t i = 0; i < count; ++i)
    {
        events.push_back(Event(timestamp, first + i));
    }
    return events;
}

bool WaitFor(const std::function<bool()>& done)
{
    return test::Eventually(done, std::chrono::seconds(5));
}

TEST(EventProcessingThreadSortTest, BatchIsOrderedByTimestampThenSerialAcrossTheWrap)
{
    using Order = std::vector<std::pair<uint64_t, uint32_t>>;
    const struct
    {
        const char* name;
        Order input;
        Order expected;
    } cases[] = {
        {"across the wrap",
         {{2000, 7}, {1000, 5}, {1000, 4294967295U}, {1000, 4294967290U}, {500, 9}, {2000, 3}},
         {{500, 9}, {1000, 4294967290U}, {1000, 4294967295U}, {1000, 5}, {2000, 3}, {2000, 7}}},
        // Without serials near both ends there is no wrap.
        {"plain", {{1000, 300000}, {1000, 10}}, {{1000, 10}, {1000, 300000}}},
        {"a pseudo event (serial 0) stays after the event it followed",
         {{1000, 12}, {1000, 0}, {1000, 11}},
         {{1000, 11}, {1000, 12}, {1000, 0}}},
    };
    for (const auto& c : cases)
    {
        Events batch;
        for (const auto& [timestamp, serial] : c.input)
        {
            batch.push_back(Event(timestamp, serial));
        }
        EventProcessingThread::SortBatch(batch);
        Order order;
        for (const auto& event : batch)
        {
            order.emplace_back(event->GetTimestamp(), event->GetEventId());
        }
        EXPECT_EQ(order, c.expected) << c.name;
    }
}

TEST(EventProcessingThreadTest, QueueSizeFollowsTheMemoryBudget)
{
    TestProcessor processor;
    EventProcessingThread thread(processor.Get(), 100, {});
    test::LogCapture log(common::Logging::Edr());
    const std::vector<std::pair<uint64_t, size_t>> cases{
        {0, 10000}, {33333, 10000}, {40000, 12000}, {333333, 99999}, {333334, 100000}, {10000000, 100000}};
    for (const auto& [budget, expected] : cases)
    {
        thread.SetQueueSize(budget);
        EXPECT_EQ(thread.GetQueueSize(), expected) << budget;
    }
    EXPECT_TRUE(log.Contains("Setting processing queue size to 12000 events"));
}

class EventProcessingThreadFlowTest : public testing::Test
{
protected:
    TestProcessor m_processor;
    test::LogCapture m_log{common::Logging::Edr()};
};

TEST_F(EventProcessingThreadFlowTest, AFullQueueBlocksTheProducerAndLosesNothing)
{
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::promise<void> firstTaken;
    std::atomic<size_t> handled{0};
    m_processor.SetHandler(
        [&](edr::Event& event)
        {
            if (event.GetEventId() == 1)
            {
                firstTaken.set_value();
                released.wait(); // the worker is busy with this batch
            }
            ++handled;
        });
    EventProcessingThread thread(m_processor.Get(), 100, {});
    thread.SetQueueSize(0); // 10,000 events
    thread.Start();
    thread.Enqueue(Batch(1, 1));
    ASSERT_EQ(firstTaken.get_future().wait_for(std::chrono::seconds(5)), std::future_status::ready);

    thread.Enqueue(Batch(2, 2, 10000)); // fills the buffer, does not block yet

    auto producer = std::async(std::launch::async, [&] { thread.Enqueue(Batch(3, 20000, 2)); });
    EXPECT_EQ(producer.wait_for(std::chrono::milliseconds(300)), std::future_status::timeout);
    EXPECT_EQ(m_log.Count("Processing queue threshold hit. Stopped adding events to que"), 1U);
    EXPECT_FALSE(m_log.Contains("Enabling the processing queue"));

    release.set_value();
    ASSERT_EQ(producer.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    WaitFor([&] { return handled.load() >= 10003; });
    thread.Stop();
    EXPECT_EQ(handled.load(), 10003U);
    EXPECT_EQ(m_log.Count("Processing queue threshold hit. Stopped adding events to que"), 1U);
    EXPECT_EQ(m_log.Count("Enabling the processing queue"), 1U);
}

TEST_F(EventProcessingThreadFlowTest, StopLeavesTheRestOfABatchAndReleasesABlockedProducer)
{
    std::atomic<size_t> handled{0};
    m_processor.SetHandler(
        [&](edr::Event&)
        {
            ++handled;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        });
    EventProcessingThread thread(m_processor.Get(), 100, {});
    thread.SetQueueSize(0);            // 10,000 events
    thread.Enqueue(Batch(1, 1, 5000)); // one batch of about five seconds
    thread.Start();
    WaitFor([&] { return handled.load() > 0; });
    thread.Enqueue(Batch(2, 10000, 10000));
    auto producer = std::async(std::launch::async, [&] { thread.Enqueue(Batch(3, 30000)); });
    EXPECT_EQ(producer.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);

    const auto started = std::chrono::steady_clock::now();
    thread.Stop();
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(1));
    EXPECT_LT(handled.load(), 5000U);
    EXPECT_EQ(producer.wait_for(std::chrono::seconds(1)), std::future_status::ready);
    // What was not handled is counted as dropped at the stop: the rest of
    // the batch, the queue and the late producer's event.
    CaptureCounters counters;
    thread.AddCounters(counters);
    EXPECT_EQ(counters.droppedAtStop + handled.load(), 15001U);
}

TEST_F(EventProcessingThreadFlowTest, SpentEventsAreDestroyedByTheProducerOrAfterAShortWait)
{
    struct TracedEvent : test::TestEvent
    {
        std::function<void(uint32_t)> gone;
        ~TracedEvent() override { gone(id); }
    };
    std::mutex mutex;
    std::map<uint32_t, std::thread::id> destroyers; // by serial
    const auto batch = [&](std::initializer_list<uint32_t> serials)
    {
        Events events;
        for (const uint32_t serial : serials)
        {
            auto event = std::make_unique<TracedEvent>();
            event->id = serial;
            event->gone = [&](uint32_t id)
            {
                std::lock_guard lock(mutex);
                destroyers[id] = std::this_thread::get_id();
            };
            events.push_back(std::move(event));
        }
        return events;
    };
    // A default id: not destroyed yet.
    const auto destroyer = [&](uint32_t serial)
    {
        std::lock_guard lock(mutex);
        return destroyers[serial];
    };
    std::atomic<size_t> handled{0};
    std::thread::id worker;
    m_processor.SetHandler(
        [&](edr::Event&)
        {
            worker = std::this_thread::get_id();
            ++handled;
        });
    EventProcessingThread thread(m_processor.Get(), 100, {});
    thread.Start();
    std::thread::id producer;
    std::async(std::launch::async,
               [&]
               {
                   producer = std::this_thread::get_id();
                   thread.Enqueue(batch({1, 2}));
                   ASSERT_TRUE(WaitFor([&] { return handled == 2; }));
                   // Well within the worker's wait for a producer.
                   std::this_thread::sleep_for(std::chrono::milliseconds(50));
                   EXPECT_EQ(destroyer(1), std::thread::id()) << "kept until the producer comes back";
                   thread.Enqueue(batch({3}));
               })
        .get();
    EXPECT_EQ(destroyer(1), producer);
    EXPECT_EQ(destroyer(2), producer);
    // No producer comes back: the worker destroys the last batch itself.
    ASSERT_TRUE(WaitFor([&] { return destroyer(3) != std::thread::id(); }));
    EXPECT_EQ(destroyer(3), worker);

    // Stop destroys what waits for a producer.
    thread.Enqueue(batch({4}));
    ASSERT_TRUE(WaitFor([&] { return handled == 4; }));
    thread.Stop();
    EXPECT_EQ(destroyer(4), std::this_thread::get_id());
}

TEST_F(EventProcessingThreadFlowTest, HighCpuUsePausesProcessing)
{
    std::atomic<int> samples{0};
    std::atomic<bool> busy{true};
    std::atomic<int> handled{0};
    m_processor.SetHandler([&](edr::Event&) { ++handled; });
    EventProcessingThread thread(m_processor.Get(), 50,
                                 [&]
                                 {
                                     ++samples;
                                     return busy.load() ? 80.0F : 10.0F;
                                 });
    thread.Start();
    thread.Enqueue(Batch(1, 1));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(handled.load(), 0);
    EXPECT_GE(samples.load(), 3) << "usage is measured again every 10 ms";
    busy = false;
    WaitFor([&] { return handled.load() > 0; });
    EXPECT_EQ(handled.load(), 1);
    CaptureCounters counters;
    thread.AddCounters(counters);
    EXPECT_EQ(counters.processingCpuPauses, 1U);
    EXPECT_GE(counters.processingPausedMs, 90U);

    // Stop is not held up by a pause.
    busy = true;
    thread.Enqueue(Batch(2, 2));
    const auto before = std::chrono::steady_clock::now();
    thread.Stop();
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(2));
}

} // namespace
} // namespace vantor::audit
