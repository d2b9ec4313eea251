#include "ioc/ProcessingThread.h"

#include "common/Logging.h"
#include "ioc/EventProcessor.h"

#include <chrono>

namespace vantor::ioc::internal
{

namespace
{
constexpr std::chrono::seconds kIdleWake{1};
// After a pass the thread waits for a batch of this many events, or this
// long, before the next: a steady stream then wakes it a few hundred times a
// second at most instead of each time it has caught up.
constexpr size_t kBatch = 256;
constexpr std::chrono::milliseconds kBatchWait{5};
} // namespace

ProcessingThread::ProcessingThread(EventProcessor& processor, AfterPass afterPass, size_t capacity,
                                   size_t resumeBelow, std::chrono::milliseconds fullWait)
    : common::ThreadedClass(kThreadName)
    , m_processor(processor)
    , m_afterPass(std::move(afterPass))
    , m_capacity(capacity)
    , m_resumeBelow(resumeBelow < capacity ? resumeBelow : capacity)
    , m_fullWait(fullWait)
{
}

ProcessingThread::~ProcessingThread()
{
    Stop();
}

bool ProcessingThread::Enqueue(EventPtr event)
{
    // Within a drop episode nothing waits: the worker is known to be stuck.
    const auto wait =
        m_dropping.load(std::memory_order_relaxed) ? std::chrono::milliseconds::zero() : m_fullWait;
    if (m_queue.PushWhenRoom(std::move(event), m_capacity, wait))
    {
        return true;
    }
    const uint64_t dropped = m_dropped.fetch_add(1, std::memory_order_relaxed) + 1;
    if (!m_dropping.exchange(true, std::memory_order_relaxed))
    {
        EDR_LOG_ERROR("IOC processing queue is full (" << m_capacity << " events): dropping events, "
                                                       << dropped << " dropped so far");
    }
    return false;
}

void ProcessingThread::Run()
{
    bool busy = false;
    while (!IsStopping())
    {
        busy = busy ? m_queue.WaitForMore(kBatchWait, kBatch) : m_queue.WaitForData(kIdleWake);
        if (busy)
        {
            ProcessQueued();
        }
        if (m_afterPass)
        {
            m_afterPass(false);
        }
    }
    // Stopped: what is queued is still owed to the batches.
    if (m_queue.Size() != 0)
    {
        ProcessQueued();
    }
    if (m_afterPass)
    {
        m_afterPass(true);
    }
}

void ProcessingThread::OnStop()
{
    m_queue.Wake();
}

void ProcessingThread::ProcessQueued()
{
    auto events = m_queue.PopAll();
    EDR_LOG_DEBUG("Active event processing queue size: " << events.size());
    for (const auto& event : events)
    {
        m_processor.Process(event);
    }
    if (m_dropping.load(std::memory_order_relaxed) && m_queue.Size() < m_resumeBelow)
    {
        m_dropping.store(false, std::memory_order_relaxed);
        const uint64_t dropped = m_dropped.load(std::memory_order_relaxed);
        EDR_LOG_WARNING("IOC processing queue accepts events again; " << dropped - m_droppedAtEpisodeStart
                                                                      << " dropped while it was full");
        m_droppedAtEpisodeStart = dropped;
    }
}

} // namespace vantor::ioc::internal
