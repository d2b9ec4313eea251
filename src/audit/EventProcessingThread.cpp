#include "audit/EventProcessingThread.h"

#include "common/Logging.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <thread>

namespace vantor::audit
{

namespace
{

constexpr std::chrono::nanoseconds kIdleWait{1000000000};
constexpr std::chrono::microseconds kCpuPause{10000};

struct SortKey
{
    uint64_t timestamp;
    uint64_t serial; // unwrapped
    uint32_t index;  // arrival order, the last tie-breaker

    bool operator<(const SortKey& other) const
    {
        if (timestamp != other.timestamp)
        {
            return timestamp < other.timestamp;
        }
        if (serial != other.serial)
        {
            return serial < other.serial;
        }
        return index < other.index;
    }
};

uint64_t TimestampOf(const edr::Event& event)
{
    try
    {
        return event.GetTimestamp();
    }
    catch (const std::exception&)
    {
        return 0;
    }
}

uint32_t SerialOf(const edr::Event& event)
{
    try
    {
        return event.GetEventId();
    }
    catch (const std::exception&)
    {
        return 0;
    }
}

} // namespace

EventProcessingThread::EventProcessingThread(AuditEventProcessor& processor, uint64_t cpuThreshold,
                                             CpuUsage cpuUsage)
    : m_processor(processor)
    , m_cpuThreshold(cpuThreshold)
    , m_cpuUsage(std::move(cpuUsage))
{
}

EventProcessingThread::~EventProcessingThread()
{
    Stop();
}

void EventProcessingThread::Start()
{
    {
        std::lock_guard lock(m_mutex);
        m_stop = false;
    }
    if (!Launch())
    {
        EDR_LOG_INFO("Parsed events processing thread already running");
        return;
    }
    EDR_LOG_INFO("Started parsed events processing thread");
}

void EventProcessingThread::Stop()
{
    if (GetState() == State::Idle)
    {
        return;
    }
    EDR_LOG_INFO("Stopping parsed events processing thread");
    AsyncTask::Stop();
    std::lock_guard lock(m_mutex);
    if (!m_bufferQueue.empty())
    {
        EDR_LOG_INFO("Dropping " << m_bufferQueue.size() << " events not yet processed");
        m_droppedAtStop.fetch_add(m_bufferQueue.size(), std::memory_order_relaxed);
        m_bufferQueue.clear();
    }
    m_spent.clear();
}

void EventProcessingThread::AddCounters(CaptureCounters& counters) const
{
    counters.failedEvents += m_failedEvents.load(std::memory_order_relaxed);
    counters.droppedAtStop += m_droppedAtStop.load(std::memory_order_relaxed);
    counters.processingCpuPauses += m_cpuPauses.load(std::memory_order_relaxed);
    counters.processingPausedMs += m_pausedMs.load(std::memory_order_relaxed);
}

void EventProcessingThread::OnCancel()
{
    {
        std::lock_guard lock(m_mutex);
        m_stop = true;
    }
    m_cv.notify_all();
}

void EventProcessingThread::SetQueueSize(uint64_t memoryBudget)
{
    const uint64_t share = memoryBudget * 30 / 100;
    const size_t capacity = static_cast<size_t>(std::clamp<uint64_t>(share, kMinQueueSize, kMaxQueueSize));
    {
        std::lock_guard lock(m_mutex);
        m_capacity = capacity;
    }
    EDR_LOG_INFO("Setting processing queue size to " << capacity << " events");
    m_cv.notify_all();
}

size_t EventProcessingThread::GetQueueSize() const
{
    std::lock_guard lock(m_mutex);
    return m_capacity;
}

void EventProcessingThread::Enqueue(Events&& events)
{
    if (events.empty())
    {
        return;
    }
    std::unique_lock lock(m_mutex);
    if (m_bufferQueue.size() >= m_capacity)
    {
        EDR_LOG_WARNING("Processing queue threshold hit. Stopped adding events to que");
        m_blockedProducers.fetch_add(1, std::memory_order_relaxed);
        m_cv.wait(lock, [this] { return m_bufferQueue.empty() || m_stop; });
        m_blockedProducers.fetch_sub(1, std::memory_order_relaxed);
        EDR_LOG_INFO("Enabling the processing queue");
    }
    if (m_stop)
    {
        // Nothing will take them any more.
        m_droppedAtStop.fetch_add(events.size(), std::memory_order_relaxed);
        events.clear();
        return;
    }
    const bool wasEmpty = m_bufferQueue.empty();
    m_bufferQueue.reserve(m_bufferQueue.size() + events.size());
    for (auto& event : events)
    {
        m_bufferQueue.push_back(std::move(event));
    }
    events.clear();
    // The caller's vector takes the spent events; its room stays for the next ones.
    events.swap(m_spent);
    EDR_LOG_DEBUG("Audit event processing buffer queue size: " << m_bufferQueue.size() << " events");
    lock.unlock();
    if (wasEmpty)
    {
        m_cv.notify_all();
    }
    events.clear();
}

void EventProcessingThread::DoWork()
{
    try
    {
        Run();
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("Uncaught Exception in Processing Thread:" << e.what());
    }
}

void EventProcessingThread::Run()
{
    for (;;)
    {
        {
            std::unique_lock lock(m_mutex);
            if (m_bufferQueue.empty() && !m_stop)
            {
                const auto idleUntil = std::chrono::steady_clock::now() + kIdleWait;
                const auto ready = [this] { return !m_bufferQueue.empty() || m_stop; };
                if (!m_spent.empty() && !m_cv.wait_for(lock, kSpentWait, ready))
                {
                    // No producer came back for them: neither they nor the
                    // room for the next ones are kept while idle.
                    Events spent = std::move(m_spent);
                    m_spent.clear();
                    lock.unlock();
                    spent = Events();
                    m_processed = Events();
                    lock.lock();
                }
                m_cv.wait_until(lock, idleUntil, ready);
            }
            if (m_stop)
            {
                return;
            }
            m_activeQueue.swap(m_bufferQueue);
        }

        if (m_activeQueue.empty())
        {
            try
            {
                m_processor.ProcessCachedFileEvents();
            }
            catch (const std::exception& e)
            {
                EDR_LOG_ERROR("Failed to process cached file events: " << e.what());
            }
            continue;
        }

        SortBatch(m_activeQueue);
        EDR_LOG_DEBUG("Audit active event processing queue size: " << m_activeQueue.size() << " events");
        for (size_t i = 0; i < m_activeQueue.size(); ++i)
        {
            // A stop does not wait for the rest of a large batch: what is
            // still queued at shutdown is dropped, as the parser's text is.
            if (IsCancelling())
            {
                m_droppedAtStop.fetch_add(m_activeQueue.size() - i, std::memory_order_relaxed);
                break;
            }
            PauseWhileBusy();
            try
            {
                m_processor.ProcessEvent(std::move(m_activeQueue[i]), &m_processed);
            }
            catch (const std::exception& e)
            {
                m_failedEvents.fetch_add(1, std::memory_order_relaxed);
                EDR_LOG_ERROR(e.what());
            }
        }
        HandBack();
        // Lets a producer blocked on a full buffer go on. The count is set
        // under the lock before the producer waits, and the buffer it waits
        // on is full, so a producer that blocks after this check is released
        // after the next batch.
        if (m_blockedProducers.load(std::memory_order_relaxed) != 0)
        {
            m_cv.notify_all();
        }
    }
}

void EventProcessingThread::HandBack()
{
    m_activeQueue.clear(); // holds only what a stop left unprocessed
    std::lock_guard lock(m_mutex);
    if (m_spent.empty())
    {
        m_spent.swap(m_processed);
        return;
    }
    // The producer has not come back since the last batch (it filled this
    // one before that was handed back): both wait for it.
    m_spent.insert(m_spent.end(), std::make_move_iterator(m_processed.begin()),
                   std::make_move_iterator(m_processed.end()));
    m_processed.clear();
}

void EventProcessingThread::PauseWhileBusy()
{
    if (!m_cpuUsage)
    {
        return;
    }
    std::chrono::steady_clock::time_point start{};
    while (m_cpuUsage() > static_cast<float>(m_cpuThreshold))
    {
        {
            std::lock_guard lock(m_mutex);
            if (m_stop)
            {
                break;
            }
        }
        if (start == std::chrono::steady_clock::time_point{})
        {
            start = std::chrono::steady_clock::now();
            m_cpuPauses.fetch_add(1, std::memory_order_relaxed);
        }
        std::this_thread::sleep_for(kCpuPause);
    }
    if (start != std::chrono::steady_clock::time_point{})
    {
        const auto paused = std::chrono::steady_clock::now() - start;
        m_pausedMs.fetch_add(
            static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(paused).count()),
            std::memory_order_relaxed);
    }
}

