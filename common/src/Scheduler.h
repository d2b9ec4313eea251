#pragma once

#include "common/Schedule.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace vantor::common
{

// Runs registered schedules on one thread when they are due. Schedules are
// held weakly and dropped once their owner releases them.
class Scheduler
{
public:
    Scheduler() = default;
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
    std::thread m_thread;
};

} // namespace vantor::common
