#pragma once

#include "common/Schedule.h"
#include "common/WorkerThread.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

namespace vantor::common
{

// Runs registered schedules on one thread when they are due. Schedules are
// held weakly and dropped once their owner releases them.
//
// Register and Unregister may be called from any thread, the schedules'
// Execute included; Start and Stop from any thread but the scheduler's.
class Scheduler
{
public:
    Scheduler();
    ~Scheduler();

    Scheduler(const Scheduler&) = delete;
    Scheduler& operator=(const Scheduler&) = delete;

    void Start();
    void Stop();

    void RegisterSchedule(const std::shared_ptr<Schedule>& schedule);
    void UnregisterSchedule(const std::shared_ptr<Schedule>& schedule);

    // Number of entries in the list, live or not yet dropped.
    size_t EntryCount() const;

private:
    void Loop();
    void NotifyUpdated(); // requires m_mutex

    mutable std::mutex m_mutex;
    std::condition_variable m_cv;
    bool m_updated = false;
    bool m_running = false;
    std::vector<std::weak_ptr<Schedule>> m_schedules;
    // Last: joined before the list it walks goes away.
    WorkerThread m_thread;
};

} // namespace vantor::common
