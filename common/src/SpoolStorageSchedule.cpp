#include "common/SpoolStorageSchedule.h"

#include "common/Logging.h"
#include "common/util/TimeFormat.h"

#include <stdexcept>

namespace vantor::common
{

SpoolStorageSchedule::SpoolStorageSchedule(Task syncCallback, std::chrono::seconds interval)
    : m_syncCallback(std::move(syncCallback))
    , m_interval(interval)
    , m_queue("SpoolStorageSchedule")
{
    if (!m_syncCallback)
    {
        throw std::invalid_argument("SpoolStorageSchedule: 'syncCallback' is invalid");
    }
}

SpoolStorageSchedule::~SpoolStorageSchedule()
{
    Shutdown();
}

bool SpoolStorageSchedule::AddTask(Task task)
{
    if (!task)
    {
        throw std::invalid_argument("SpoolStorageSchedule::AddTask: task cannot be empty");
    }
    return m_queue.Post(std::move(task));
}

bool SpoolStorageSchedule::AddTaskAt(SteadyClock::time_point when, Task task)
{
    if (!task)
    {
        throw std::invalid_argument("SpoolStorageSchedule::AddTask: task cannot be empty");
    }
    return m_queue.PostAt(when, std::move(task));
}

void SpoolStorageSchedule::Shutdown()
{
    m_queue.Shutdown();
}

void SpoolStorageSchedule::SetInterval(std::chrono::seconds interval)
{
    std::lock_guard lock(m_mutex);
    m_next += interval - m_interval;
    m_interval = interval;
}

void SpoolStorageSchedule::InitializeNextScheduleTime()
{
    std::lock_guard lock(m_mutex);
    m_next = std::chrono::system_clock::now() + m_interval;
    EDR_LOG_DEBUG("Initialized next-schedule-time = " << util::FormatLogTime(m_next));
}

bool SpoolStorageSchedule::IsDue(SystemTimePoint now) const
{
    std::lock_guard lock(m_mutex);
    return now >= m_next;
}

SystemTimePoint SpoolStorageSchedule::NextDue() const
{
    std::lock_guard lock(m_mutex);
    return m_next;
}

void SpoolStorageSchedule::Execute()
{
    {
        std::lock_guard lock(m_mutex);
        m_next = std::chrono::system_clock::now() + m_interval;
        EDR_LOG_DEBUG("Updated next-schedule-time = " << util::FormatLogTime(m_next));
    }
    AddTask(
        [this]
        {
            EDR_LOG_DEBUG("SpoolStorageSchedule: Syncing cache.");
            m_syncCallback();
        });
}

} // namespace vantor::common
