#include "common/UploadWaiter.h"

namespace vantor::common
{

UploadWaiter::UploadWaiter()
    : m_state(std::make_shared<State>())
{
}

HttpUploader::Callback UploadWaiter::Completion() const
{
    return [state = m_state](bool success)
    {
        std::lock_guard lock(state->mutex);
        state->success = success;
        state->done = true;
        state->cv.notify_all();
    };
}

UploadWaiter::Outcome UploadWaiter::Wait() const
{
    std::unique_lock lock(m_state->mutex);
    m_state->cv.wait(lock, [this] { return m_state->done || m_state->cancelled; });
    if (!m_state->done)
    {
        return Outcome::Cancelled;
    }
    return m_state->success ? Outcome::Succeeded : Outcome::Failed;
}

void UploadWaiter::Cancel()
{
    std::lock_guard lock(m_state->mutex);
    m_state->cancelled = true;
    m_state->cv.notify_all();
}

} // namespace vantor::common
