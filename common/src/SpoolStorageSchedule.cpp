#include "common/SpoolStorageSchedule.h"

#include "common/Logging.h"
#include "common/util/TimeFormat.h"

#include <stdexcept>

namespace vantor::common
{

SpoolStorageSchedule::SpoolStorageSchedule(Task syncCallback, std::chrono::seconds interval)
    : ThreadedClass("SpoolStorageSchedule")
    , m_syncCallback(std::move(syncCallback))
    , m_interval(interval)
{
    if (!m_syncCallback)
    {
        throw std::invalid_argument("SpoolStorageSchedule: 'syncCallback' is invalid");
    }
    Start();
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
    {
        std::lock_guard lock(m_mutex);
        if (!m_accepting)
        {
            return false;
        }
        m_tasks.push_back(std::move(task));
    }
    m_cv.notify_one();
    return true;
}

bool SpoolStorageSchedule::AddTaskAt(SteadyClock::time_point when, Task task)
{
    if (!task)
    {
        throw std::invalid_argument("SpoolStorageSchedule::AddTask: task cannot be empty");
    }
    {
        std::lock_guard lock(m_mutex);
        if (!m_accepting)
        {
            return false;
        }
        m_timed.emplace(when, std::move(task));
    }
    m_cv.notify_one();
    return true;
}

void SpoolStorageSchedule::Shutdown()
{
    {
        std::lock_guard lock(m_mutex);
        m_accepting = false;
    }
    Stop();
}

void SpoolStorageSchedule::OnStop()
{
    std::lock_guard lock(m_mutex);
    m_cv.notify_all();
}

void SpoolStorageSchedule::Run()
{
    std::unique_lock lock(m_mutex);
    for (;;)
    {
        Task task;
        if (!m_tasks.empty())
        {
            task = std::move(m_tasks.front());
            m_tasks.pop_front();
        }
        else if (IsStopping())
        {
            break;
        }
        else if (!m_timed.empty() && m_timed.begin()->first <= SteadyClock::now())
        {
            task = std::move(m_timed.begin()->second);
            m_timed.erase(m_timed.begin());
        }
        else
        {
            if (m_timed.empty())
            {
                m_cv.wait(lock);
            }
            else
            {
                m_cv.wait_until(lock, m_timed.begin()->first);
            }
            continue;
        }
        lock.unlock();
        try
        {
            task();
        }
        catch (const std::exception& e)
        {
            EDR_LOG_ERROR("SpoolStorageSchedule: Task failed: " << e.what());
        }
        catch (...)
        {
            EDR_LOG_ERROR("SpoolStorageSchedule: Task failed: unknown exception");
        }
        task = nullptr; // release what the task holds outside the lock
        lock.lock();
    }
    m_timed.clear();
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