void EventProcessingThread::SortBatch(Events& events)
{
    if (events.size() < 2)
    {
        return;
    }
    // Serials are 32-bit and wrap. A batch that holds serials just below the
    // wrap and just above it (within the window on either side) ordered the
    // low ones after the high ones. Keys are computed once, so the sort sees a
    // consistent total order and calls no virtual function.
    constexpr uint64_t kWrap = uint64_t{1} << 32;
    bool high = false;
    bool low = false;
    std::vector<SortKey> keys;
    keys.reserve(events.size());
    for (uint32_t i = 0; i < events.size(); ++i)
    {
        const uint32_t serial = events[i] ? SerialOf(*events[i]) : 0;
        high = high || serial >= kWrap - kSerialWrapWindow;
        low = low || (serial != 0 && serial < kSerialWrapWindow);
        keys.push_back({events[i] ? TimestampOf(*events[i]) : 0, serial, i});
    }
    const bool wrapped = high && low;
    uint64_t previous = 0;
    for (auto& key : keys)
    {
        if (key.serial == 0)
        {
            key.serial = previous; // pseudo event: stays after its predecessor
            continue;
        }
        if (wrapped && key.serial < kWrap / 2)
        {
            key.serial += kWrap;
        }
        previous = key.serial;
    }
    std::sort(keys.begin(), keys.end());
    Events ordered;
    ordered.reserve(events.size());
    for (const auto& key : keys)
    {
        ordered.push_back(std::move(events[key.index]));
    }
    events.swap(ordered);
}

} // namespace vantor::audit
