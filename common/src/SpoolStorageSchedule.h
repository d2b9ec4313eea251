#pragma once

#include "common/Schedule.h"
#include "common/TaskQueue.h"

#include <chrono>
#include <functional>
#include <mutex>

namespace vantor::common
{

// The spool's schedule and task queue. Registered with the Scheduler, it
// syncs the spool's cache every interval; all spool work (writes, flushes,
// clean-ups, renames) is queued here and runs on its own worker thread, one
// task at a time, so that the Scheduler thread never waits for the disk.
//
// All operations may be called from any thread.
class SpoolStorageSchedule final : public Schedule
{
public:
    using Task = TaskQueue::Task;
    using SteadyClock = TaskQueue::SteadyClock;

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
    const Task m_syncCallback;

    mutable std::mutex m_mutex;
    std::chrono::seconds m_interval;
    SystemTimePoint m_next{};
    // Last: drained before the members its tasks may use go away.
    TaskQueue m_queue;
};

} // namespace vantor::common
