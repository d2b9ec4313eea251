#include "common/Scheduler.h"
#include "common/AsyncTask.h"
#include "common/CircularBuffer.h"
#include "common/Logging.h"
#include "common/PeriodicSchedule.h"
#include "common/SynchronizedQueue.h"
#include "common/TaskQueue.h"
#include "common/ThreadedClass.h"
#include "common/WorkerThread.h"
#include "tests/common/src/CommonTestHelpers.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

using namespace vantor::common;
using namespace std::chrono_literals;
using vantor::test::ErrorOf;
using vantor::test::Eventually;
using vantor::test::LogCapture;

namespace
{

// A schedule that is due every time the scheduler looks, until told otherwise.
class CountingSchedule : public Schedule
{
public:
    explicit CountingSchedule(bool throws = false)
        : m_throws(throws)
    {
    }
    bool IsDue(SystemTimePoint) const override { return true; }
    SystemTimePoint NextDue() const override { return std::chrono::system_clock::now() + 20ms; }
    void Execute() override
    {
        ++runs;
        if (m_throws)
        {
            throw std::runtime_error("boom");
        }
    }
    std::atomic<int> runs{0};

private:
    bool m_throws;
};

TEST(SchedulerTest, RegistrationErrors)
{
    Scheduler scheduler;
    auto schedule = std::make_shared<CountingSchedule>();
    EXPECT_EQ(ErrorOf([&] { scheduler.RegisterSchedule(nullptr); }),
              "RegisterSchedule: 'schedule' cannot be null");
    scheduler.RegisterSchedule(schedule);
    EXPECT_EQ(ErrorOf([&] { scheduler.RegisterSchedule(schedule); }),
              "RegisterSchedule: 'schedule' already exists");
    EXPECT_EQ(scheduler.EntryCount(), 1u);
    scheduler.UnregisterSchedule(schedule);
    EXPECT_EQ(ErrorOf([&] { scheduler.UnregisterSchedule(schedule); }),
              "UnregisterSchedule: 'schedule' is not registered");
    scheduler.Start();
    EXPECT_EQ(ErrorOf([&] { scheduler.Start(); }),
              "Start: Start cannot be called when the Scheduler is running");
    scheduler.Stop();
}

// Idle, the scheduler sleeps for a day: only the registration wakes it.
TEST(SchedulerTest, WakesOnRegistrationAndAThrowingOrDestroyedScheduleStopsNoOther)
{
    Scheduler scheduler;
    scheduler.Start();
    std::this_thread::sleep_for(20ms);
    auto failing = std::make_shared<CountingSchedule>(true);
    auto healthy = std::make_shared<CountingSchedule>();
    auto released = std::make_shared<CountingSchedule>();
    scheduler.RegisterSchedule(failing);
    scheduler.RegisterSchedule(released);
    scheduler.RegisterSchedule(healthy);
    released.reset(); // its owner lets go without unregistering
    EXPECT_TRUE(Eventually([&] { return failing->runs >= 3 && healthy->runs >= 3; }, 3s));
    EXPECT_TRUE(Eventually([&] { return scheduler.EntryCount() == 2; }, 3s));
    const auto before = std::chrono::steady_clock::now();
    scheduler.Stop();
    EXPECT_LT(std::chrono::steady_clock::now() - before, 1s);
}

class TickSchedule : public PeriodicSchedule
{
public:
    TickSchedule(std::chrono::seconds interval, Clock clock)
        : PeriodicSchedule(interval, std::move(clock))
    {
    }
    int runs = 0;

protected:
    void Run() override
    {
        ++runs;
        throw std::runtime_error("upload failed");
    }
};

TEST(PeriodicScheduleTest, DueOnceAnIntervalAfterRegistrationAndAfterAFailedRun)
{
    SystemTimePoint now{std::chrono::seconds(1'000'000)};
    TickSchedule tick(60s, [&now] { return now; });
    tick.InitializeNextScheduleTime();
    EXPECT_FALSE(tick.IsDue(now));
    EXPECT_EQ(tick.NextDue(), now + 60s);
    now += 60s;
    EXPECT_TRUE(tick.IsDue(now));
    EXPECT_THROW(tick.Execute(), std::runtime_error);
    EXPECT_EQ(tick.runs, 1);
    EXPECT_FALSE(tick.IsDue(now)) << "a failed run waits for its next time";
    EXPECT_EQ(tick.NextDue(), now + 60s);
}

class BlockingTask : public AsyncTask
{
public:
    ~BlockingTask() override { Stop(); }
    std::atomic<int> runs{0};
    std::atomic<bool> sawCancel{false};
    int throws = 0; // 1: a std::exception, 2: anything else

protected:
    void DoWork() override
    {
        ++runs;
        if (throws == 1)
        {
            throw std::runtime_error("work failed");
        }
        if (throws == 2)
        {
            throw 7;
        }
        while (!IsCancelling())
        {
            std::this_thread::sleep_for(2ms);
        }
        sawCancel = true;
    }
};

TEST(AsyncTaskTest, OneExecutionAtATimeAndStopWaitsForIt)
{
    BlockingTask task;
    EXPECT_TRUE(task.Launch());
    EXPECT_FALSE(task.Launch()) << "a second launch while running is refused";
    EXPECT_TRUE(Eventually([&] { return task.runs == 1; }, 3s));
    task.Stop();
    EXPECT_TRUE(task.sawCancel);
    EXPECT_EQ(task.GetState(), AsyncTask::State::Idle);
    task.Stop(); // idle: returns at once

    // A throwing execution ends as idle and does not block the next one.
    for (int kind : {1, 2})
    {
        task.throws = kind;
        EXPECT_TRUE(task.Launch()) << kind;
        EXPECT_TRUE(Eventually([&] { return task.GetState() == AsyncTask::State::Idle; }, 3s));
    }
    EXPECT_EQ(task.runs, 3);
}

class Worker : public ThreadedClass
{
public:
    Worker()
        : ThreadedClass("TestWorker")
    {
    }
    ~Worker() override { Stop(); }
    std::atomic<int> loops{0};
    bool throwAtStart = false;
    bool stopItself = false;

protected:
    void Run() override
    {
        if (throwAtStart)
        {
            throw std::runtime_error("worker failed");
        }
        if (stopItself)
        {
            Stop(); // from its own worker: a request to stop, never a hang
        }
        while (!IsStopping())
        {
            ++loops;
            std::this_thread::sleep_for(1ms);
        }
    }
};

TEST(ThreadedClassTest, StartStopAndContainedException)
{
    Worker worker;
    worker.Start();
    worker.Start(); // already running: only logged
    EXPECT_TRUE(Eventually([&] { return worker.loops > 0; }, 3s));
    worker.Stop();
    EXPECT_FALSE(worker.IsRunning());

    // A worker that fails at once and one that stops itself both end; only
    // the second's Stop, a join from its own thread, is refused and logged.
    LogCapture capture(Logging::Edr());
    for (bool Worker::*flag : {&Worker::throwAtStart, &Worker::stopItself})
    {
        Worker ending;
        ending.*flag = true;
        ending.Start();
        EXPECT_TRUE(Eventually([&] { return !ending.IsRunning(); }, 3s));
        ending.Stop();
    }
    EXPECT_TRUE(capture.Contains("Uncaught exception when stopping TestWorker."));
}

TEST(SynchronizedQueueTest, PopErrorsAndPopAll)
{
    SynchronizedQueue<int> q;
    EXPECT_EQ(ErrorOf([&] { q.Pop(); }), "Cannot pop from an empty SynchronizedQueue");
    EXPECT_EQ(ErrorOf([&] { q.PopAll(); }), "Cannot pop all from an empty SynchronizedQueue");
    for (int i = 0; i < 100; ++i)
    {
        q.Push(std::make_shared<int>(i));
    }
    EXPECT_EQ(*q.Pop(), 0);
    auto rest = q.PopAll();
    ASSERT_EQ(rest.size(), 99u);
    EXPECT_EQ(*rest.back(), 99);
    EXPECT_EQ(q.Size(), 0u);
    EXPECT_FALSE(q.WaitForData(10ms));
}

// A busy consumer is woken by the push that makes its batch, not before.
TEST(SynchronizedQueueTest, AConsumerWaitingForMoreIsWokenByTheBatchNotByEachPush)
{
    SynchronizedQueue<int> q;
    std::atomic<bool> returned{false};
    std::thread consumer(
        [&]
        {
            EXPECT_TRUE(q.WaitForMore(30s, 3));
            returned = true;
        });
    q.Push(std::make_shared<int>(1));
    q.Push(std::make_shared<int>(2));
    std::this_thread::sleep_for(100ms);
    EXPECT_FALSE(returned) << "two of three elements woke the consumer";
    const auto third = std::chrono::steady_clock::now();
    q.Push(std::make_shared<int>(3));
    consumer.join();
    EXPECT_LT(std::chrono::steady_clock::now() - third, 10s) << "the third element did not wake the consumer";
}

// Only the push that ends the emptiness signals: a consumer that drained the
// queue and waits again must still be woken by the next push at once.
TEST(SynchronizedQueueTest, AWaitingConsumerIsWokenByEachPushToAnEmptyQueue)
{
    SynchronizedQueue<int> q;
    std::atomic<int> taken{0};
    std::atomic<bool> stop{false};
    std::thread consumer(
        [&]
        {
            while (!stop)
            {
                if (q.WaitForData(30s))
                {
                    taken += static_cast<int>(q.PopAll().size());
                }
            }
        });
    bool allTaken = true;
    for (int burst = 0; burst < 30 && allTaken; ++burst)
    {
        for (int i = 0; i < 10; ++i)
        {
            if (burst % 2 == 0)
            {
                q.Push(std::make_shared<int>(i));
            }
            else
            {
                EXPECT_TRUE(q.TryPush(std::make_shared<int>(i), 1000));
            }
        }
        // The consumer waits 30 s at a time: only a wake-up gets it here.
        allTaken = Eventually([&] { return taken == (burst + 1) * 10; }, 3s);
    }
    stop = true;
    q.Wake();
    consumer.join();
    EXPECT_TRUE(allTaken) << "a push left the waiting consumer asleep";
}

TEST(CircularBufferTest, OverwritingAndRefusingBuffers)
{
    CircularBuffer<int> ring(3);
    for (int i = 1; i <= 5; ++i)
    {
        ring.Insert(i);
    }
    EXPECT_EQ(ring.Size(), 3u);
    EXPECT_EQ(ring.Pop(), 3) << "the two oldest were overwritten";
    EXPECT_EQ(ring.At(1), 5);

    CircularBuffer<int> strict(2, false);
    strict.Insert(1);
    strict.Insert(2);
    EXPECT_EQ(ErrorOf([&] { strict.Insert(3); }), "Cannot insert into a full Circular buffer");
    strict.Pop();
    strict.Pop();
    EXPECT_EQ(ErrorOf([&] { strict.Pop(); }), "Cannot pop from an empty Circular buffer");
}

TEST(TaskQueueTest, RunsTasksInOrderOnItsThreadAndTimedOnesWhenDue)
{
    LogCapture capture(Logging::Edr());
    TaskQueue queue("TestQueue");
    std::mutex mutex;
    std::vector<int> order;
    const auto record = [&](int n)
    {
        std::lock_guard lock(mutex);
        order.push_back(n);
    };
    std::promise<std::thread::id> ran;
    queue.PostAt(TaskQueue::SteadyClock::now() + 60ms, [&] { record(3); });
    queue.Post([&] { record(1); });
    queue.Post([] { throw std::runtime_error("boom"); });
    queue.Post([&] { ran.set_value(std::this_thread::get_id()); });
    queue.Post([&] { record(2); });
    EXPECT_NE(ran.get_future().get(), std::this_thread::get_id());
    std::this_thread::sleep_for(150ms);
    {
        std::lock_guard lock(mutex);
        EXPECT_THAT(order, testing::ElementsAre(1, 2, 3));
    }
    EXPECT_TRUE(capture.Contains("TestQueue: Task failed: boom"))
        << "a failing task is logged, the queue goes on";
    EXPECT_THROW(queue.Post({}), std::invalid_argument);
}

TEST(TaskQueueTest, ShutdownRunsQueuedTasksDropsTimedOnesAndRefusesLaterOnes)
{
    TaskQueue queue("Draining");
    std::atomic<int> ran{0};
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    queue.Post([released] { released.wait(); });
    for (int i = 0; i < 5; ++i)
    {
        queue.Post([&] { ++ran; });
    }
    bool timedRan = false;
    queue.PostAt(TaskQueue::SteadyClock::now() + 1h, [&] { timedRan = true; });
    std::thread releaser(
        [&]
        {
            std::this_thread::sleep_for(30ms);
            release.set_value();
        });
    queue.Shutdown();
    releaser.join();
    EXPECT_EQ(ran, 5) << "queued work was lost at shutdown";
    EXPECT_FALSE(timedRan);
    EXPECT_FALSE(queue.Post([] {}));
    EXPECT_FALSE(queue.PostAt(TaskQueue::SteadyClock::now(), [] {}));
    queue.Shutdown(); // twice is harmless
}

TEST(WorkerThreadTest, RunsTheBodyOnItsOwnThreadAndJoinWaitsForIt)
{
    WorkerThread worker("TestWorker");
    EXPECT_FALSE(worker.Joinable());
    worker.Join(); // nothing owned: returns at once

    std::atomic<bool> current{false};
    std::atomic<bool> finished{false};
    std::thread::id bodyThread;
    worker.Start(
        [&]
        {
            current = worker.IsCurrent();
            bodyThread = std::this_thread::get_id();
            std::this_thread::sleep_for(30ms);
            finished = true;
        });
    EXPECT_TRUE(worker.Joinable());
    EXPECT_FALSE(worker.IsCurrent());
    worker.Join();
    EXPECT_TRUE(finished) << "Join returned before the body ended";
    EXPECT_TRUE(current);
    EXPECT_NE(bodyThread, std::this_thread::get_id());
    EXPECT_FALSE(worker.Joinable());

    // Destruction joins a thread that is still running.
    finished = false;
    {
        WorkerThread slow("Slow");
        slow.Start(
            [&]
            {
                std::this_thread::sleep_for(50ms);
                finished = true;
            });
    }
    EXPECT_TRUE(finished) << "the thread outlived its owner";
}

TEST(WorkerThreadTest, ExceptionsAreLoggedRestartCollectsTheEndedThreadAndSelfJoinIsRefused)
{
    LogCapture capture(Logging::Edr());
    WorkerThread worker("Thrower");
    worker.Start([] { throw std::runtime_error("boom"); });
    EXPECT_NO_THROW(worker.Join());
    EXPECT_TRUE(capture.Contains("Uncaught exception in Thrower. Exception:boom"));
    worker.Start([] { throw 42; });
    EXPECT_NO_THROW(worker.Join());
    EXPECT_TRUE(capture.Contains("Uncaught exception in Thrower. Exception:unknown"));
    EXPECT_FALSE(worker.Joinable());

    std::atomic<int> runs{0};
    worker.Start([&] { ++runs; });
    worker.Start([&] { ++runs; }); // the first one is collected first
    worker.Join();
    EXPECT_EQ(runs, 2);

    std::atomic<bool> refused{false};
    worker.Start(
        [&]
        {
            try
            {
                worker.Join();
            }
            catch (const std::logic_error&)
            {
                refused = true;
            }
        });
    worker.Join();
    EXPECT_TRUE(refused) << "a thread joining itself would wait for ever";

    // An owner destroyed by its own thread lets that thread finish.
    std::atomic<bool> finished{false};
    auto* owner = new WorkerThread("SelfDestroying");
    owner->Start(
        [&]
        {
            delete owner;
            finished = true;
        });
    EXPECT_TRUE(Eventually([&] { return finished.load(); }, 3s));
}

} // namespace
