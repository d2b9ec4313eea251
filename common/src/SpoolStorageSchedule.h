#pragma once

#include "common/Schedule.h"
#include "common/ThreadedClass.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>

namespace vantor::common
{

// The spool's schedule and task queue. Registered with the Scheduler, it
// syncs the spool's cache every interval; all spool work (writes, flushes,
// clean-ups, renames) is queued here and runs on its own worker thread, one
// task at a time, so that the Scheduler thread never waits for the disk.
class SpoolStorageSchedule final : public Schedule, private ThreadedClass
{
public:
    using Task = std::function<void()>;
    using SteadyClock = std::chrono::steady_clock;

    SpoolStorageSchedule(Task syncCallback, std::chrono::seconds interval);
    ~SpoolStorageSchedule() override;

    // Queues a task; answers false once the schedule has been shut down.
    bool AddTask(Task task);
    // Queues a task that runs once its time has come (after the queued ones).
    bool AddTaskAt(SteadyClock::time_point when, Task task);

    // Runs the tasks already queued, drops the timed ones and stops the
    // worker. Later tasks are refused.
    void Shutdown();

    void SetInterval(std::chrono::seconds interval);

    void InitializeNextScheduleTime() override;
    bool IsDue(SystemTimePoint now) const override;
    SystemTimePoint NextDue() const override;
    void Execute() override;

private:
    void Run() override;
    void OnStop() override;

    const Task m_syncCallback;

    mutable std::mutex m_mutex;
    std::condition_variable m_cv;
    std::chrono::seconds m_interval;
    SystemTimePoint m_next{};
    std::deque<Task> m_tasks;
    std::multimap<SteadyClock::time_point, Task> m_timed;
    bool m_accepting = true;
};

} // namespace vantor::common
