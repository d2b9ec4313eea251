#include "common/TaskQueue.h"

#include "common/Logging.h"

#include <stdexcept>

namespace vantor::common
{

TaskQueue::TaskQueue(std::string name)
    : ThreadedClass(std::move(name))
{
    Start();
}

TaskQueue::~TaskQueue()
{
    Shutdown();
}

template <typename Enqueue>
bool TaskQueue::Accept(Enqueue enqueue)
{
    bool wake = false;
    {
        std::lock_guard lock(m_mutex);
        if (!m_accepting)
        {
            return false;
        }
        wake = enqueue();
    }
    if (wake)
    {
        m_cv.notify_one();
    }
    return true;
}

bool TaskQueue::Post(Task task)
{
    RequireTask(task);
    return Accept(
        [&]
        {
            // The thread waits only on an empty queue: a task behind others
            // needs no signal.
            const bool wasEmpty = m_tasks.empty();
            m_tasks.push_back(std::move(task));
            return wasEmpty;
        });
}

bool TaskQueue::PostAt(SteadyClock::time_point when, Task task)
{
    RequireTask(task);
    return Accept(
        [&]
        {
            // It may come before the time the thread waits for.
            m_timed.emplace(when, std::move(task));
            return true;
        });
}

void TaskQueue::RequireTask(const Task& task) const
{
    if (!task)
    {
        throw std::invalid_argument(Name() + ": task cannot be empty");
    }
}

void TaskQueue::Shutdown()
{
    {
        std::lock_guard lock(m_mutex);
        m_accepting = false;
    }
    Stop();
}

void TaskQueue::OnStop()
{
    std::lock_guard lock(m_mutex);
    m_cv.notify_all();
}

void TaskQueue::Run()
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
            EDR_LOG_ERROR(Name() << ": Task failed: " << e.what());
        }
        catch (...)
        {
            EDR_LOG_ERROR(Name() << ": Task failed: unknown exception");
        }
        task = nullptr; // release what the task holds outside the lock
        lock.lock();
    }
    m_timed.clear();
}

} // namespace vantor::common
