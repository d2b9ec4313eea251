#include "common/TaskQueue.h"
#include "common/Logging.h"
#include "tests/support/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

namespace vantor::common
{
namespace
{

using namespace std::chrono_literals;
using ::testing::ElementsAre;

TEST(TaskQueueTest, RunsTasksInOrderOnItsThreadAndTimedOnesWhenDue)
{
    test::LogCapture capture(Logging::Edr());
    TaskQueue queue("TestQueue");
    std::mutex mutex;
    std::vector<int> order;
    const auto record = [&](int n)
    {
        std::lock_guard lock(mutex);
        order.push_back(n);
    };
    std::promise<std::thread::id> ran;
    const auto start = TaskQueue::SteadyClock::now();
    queue.PostAt(start + 60ms, [&] { record(3); });
    queue.Post([&] { record(1); });
    queue.Post([] { throw std::runtime_error("boom"); });
    queue.Post([&] { ran.set_value(std::this_thread::get_id()); });
    queue.Post([&] { record(2); });
    EXPECT_NE(ran.get_future().get(), std::this_thread::get_id());
    std::this_thread::sleep_for(150ms);
    {
        std::lock_guard lock(mutex);
        EXPECT_THAT(order, ElementsAre(1, 2, 3));
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

} // namespace
} // namespace vantor::common
