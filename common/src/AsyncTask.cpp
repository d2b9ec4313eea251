#include "common/AsyncTask.h"

#include "common/Logging.h"

namespace vantor::common
{

AsyncTask::~AsyncTask()
{
    // A derived class must Stop() in its own destructor; this is the last
    // guard so that no execution outlives the object.
    std::unique_lock lock(m_mutex);
    m_cv.wait(lock, [this] { return m_state == State::Idle; });
    lock.unlock();
    if (m_future.valid())
    {
        m_future.wait();
    }
}

bool AsyncTask::Launch()
{
    std::lock_guard lock(m_mutex);
    if (m_state != State::Idle)
    {
        return false;
    }
    if (m_future.valid())
    {
        m_future.wait(); // the previous execution has set Idle and is leaving
    }
    m_state = State::Running;
    m_future = std::async(std::launch::async, [this] { OnExecute(); });
    return true;
}

void AsyncTask::Stop()
{
    {
        std::lock_guard lock(m_mutex);
        if (m_state == State::Idle)
        {
            return;
        }
        m_state = State::Cancelling;
    }
    OnCancel();
    std::unique_lock lock(m_mutex);
    m_cv.wait(lock, [this] { return m_state == State::Idle; });
}

AsyncTask::State AsyncTask::GetState() const
{
    std::lock_guard lock(m_mutex);
    return m_state;
}

bool AsyncTask::IsCancelling() const
{
    std::lock_guard lock(m_mutex);
    return m_state == State::Cancelling;
}

void AsyncTask::OnExecute()
{
    try
    {
        DoWork();
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("AsyncTask::OnExecute: " << e.what());
    }
    std::lock_guard lock(m_mutex);
    m_state = State::Idle;
    m_cv.notify_all();
}

} // namespace vantor::common
