#include "common/Logging.h"
#include "tests/src/audit/RecordingEventBuilder.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"

#include "audit/ParserThread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <optional>
#include <thread>

namespace vantor::audit
{
namespace
{

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

std::vector<uint8_t> Bytes(const std::string& text)
{
    return {text.begin(), text.end()};
}

std::vector<uint8_t> CompleteEvent(unsigned long serial)
{
    const std::string stamp = "audit(1700000000.5:" + std::to_string(serial) + "): ";
    return Bytes("type=SYSCALL msg=" + stamp + "arch=c000003e syscall=87 success=yes exit=0 pid=1\n" +
                 "type=EOE msg=" + stamp + "\n");
}

// Collects what the sink receives.
class Sink
{
public:
    ParserThread::EventSink Callback()
    {
        return [this](ParserThread::Events events)
        {
            std::lock_guard lock(m_mutex);
            ++m_calls;
            for (const auto& event : events)
            {
                m_serials.push_back(event->GetEventId());
            }
            m_changed.notify_all();
        };
    }

    bool WaitFor(size_t count, std::chrono::milliseconds timeout)
    {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, timeout, [&] { return m_serials.size() >= count; });
    }

    std::vector<uint32_t> Serials()
    {
        std::lock_guard lock(m_mutex);
        return m_serials;
    }

    size_t Calls()
    {
        std::lock_guard lock(m_mutex);
        return m_calls;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<uint32_t> m_serials;
    size_t m_calls = 0;
};

// Lets the parser thread take one buffer per permit: the CPU check after
// each buffer waits here.
class Gate
{
public:
    double Pass()
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return m_permits > 0; });
        --m_permits;
        return 0.0;
    }
    void Allow(int permits)
    {
        std::lock_guard lock(m_mutex);
        m_permits += permits;
        m_changed.notify_all();
    }
    void Open() { Allow(1 << 20); } // more than any test enqueues

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_permits = 0;
};

bool Eventually(const std::function<bool()>& condition)
{
    return test::Eventually(condition, 5000ms);
}

// A parser thread whose CPU usage the test sets, or that measures none.
class ParserThreadTest : public testing::Test
{
protected:
    ParserThread& Make(bool measured, uint64_t threshold = 50)
    {
        return m_parser.emplace(
            builder, sink.Callback(),
            measured ? ParserThread::CpuUsageSource([this] { return usage.load(); }) : nullptr, threshold);
    }

    test::RecordingEventBuilder builder;
    Sink sink;
    std::atomic<double> usage{80.0};
    test::LogCapture log{common::Logging::Edr()};
    std::optional<ParserThread> m_parser;
};

TEST_F(ParserThreadTest, QueueSizeFollowsTheMemoryBudget)
{
    ParserThread& parser = Make(false, 100);
    EXPECT_EQ(parser.MaxQueueBytes(), 1073741824u);

    const std::vector<std::pair<uint64_t, uint64_t>> cases = {{0, 104857600},
                                                              {20479999, 104857600},
                                                              {20480000, 104857600},
                                                              {100000000, 500000 * 1024ull},
                                                              {209715399, (209715399 / 200) * 1024ull},
                                                              {209715400, 1073741824},
                                                              {UINT64_MAX, 1073741824}};
    for (const auto& [budget, maximum] : cases)
    {
        parser.SetQueueSize(budget);
        EXPECT_EQ(parser.MaxQueueBytes(), maximum) << budget;
        EXPECT_EQ(parser.ResumeThresholdBytes(), maximum / 2) << budget;
    }
    EXPECT_TRUE(log.Contains("Setting parser queue size to 102400"));
    EXPECT_TRUE(log.Contains("Setting parser queue size to 500000"));
}

// A parser thread that takes one buffer per permit of the gate.
class GatedParserTest : public ParserThreadTest
{
protected:
    // Whatever fails, the thread must not stay at the gate.
    ~GatedParserTest() override { gate.Open(); }

    Gate gate;
    ParserThread parser{builder, sink.Callback(), [this] { return gate.Pass(); }, 50};
};

