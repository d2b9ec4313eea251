#include "common/ThreadedClass.h"

#include "common/Logging.h"

#include <exception>

namespace vantor::common
{

ThreadedClass::ThreadedClass(std::string name)
    : m_thread(std::move(name))
{
}

ThreadedClass::~ThreadedClass()
{
    // This only collects a worker that already ended: a running one was
    // stopped by the derived class's destructor.
    m_stopping = true;
}

void ThreadedClass::Start()
{
    std::lock_guard lock(m_mutex);
    if (m_running)
    {
        EDR_LOG_WARNING("Start called for already running " << Name() << " instance");
        return;
    }
    m_stopping = false;
    m_running = true;
    m_thread.Start(
        [this]
        {
            // Cleared however Run ends; the worker thread logs an exception.
            struct Ended
            {
                std::atomic<bool>& running;
                ~Ended() { running = false; }
            } ended{m_running};
            Run();
        });
}

void ThreadedClass::Stop()
{
    std::lock_guard lock(m_mutex);
    if (!m_thread.Joinable())
    {
        return;
    }
    m_stopping.store(true, std::memory_order_release);
    try
    {
        OnStop();
        m_thread.Join();
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("Uncaught exception when stopping " << Name() << ". Exception:" << e.what());
    }
    m_running = false;
}

bool ThreadedClass::IsRunning() const
{
    return m_running;
}

} // namespace vantor::common
