#include "audit/ParserThread.h"

#include "audit/AuparseFeed.h"
#include "common/Logging.h"
#include "common/ReadBufferPool.h"

#include <chrono>
#include <exception>
#include <utility>

namespace vantor::audit
{

namespace
{

// Below this budget (KB) the queue keeps its smallest size, above the next
// one its largest; in between it is half the budget.
constexpr uint64_t kSmallBudgetKb = 20'480'000;
constexpr uint64_t kLargeBudgetKb = 209'715'400;
constexpr uint64_t kSmallestQueueBytes = 100ull * 1024 * 1024;
// How long the queue stays empty before held-back events are aged out.
constexpr std::chrono::seconds kAgeAfter{1};
// Spare capacity a queued buffer may keep before it is trimmed to its text.
constexpr size_t kSlackBytes = 4096;

} // namespace

ParserThread::ParserThread(EventBuilder& builder, EventSink sink, CpuUsageSource cpuUsage,
                           uint64_t cpuThreshold)
    : m_builder(builder)
    , m_sink(std::move(sink))
    , m_cpuUsage(std::move(cpuUsage))
    , m_cpuThreshold(cpuThreshold)
{
}

ParserThread::~ParserThread()
{
    Stop();
}

void ParserThread::Start()
{
    std::lock_guard startStop(m_startStopMutex);
    if (m_thread.Joinable())
    {
        EDR_LOG_INFO("Audit Parser thread already running");
        return;
    }
    {
        std::lock_guard lock(m_mutex);
        m_stop = false;
    }
    m_thread.Start([this] { Run(); });
    EDR_LOG_INFO("Started Audit Parser Thread");
}

void ParserThread::Stop()
{
    std::lock_guard startStop(m_startStopMutex);
    if (!m_thread.Joinable())
    {
        return;
    }
    EDR_LOG_INFO("Stopping Audit Parser Thread");
    {
        std::lock_guard lock(m_mutex);
        m_stop = true;
    }
    m_changed.notify_all();
    m_thread.Join();

    std::lock_guard lock(m_mutex);
    if (!m_queue.empty())
    {
        EDR_LOG_INFO("Audit parser thread: Discarding " << (m_queuedBytes.load() / 1024)
                                                        << " KB of unparsed audit text");
        m_discardedBytes.fetch_add(m_queuedBytes.load(), std::memory_order_relaxed);
    }
    m_queue.clear();
    m_queuedBytes = 0;
}

void ParserThread::Enqueue(std::vector<uint8_t> buffer)
{
    if (buffer.empty())
    {
        return;
    }
    if (buffer.capacity() > 2 * buffer.size() + kSlackBytes)
    {
        buffer.shrink_to_fit();
    }
    const uint64_t cost = buffer.size();
    bool wake = false;
    {
        std::lock_guard lock(m_mutex);
        if (m_queueingDisabled)
        {
            // Not re-enabled buffer by buffer: only once the queue has
            // drained to the resume threshold.
            if (m_queuedBytes.load(std::memory_order_relaxed) > m_resumeThresholdBytes)
            {
                m_droppedBuffers.fetch_add(1, std::memory_order_relaxed);
                m_droppedBytes.fetch_add(cost, std::memory_order_relaxed);
                return;
            }
            m_queueingDisabled = false;
            EDR_LOG_INFO("Enabling the audit parser queue");
        }
        else if (m_queuedBytes.load(std::memory_order_relaxed) >= m_maxQueueBytes)
        {
            m_queueingDisabled = true;
            EDR_LOG_WARNING("Audit parser queue threshold hit. Disabling queueing of events.");
            m_droppedBuffers.fetch_add(1, std::memory_order_relaxed);
            m_droppedBytes.fetch_add(cost, std::memory_order_relaxed);
            return;
        }
        const uint64_t queued = m_queuedBytes.fetch_add(cost, std::memory_order_relaxed) + cost;
        wake = m_queue.empty();
        m_queue.push_back(std::move(buffer));
        EDR_LOG_DEBUG("Audit parser queue size: " << (queued / 1024) << " KB");
    }
    // The thread waits only for an empty queue to fill.
    if (wake)
    {
        m_changed.notify_all();
    }
}

void ParserThread::SetQueueSize(uint64_t memoryBudgetKb)
{
    uint64_t maximum = kDefaultMaxQueueBytes;
    if (memoryBudgetKb < kSmallBudgetKb)
    {
        maximum = kSmallestQueueBytes;
    }
    else if (memoryBudgetKb < kLargeBudgetKb)
    {
        maximum = (memoryBudgetKb / 200) * 1024;
    }
    EDR_LOG_INFO("Setting parser queue size to " << (maximum >> 10) << " KB");
    std::lock_guard lock(m_mutex);
    m_maxQueueBytes = maximum;
    m_resumeThresholdBytes = maximum / 2;
}

uint64_t ParserThread::MaxQueueBytes() const
{
    std::lock_guard lock(m_mutex);
    return m_maxQueueBytes;
}

uint64_t ParserThread::ResumeThresholdBytes() const
{
    std::lock_guard lock(m_mutex);
    return m_resumeThresholdBytes;
}

bool ParserThread::IsQueueingDisabled() const
{
    std::lock_guard lock(m_mutex);
    return m_queueingDisabled;
}

bool ParserThread::IsRunning() const
{
    return m_thread.Joinable();
}

void ParserThread::AddCounters(CaptureCounters& counters) const
{
    const auto read = [](const std::atomic<uint64_t>& counter)
    { return counter.load(std::memory_order_relaxed); };
    counters.queueDroppedBuffers += read(m_droppedBuffers);
    counters.queueDroppedBytes += read(m_droppedBytes);
    counters.discardedBytesAtStop += read(m_discardedBytes);
    counters.feedErrors += read(m_feedErrors);
    counters.unsupportedSyscalls += read(m_feedTally.unsupportedSyscalls);
    counters.otherRecords += read(m_feedTally.otherRecords);
    counters.malformedEvents += read(m_feedTally.malformedEvents);
    counters.failedCalls += read(m_feedTally.failedCalls);
    counters.overlongLines += read(m_feedTally.overlongLines);
    counters.parserCpuPauses += read(m_cpuPauses);
    counters.parserPausedMs += read(m_pausedMs);
}

void ParserThread::Run()
{
    try
    {
        AuparseFeed feed(m_builder, &m_feedTally);
        ProcessLoop(feed);
        DeliverHeld();
        Deliver(feed.Flush());
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("Audit parser thread: " << e.what());
    }
    m_held.clear();
}

void ParserThread::ProcessLoop(AuparseFeed& feed)
{
    for (;;)
    {
        std::vector<uint8_t> buffer;
        bool moreQueued = false;
        {
            std::unique_lock lock(m_mutex);
            if (!m_changed.wait_for(lock, kAgeAfter, [this] { return m_stop || !m_queue.empty(); }))
            {
                // Quiet: events held back by a lone record go on now.
                lock.unlock();
                Deliver(feed.Age());
                continue;
            }
            if (m_stop)
            {
                return;
            }
            buffer = std::move(m_queue.front());
            m_queue.pop_front();
            m_queuedBytes.fetch_sub(buffer.size(), std::memory_order_relaxed);
            moreQueued = !m_queue.empty();
        }
        try
        {
            Hold(feed.Feed(buffer));
        }
        catch (const std::exception& e)
        {
            m_feedErrors.fetch_add(1, std::memory_order_relaxed);
            EDR_LOG_ERROR("Audit parser thread: " << e.what());
        }
        common::ReadBufferPool::Give(std::move(buffer));
        if (!moreQueued || m_held.size() >= kHandOverEvents)
        {
            DeliverHeld();
        }
        PauseWhileCpuIsHigh();
    }
}

void ParserThread::PauseWhileCpuIsHigh()
{
    if (!m_cpuUsage)
    {
        return;
    }
    double usage = m_cpuUsage();
    std::unique_lock lock(m_mutex);
    bool paused = false;
    while (!m_stop)
    {
        const uint64_t threshold = m_cpuThreshold.load(std::memory_order_relaxed);
        if (!(usage > static_cast<double>(threshold)))
        {
            return;
        }
        if (!paused)
        {
            paused = true;
            m_cpuPauses.fetch_add(1, std::memory_order_relaxed);
            // What was parsed goes on before the pause, without the lock.
            lock.unlock();
            DeliverHeld();
            lock.lock();
        }
        EDR_LOG_DEBUG("Audit parser thread: Pausing thread as cpu usage ("
                      << usage << ") is higher than configured threshold (" << threshold << ")");
        // The queue's notifications must not shorten the pause; only a stop
        // ends it early.
        const auto start = std::chrono::steady_clock::now();
        const bool stopped =
            m_changed.wait_until(lock, start + std::chrono::seconds(1), [this] { return m_stop; });
        m_pausedMs.fetch_add(static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                                       std::chrono::steady_clock::now() - start)
                                                       .count()),
                             std::memory_order_relaxed);
        if (stopped)
        {
            return;
        }
        lock.unlock();
        usage = m_cpuUsage();
        lock.lock();
    }
}

void ParserThread::Hold(Events events)
{
    if (m_held.empty())
    {
        m_held = std::move(events);
        return;
    }
    m_held.reserve(m_held.size() + events.size());
    for (auto& event : events)
    {
        m_held.push_back(std::move(event));
    }
}

void ParserThread::DeliverHeld()
{
    if (!m_held.empty())
    {
        Deliver(std::exchange(m_held, Events()));
    }
}

void ParserThread::Deliver(Events events)
{
    if (events.empty() || !m_sink)
    {
        return;
    }
    try
    {
        m_sink(std::move(events));
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("Audit parser thread: Failed to hand on events: " << e.what());
    }
}

} // namespace vantor::audit