TEST_F(GatedParserTest, TheQueueCountsTheBytesOfTextQueued)
{
    parser.Start();
    parser.Enqueue(CompleteEvent(1));
    // The thread has taken the first buffer and waits at the gate.
    ASSERT_TRUE(Eventually([&] { return parser.QueuedBytes() == 0; }));

    // A chunk read into a large buffer counts as the text it holds.
    std::vector<uint8_t> roomy = CompleteEvent(2);
    const uint64_t text = roomy.size();
    roomy.reserve(64 * 1024);
    parser.Enqueue(std::move(roomy));
    const std::vector<uint8_t> exact = CompleteEvent(3);
    parser.Enqueue(exact);
    EXPECT_EQ(parser.QueuedBytes(), text + exact.size());

    gate.Open();
    ASSERT_TRUE(sink.WaitFor(3, 5000ms));
    EXPECT_EQ(parser.QueuedBytes(), 0u) << "taking a buffer off subtracts the same count";
    parser.Stop();
}

TEST_F(GatedParserTest, BurstDisablesQueueingUntilDrainedBelowHalf)
{
    parser.SetQueueSize(0); // 100 MiB
    const uint64_t maximum = parser.MaxQueueBytes();
    parser.Start();

    // 1 MiB of text each: one line without a record type, which yields no
    // event (a million blank lines would make the sanitizer build's drain
    // outlast the waits below).
    constexpr uint64_t cost = 1024 * 1024;
    const auto bigBuffer = []
    {
        std::vector<uint8_t> text(cost, 'x');
        text.back() = '\n';
        return text;
    };

    parser.Enqueue(bigBuffer());
    // The thread has taken the first buffer and waits at the gate.
    ASSERT_TRUE(Eventually([&] { return parser.QueuedBytes() == 0; }));
    uint64_t highest = 0;
    for (int i = 0; i < 150; ++i)
    {
        parser.Enqueue(bigBuffer());
        highest = std::max(highest, parser.QueuedBytes());
    }
    EXPECT_TRUE(parser.IsQueueingDisabled());
    EXPECT_GE(highest, maximum);
    EXPECT_LE(highest, maximum + cost) << "memory stays bounded";
    EXPECT_EQ(log.Count("Audit parser queue threshold hit. Disabling queueing of events."), 1u);
    const uint64_t refused = 150 - highest / cost;

    // Drained, but not yet to half: still dropping.
    const size_t queued = parser.QueuedBytes() / cost;
    const size_t half = parser.ResumeThresholdBytes() / cost;
    gate.Allow(static_cast<int>(queued - half - 2));
    ASSERT_TRUE(Eventually([&] { return parser.QueuedBytes() == (half + 2) * cost; }));
    parser.Enqueue(bigBuffer());
    EXPECT_EQ(parser.QueuedBytes(), (half + 2) * cost) << "dropped";
    EXPECT_TRUE(parser.IsQueueingDisabled());

    gate.Allow(2);
    ASSERT_TRUE(Eventually([&] { return parser.QueuedBytes() == half * cost; }));
    parser.Enqueue(CompleteEvent(5));
    parser.Enqueue(CompleteEvent(6));
    EXPECT_FALSE(parser.IsQueueingDisabled());
    EXPECT_EQ(log.Count("Enabling the audit parser queue"), 1u);
    EXPECT_EQ(log.Count("Audit parser queue threshold hit"), 1u);
    // Every buffer refused is counted, with its bytes; the ones taken are not.
    CaptureCounters counters;
    parser.AddCounters(counters);
    EXPECT_EQ(counters.queueDroppedBuffers, refused + 1);
    EXPECT_EQ(counters.queueDroppedBytes, (refused + 1) * cost);

    gate.Open();
    // Half the queue (about 50 MiB of blank lines) is parsed first: slow under the sanitizers.
    ASSERT_TRUE(sink.WaitFor(2, 60000ms));
    EXPECT_EQ(sink.Serials(), (std::vector<uint32_t>{5, 6}));
    parser.Stop();
}

