#include "fim/DocumentThread.h"

#include "common/Logging.h"

#include <algorithm>
#include <optional>

namespace vantor::fim::internal
{

DocumentThread::DocumentThread(DocumentBuilder& builder, BaselineWalk& baseline, size_t maxPending)
    : ThreadedClass("FimDocumentThread")
    , m_builder(builder)
    , m_baseline(baseline)
    , m_maxPending(maxPending > 0 ? maxPending : 1)
    , m_baselineInterval(std::chrono::seconds(1) / kDefaultBaselineRate)
{
}

DocumentThread::~DocumentThread()
{
    Stop();
}

void DocumentThread::SetSettleTime(std::chrono::milliseconds settleTime)
{
    std::lock_guard lock(m_mutex);
    m_settleTime = settleTime;
}

void DocumentThread::SetBaselineRate(uint64_t filesPerSecond)
{
    std::lock_guard lock(m_mutex);
    m_baselineInterval = std::chrono::duration_cast<Clock::duration>(std::chrono::seconds(1)) /
                         (filesPerSecond > 0 ? filesPerSecond : kDefaultBaselineRate);
}

size_t DocumentThread::GetPendingCount() const
{
    std::lock_guard lock(m_mutex);
    return m_pending.Size();
}

void DocumentThread::Build(PendingDocuments::Group& group)
{
    try
    {
        m_builder.BuildGroup(group);
    }
    catch (const std::exception& e)
    {
        m_failed.fetch_add(1, std::memory_order_relaxed);
        EDR_LOG_ERROR("Event exception: " << e.what());
    }
}

void DocumentThread::BuildUnlocked(std::unique_lock<std::mutex>& lock)
{
    m_building = true;
    lock.unlock();
    m_builder.InOneTransaction(
        [this]
        {
            for (auto& group : m_round)
            {
                Build(group);
            }
        });
    m_round.clear();
    lock.lock();
    m_building = false;
}

void DocumentThread::Add(PendingDocument document, bool settles)
{
    std::unique_lock lock(m_mutex);
    if (m_pending.Size() >= m_maxPending && IsRunning() && !IsStopping())
    {
        const uint64_t overflows = ++m_overflows;
        if (overflows == 1 || overflows % 1000 == 0)
        {
            EDR_LOG_WARNING("EventProcessor: " << m_maxPending
                                               << " documents wait for their files to settle; "
                                               << "building early (" << overflows << " times so far)");
        }
        ++m_earlyBuilds;
        m_wake.notify_one();
        m_done.wait(lock, [this] { return m_pending.Size() < m_maxPending || IsStopping(); });
    }
    if (!IsRunning() || IsStopping())
    {
        // No thread to wait for: build here.
        lock.unlock();
        PendingDocuments::Group group{std::move(document.objectPath), {}};
        group.documents.push_back(std::move(document));
        Build(group);
        return;
    }
    m_pending.Add(std::move(document), settles, Clock::now(), m_settleTime);
    const auto due = m_pending.NextDue();
    const bool wake = due && std::max(*due, m_nextRound) < m_sleepsUntil;
    lock.unlock();
    if (wake)
    {
        m_wake.notify_one();
    }
}

void DocumentThread::Flush()
{
    std::unique_lock lock(m_mutex);
    ++m_flushes;
    m_wake.notify_one();
    m_done.wait(lock, [this] { return (m_pending.Empty() && !m_building) || !IsRunning(); });
    --m_flushes;
}

void DocumentThread::Wake()
{
    {
        std::lock_guard lock(m_mutex);
    }
    m_wake.notify_all();
}

void DocumentThread::WakeBaseline()
{
    Wake();
}

void DocumentThread::OnStop()
{
    Wake();
}

void DocumentThread::Run()
{
    std::unique_lock lock(m_mutex);
    Clock::time_point nextBaseline = Clock::now();
    bool built = false;
    while (!IsStopping())
    {
        const auto now = Clock::now();
        if (m_earlyBuilds > 0)
        {
            // Room for a run of Adds, not for one: a flood would otherwise
            // wake both threads for every document.
            const size_t keep = m_maxPending - m_maxPending / 4;
            while (auto first = m_pending.TakeFirst())
            {
                m_round.push_back(std::move(*first));
                if (m_pending.Size() <= keep)
                {
                    break;
                }
            }
            m_earlyBuilds = 0;
        }
        else if (m_flushes > 0)
        {
            // In rounds, as due groups are; bounded so that Adds meanwhile
            // do not wait long for the lock.
            while (m_round.size() < kMaxFlushRound)
            {
                auto first = m_pending.TakeFirst();
                if (!first)
                {
                    break;
                }
                m_round.push_back(std::move(*first));
            }
        }
        else if (now >= m_nextRound)
        {
            // The round is taken in one hold of the lock: taking its groups
            // one at a time would make the Adds meanwhile wait for the lock
            // again and again.
            while (auto due = m_pending.TakeDue(now))
            {
                m_round.push_back(std::move(*due));
            }
        }
        if (!m_round.empty())
        {
            BuildUnlocked(lock);
            m_done.notify_all();
            built = true;
            continue;
        }
        if (built)
        {
            // Documents that fall due in the next moments wait for one
            // another: a stream of them is built a few rounds a second
            // instead of waking the thread for each.
            m_nextRound = now + std::min<Clock::duration>(kMaxRoundGap, m_settleTime / 20);
            built = false;
        }
        const bool baseline = m_baseline.HasWork();
        if (baseline && now >= nextBaseline)
        {
            lock.unlock();
            bool recorded = false;
            try
            {
                recorded = m_baseline.Step();
            }
            catch (const std::exception& e)
            {
                m_failed.fetch_add(1, std::memory_order_relaxed);
                EDR_LOG_ERROR("Baseline pass failed: " << e.what());
            }
            lock.lock();
            if (recorded)
            {
                nextBaseline = now + m_baselineInterval;
            }
            continue;
        }
        auto due = m_pending.NextDue();
        if (due)
        {
            due = std::max(*due, m_nextRound);
        }
        if (baseline && (!due || nextBaseline < *due))
        {
            due = nextBaseline;
        }
        m_sleepsUntil = due ? *due : Clock::time_point::max();
        if (due)
        {
            m_wake.wait_until(lock, *due);
        }
        else
        {
            m_wake.wait(lock);
        }
        m_sleepsUntil = Clock::time_point::min();
    }
    // Nothing accepted is lost: what waits is built now.
    while (auto group = m_pending.TakeFirst())
    {
        m_round.push_back(std::move(*group));
    }
    if (!m_round.empty())
    {
        BuildUnlocked(lock);
    }
    m_done.notify_all();
    lock.unlock();
    const size_t left = m_baseline.Abandon();
    if (left > 0)
    {
        EDR_LOG_WARNING("Baseline pass stopped with " << left << " watched paths not done");
    }
}

} // namespace vantor::fim::internal
