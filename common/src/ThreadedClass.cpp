#include "common/ThreadedClass.h"

#include "common/Logging.h"

#include <exception>

namespace vantor::common
{

ThreadedClass::ThreadedClass(std::string name)
    : m_name(std::move(name))
{
}

ThreadedClass::~ThreadedClass()
{
    // Derived classes stop their worker in their own destructor (the worker
    // uses their members); this only collects a worker that already ended.
    std::lock_guard lock(m_mutex);
    if (m_future.valid())
    {
        m_stopping = true;
        m_future.wait();
    }
}

void ThreadedClass::Start()
{
    std::lock_guard lock(m_mutex);
    if (m_running)
    {
        EDR_LOG_WARNING("Start called for already running " << m_name << " instance");
        return;
    }
    m_stopping = false;
    m_running = true;
    m_future = std::async(std::launch::async, [this] { Worker(); });
}

void ThreadedClass::Stop()
{
    std::lock_guard lock(m_mutex);
    if (!m_future.valid())
    {
        return;
    }
    m_stopping.store(true, std::memory_order_release);
    try
    {
        OnStop();
        m_future.get();
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("Uncaught exception when stopping " << m_name << ". Exception:" << e.what());
    }
    m_running = false;
}

bool ThreadedClass::IsRunning() const
{
    return m_running;
}

void ThreadedClass::Worker()
{
    try
    {
        Run();
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("Uncaught exception in " << m_name << ". Exception:" << e.what());
    }
    catch (...)
    {
        EDR_LOG_ERROR("Uncaught exception in " << m_name << ". Exception:unknown");
    }
    m_running = false;
}

} // namespace vantor::common