TEST_F(ParserThreadTest, HighCpuPausesOncePerSecondAndStopWakesAtOnce)
{
    ParserThread& parser = Make(true);
    const std::string pauseLine =
        "Audit parser thread: Pausing thread as cpu usage (80) is higher than configured threshold (50)";
    parser.Start();

    parser.Enqueue(CompleteEvent(1));
    ASSERT_TRUE(sink.WaitFor(1, 2000ms));
    ASSERT_TRUE(Eventually([&] { return log.Count(pauseLine) == 1; }));
    const auto pausedAt = Clock::now();
    // Enqueueing wakes waiters but does not cut the pause short.
    for (unsigned long serial = 2; serial < 12; ++serial)
    {
        parser.Enqueue(CompleteEvent(serial));
        std::this_thread::sleep_for(200ms);
    }
    const auto lines = log.Count(pauseLine);
    const auto seconds = std::chrono::duration<double>(Clock::now() - pausedAt).count();
    EXPECT_GE(lines, static_cast<size_t>(seconds) - 1) << "about one line a second";
    EXPECT_LE(lines, static_cast<size_t>(seconds) + 2);
    EXPECT_EQ(sink.Serials().size(), 1u) << "nothing is processed while paused";

    usage = 10.0;
    ASSERT_TRUE(sink.WaitFor(11, 3000ms));
    CaptureCounters counters;
    parser.AddCounters(counters);
    EXPECT_EQ(counters.parserCpuPauses, 1u) << "one pause of several seconds";
    EXPECT_GE(counters.parserPausedMs, 1000u);

    // Paused again (after the last buffer or this one): stop must not wait.
    usage = 95.5;
    parser.Enqueue(CompleteEvent(12));
    ASSERT_TRUE(Eventually([&] { return log.Contains("cpu usage (95.5)"); }))
        << testing::PrintToString(log.Lines());
    const auto stopAt = Clock::now();
    parser.Stop();
    EXPECT_LT(Clock::now() - stopAt, 500ms);
    EXPECT_TRUE(log.Contains("Stopping Audit Parser Thread"));
}

TEST_F(ParserThreadTest, QueuedTextIsHandedOnInOneBatchButNotHeldThroughAPause)
{
    ParserThread& parser = Make(true);
    for (unsigned long serial = 1; serial <= 5; ++serial)
    {
        parser.Enqueue(CompleteEvent(serial));
    }
    parser.Start();
    // Text is queued behind the first buffer, yet its event goes on before the pause.
    ASSERT_TRUE(sink.WaitFor(1, 500ms));
    EXPECT_EQ(sink.Serials(), std::vector<uint32_t>{1});

    usage = 10.0;
    ASSERT_TRUE(sink.WaitFor(5, 3000ms));
    EXPECT_EQ(sink.Serials(), (std::vector<uint32_t>{1, 2, 3, 4, 5}));
    EXPECT_EQ(sink.Calls(), 2u) << "the buffers queued together are handed on together";
    parser.Stop();
}

TEST_F(ParserThreadTest, StartsOnceAndHandsOnHeldEventsAtStop)
{
    ParserThread& parser = Make(false);
    parser.Start();
    parser.Start();
    EXPECT_EQ(log.Count("Started Audit Parser Thread"), 1u);
    EXPECT_EQ(log.Count("Audit Parser thread already running"), 1u);

    // Without its end-of-event record the event stays in libauparse, and the
    // last record arrives without its line end.
    auto text = CompleteEvent(30);
    text.resize(text.size() - std::string("type=EOE msg=audit(1700000000.5:30): \n").size() - 1);
    parser.Enqueue(text);
    ASSERT_TRUE(Eventually([&] { return parser.QueuedBytes() == 0; }));
    std::this_thread::sleep_for(50ms);
    EXPECT_TRUE(sink.Serials().empty());
    parser.Stop();
    EXPECT_EQ(sink.Serials(), std::vector<uint32_t>{30});
    EXPECT_FALSE(parser.IsRunning());
}

TEST_F(ParserThreadTest, AQuietStreamHandsOnEventsHeldBackByAnUnfinishedOne)
{
    ParserThread& parser = Make(false, 100);
    parser.Start();
    // An event that never gets its end (a SYSCALL record alone), which
    // would be held until a much newer record came, and a complete event
    // behind it, which goes on at once; nothing more arrives.
    parser.Enqueue(Bytes("type=SYSCALL msg=audit(1700000000.1:40): arch=c000003e syscall=87 success=yes "
                         "exit=0 pid=1\n"));
    auto event = CompleteEvent(41);
    event.resize(event.size() - std::string("type=EOE msg=audit(1700000000.5:41): \n").size());
    const auto proctitle = Bytes("type=PROCTITLE msg=audit(1700000000.5:41): proctitle=7270\n");
    event.insert(event.end(), proctitle.begin(), proctitle.end());
    parser.Enqueue(event);
    EXPECT_TRUE(sink.WaitFor(2, 3000ms)) << "held until the stop";
    EXPECT_EQ(sink.Serials(), (std::vector<uint32_t>{41, 40}));
    parser.Stop();
}

} // namespace
} // namespace vantor::audit
