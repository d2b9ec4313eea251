#include "common/AsyncTask.h"

#include "common/Logging.h"

namespace vantor::common
{

AsyncTask::AsyncTask()
    : m_execution("AsyncTask")
{
}

AsyncTask::~AsyncTask()
{
    // The last guard, for a derived class that did not Stop(): no execution
    // outlives the object.
    std::unique_lock lock(m_mutex);
    m_cv.wait(lock, [this] { return m_state == State::Idle; });
}

bool AsyncTask::Launch()
{
    std::lock_guard lock(m_mutex);
    if (m_state != State::Idle)
    {
        return false;
    }
    // Collects the previous execution, which has set Idle and is leaving.
    m_execution.Start([this] { OnExecute(); });
    m_state = State::Running;
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
    catch (...)
    {
        // Whatever it was, the task must become idle again or Stop() would
        // wait for ever.
        EDR_LOG_ERROR("AsyncTask::OnExecute: unknown exception");
    }
    std::lock_guard lock(m_mutex);
    m_state = State::Idle;
    m_cv.notify_all();
}

} // namespace vantor::common
