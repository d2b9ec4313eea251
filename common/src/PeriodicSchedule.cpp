#include "common/PeriodicSchedule.h"

#include "common/Logging.h"
#include "common/util/TimeFormat.h"

namespace vantor::common
{

PeriodicSchedule::PeriodicSchedule(std::chrono::seconds interval, Clock clock)
    : m_interval(interval)
    , m_clock(std::move(clock))
{
}

SystemTimePoint PeriodicSchedule::Now() const
{
    return m_clock ? m_clock() : std::chrono::system_clock::now();
}

void PeriodicSchedule::InitializeNextScheduleTime()
{
    std::lock_guard lock(m_mutex);
    m_next = Now() + m_interval;
    EDR_LOG_DEBUG("Initialized next-schedule-time = " << util::FormatLogTime(m_next));
}

bool PeriodicSchedule::IsDue(SystemTimePoint now) const
{
    std::lock_guard lock(m_mutex);
    return now >= m_next;
}

SystemTimePoint PeriodicSchedule::NextDue() const
{
    std::lock_guard lock(m_mutex);
    return m_next;
}

void PeriodicSchedule::Execute()
{
    // The next time is set before running, so that a throwing run is retried
    // at its next due time and not in a tight loop.
    {
        std::lock_guard lock(m_mutex);
        m_next = Now() + m_interval;
        EDR_LOG_DEBUG("Updated next-schedule-time = " << util::FormatLogTime(m_next));
    }
    Run();
}

void PeriodicSchedule::SetInterval(std::chrono::seconds interval)
{
    std::lock_guard lock(m_mutex);
    m_next += interval - m_interval;
    m_interval = interval;
}

std::chrono::seconds PeriodicSchedule::Interval() const
{
    std::lock_guard lock(m_mutex);
    return m_interval;
}

} // namespace vantor::common
