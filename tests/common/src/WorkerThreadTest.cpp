#include "common/WorkerThread.h"
#include "common/Logging.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>

namespace vantor::common
{
namespace
{

using namespace std::chrono_literals;

constexpr auto kPatience = 3000ms;

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
}

TEST(WorkerThreadTest, ExceptionsAreLoggedAndNeverReachTheOwner)
{
    test::LogCapture capture(Logging::Edr());
    WorkerThread worker("Thrower");
    worker.Start([] { throw std::runtime_error("boom"); });
    EXPECT_NO_THROW(worker.Join());
    EXPECT_TRUE(capture.Contains("Uncaught exception in Thrower. Exception:boom"));

    worker.Start([] { throw 42; });
    EXPECT_NO_THROW(worker.Join());
    EXPECT_TRUE(capture.Contains("Uncaught exception in Thrower. Exception:unknown"));
    EXPECT_FALSE(worker.Joinable());
}

TEST(WorkerThreadTest, DestructionJoinsARunningThread)
{
    std::atomic<bool> finished{false};
    {
        WorkerThread worker("Slow");
        worker.Start(
            [&]
            {
                std::this_thread::sleep_for(50ms);
                finished = true;
            });
    }
    EXPECT_TRUE(finished) << "the thread outlived its owner";
}

TEST(WorkerThreadTest, RestartCollectsTheEndedThreadAndSelfJoinIsRefused)
{
    WorkerThread worker("Twice");
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
}

TEST(WorkerThreadTest, OwnerDestroyedByItsOwnThreadLetsItFinish)
{
    std::atomic<bool> finished{false};
    auto* worker = new WorkerThread("SelfDestroying");
    worker->Start(
        [&]
        {
            delete worker;
            finished = true;
        });
    EXPECT_TRUE(test::Eventually([&] { return finished.load(); }, kPatience));
}

} // namespace
} // namespace vantor::common
