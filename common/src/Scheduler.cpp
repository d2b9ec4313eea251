#include "common/Scheduler.h"

#include "common/Logging.h"

#include <algorithm>
#include <stdexcept>

namespace vantor::common
{

Scheduler::Scheduler()
    : m_thread("Scheduler")
{
}

Scheduler::~Scheduler()
{
    Stop();
    EDR_LOG_DEBUG("Scheduler: Removing all schedules.");
    std::lock_guard lock(m_mutex);
    m_schedules.clear();
}

void Scheduler::Start()
{
    std::lock_guard lock(m_mutex);
    if (m_running)
    {
        throw std::runtime_error("Start: Start cannot be called when the Scheduler is running");
    }
    EDR_LOG_INFO("Scheduler: Starting.");
    m_running = true;
    m_thread.Start([this] { Loop(); });
}

void Scheduler::Stop()
{
    {
        std::lock_guard lock(m_mutex);
        if (!m_running && !m_thread.Joinable())
        {
            return;
        }
        EDR_LOG_INFO("Scheduler: Stopping.");
        m_running = false;
        m_cv.notify_all();
    }
    m_thread.Join();
}

void Scheduler::RegisterSchedule(const std::shared_ptr<Schedule>& schedule)
{
    if (!schedule)
    {
        throw std::runtime_error("RegisterSchedule: 'schedule' cannot be null");
    }
    std::lock_guard lock(m_mutex);
    for (const auto& entry : m_schedules)
    {
        if (!entry.owner_before(schedule) && !schedule.owner_before(entry))
        {
            throw std::runtime_error("RegisterSchedule: 'schedule' already exists");
        }
    }
    m_schedules.push_back(schedule);
    schedule->InitializeNextScheduleTime();
    NotifyUpdated();
}

void Scheduler::UnregisterSchedule(const std::shared_ptr<Schedule>& schedule)
{
    std::lock_guard lock(m_mutex);
    const auto it = std::find_if(m_schedules.begin(), m_schedules.end(),
                                 [&](const auto& entry)
                                 { return !entry.owner_before(schedule) && !schedule.owner_before(entry); });
    if (!schedule || it == m_schedules.end())
    {
        throw std::runtime_error("UnregisterSchedule: 'schedule' is not registered");
    }
    m_schedules.erase(it);
    NotifyUpdated();
}

size_t Scheduler::EntryCount() const
{
    std::lock_guard lock(m_mutex);
    return m_schedules.size();
}

void Scheduler::NotifyUpdated()
{
    EDR_LOG_TRACE("Scheduler: Schedule updated.");
    m_updated = true;
    m_cv.notify_all();
}

void Scheduler::Loop()
{
    std::unique_lock lock(m_mutex);
    while (m_running)
    {
        m_updated = false;
        const auto now = std::chrono::system_clock::now();
        auto wakeUp = now + std::chrono::seconds(86400);
        for (auto it = m_schedules.begin(); it != m_schedules.end();)
        {
            std::shared_ptr<Schedule> schedule = it->lock();
            if (!schedule)
            {
                it = m_schedules.erase(it);
                continue;
            }
            ++it;
            if (!schedule->IsDue(now))
            {
                wakeUp = std::min(wakeUp, schedule->NextDue());
                continue;
            }
            try
            {
                schedule->Execute();
            }
            catch (const std::exception& e)
            {
                EDR_LOG_ERROR("Scheduler: Schedule exeution failed: " << e.what());
            }
            // A schedule that ran is due again later; wake for it too.
            wakeUp = std::min(wakeUp, schedule->NextDue());
        }
        m_cv.wait_until(lock, wakeUp, [this] { return m_updated || !m_running; });
    }
}

} // namespace vantor::common
