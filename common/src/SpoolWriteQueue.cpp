#include "common/SpoolWriteQueue.h"

#include "common/Logging.h"

namespace vantor::common::internal
{

struct SpoolWriteQueue::Waiter
{
    std::mutex mutex;
    std::condition_variable cv;
    bool done = false;
    Result result;
};

SpoolWriteQueue::SpoolWriteQueue(ScheduleDrain scheduleDrain, Limit limit)
    : m_scheduleDrain(std::move(scheduleDrain))
    , m_limit(std::move(limit))
{
}

SpoolWriteQueue::~SpoolWriteQueue() = default;

void SpoolWriteQueue::WriteAsync(std::string data, Callback callback, bool own)
{
    Enqueue(Pending{std::move(data), std::move(callback), nullptr, own});
}

SpoolWriteQueue::Result SpoolWriteQueue::Write(std::string data)
{
    Waiter waiter;
    Enqueue(Pending{std::move(data), nullptr, &waiter});
    std::unique_lock lock(waiter.mutex);
    waiter.cv.wait(lock, [&] { return waiter.done; });
    return waiter.result;
}

void SpoolWriteQueue::Enqueue(Pending write)
{
    const bool now = write.waiter != nullptr;
    bool queueDrain = false;
    {
        std::unique_lock lock(m_mutex);
        const std::size_t size = write.data.size();
        const std::size_t limit = m_limit();
        m_cv.wait(lock, [&] { return m_pendingBytes == 0 || m_pendingBytes + size <= limit; });
        m_pendingBytes += size;
        m_pending.push_back(std::move(write));
        // A waiting writer does not wait for a later drain: it queues one now.
        if (m_drainQueued == Drain::None || (now && m_drainQueued == Drain::Later))
        {
            m_drainQueued = now ? Drain::Now : Drain::Later;
            queueDrain = true;
        }
    }
    if (queueDrain && !m_scheduleDrain(now ? std::chrono::steady_clock::duration::zero() : kAsyncDrainDelay))
    {
        FailAll();
    }
}

std::vector<SpoolWriteQueue::Pending>& SpoolWriteQueue::TakeBatch()
{
    {
        std::lock_guard lock(m_mutex);
        std::swap(m_pending, m_draining);
        m_drainQueued = Drain::None;
        m_pendingBytes = 0;
    }
    m_cv.notify_all();
    return m_draining;
}

void SpoolWriteQueue::CompleteBatch(const std::vector<Result>& results)
{
    for (std::size_t i = 0; i < m_draining.size(); ++i)
    {
        Complete(m_draining[i], results.at(i));
    }
    m_draining.clear();
}

void SpoolWriteQueue::FailAll()
{
    std::vector<Pending> failed;
    {
        std::lock_guard lock(m_mutex);
        failed.swap(m_pending);
        m_drainQueued = Drain::None;
        m_pendingBytes = 0;
    }
    m_cv.notify_all();
    const Result result{SpoolStorage::WriteStatus::Failed, "SpoolStorage: Storage is shutting down"};
    for (auto& write : failed)
    {
        Complete(write, result);
    }
}

void SpoolWriteQueue::Complete(Pending& write, const Result& result)
{
    if (write.waiter != nullptr)
    {
        std::lock_guard lock(write.waiter->mutex);
        write.waiter->result = result;
        write.waiter->done = true;
        write.waiter->cv.notify_one();
    }
    if (!write.callback)
    {
        return;
    }
    try
    {
        write.callback(result);
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("SpoolStorage: Write callback failed: " << e.what());
    }
}

} // namespace vantor::common::internal
