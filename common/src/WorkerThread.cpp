#include "common/WorkerThread.h"

#include "common/Logging.h"

#include <pthread.h>

#include <exception>
#include <stdexcept>

namespace vantor::common
{

WorkerThread::WorkerThread(std::string name)
    : m_shared(std::make_shared<Shared>())
{
    m_shared->name = std::move(name);
}

WorkerThread::~WorkerThread()
{
    if (!m_thread.joinable())
    {
        return;
    }
    if (IsCurrent())
    {
        m_thread.detach();
        return;
    }
    m_thread.join();
}

bool WorkerThread::IsCurrent() const
{
    return m_shared->id.load() == std::this_thread::get_id();
}

void WorkerThread::Start(std::function<void()> body)
{
    Join();
    m_shared->started = false;
    m_thread = std::thread([shared = m_shared, body = std::move(body)] { Run(*shared, body); });
    m_shared->started = true;
    m_shared->started.notify_one();
}

void WorkerThread::Join()
{
    if (!m_thread.joinable())
    {
        return;
    }
    if (IsCurrent())
    {
        throw std::logic_error("WorkerThread: " + m_shared->name + " cannot join itself");
    }
    m_thread.join();
}

void WorkerThread::Run(Shared& shared, const std::function<void()>& body) noexcept
{
    shared.started.wait(false);
    shared.id = std::this_thread::get_id();
    // The kernel keeps 15 characters; enough to tell the threads apart in
    // top -H and in core dumps.
    pthread_setname_np(pthread_self(), shared.name.substr(0, 15).c_str());
    try
    {
        body();
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("Uncaught exception in " << shared.name << ". Exception:" << e.what());
    }
    catch (...)
    {
        EDR_LOG_ERROR("Uncaught exception in " << shared.name << ". Exception:unknown");
    }
    shared.id = std::thread::id();
}

} // namespace vantor::common
