#include "edr/daemon/MemoryWatchdog.h"

#include "common/Logging.h"

#include <malloc.h>

namespace vantor::edr
{

MemoryWatchdog::Limits MemoryWatchdog::ComputeLimits(uint64_t totalMemoryKb, uint64_t memoryLimitPercent)
{
    constexpr uint64_t kDefaultSoftKb = 409600;
    constexpr uint64_t kMaxSoftKb = 2097152;
    const uint64_t product = totalMemoryKb * memoryLimitPercent;
    uint64_t soft = kDefaultSoftKb;
    if (product > 40959999)
    {
        soft = std::min<uint64_t>(product / 100, kMaxSoftKb);
    }
    return Limits{soft, static_cast<uint64_t>(static_cast<double>(soft) * 1.5)};
}

MemoryWatchdog::MemoryWatchdog(uint64_t totalMemoryKb, uint64_t memoryLimitPercent, UsagePercent usage,
                               SteadyClock clock, Trim trim)
    : m_totalMemoryKb(totalMemoryKb)
    , m_limits(ComputeLimits(totalMemoryKb, memoryLimitPercent))
    , m_usage(std::move(usage))
    , m_clock(clock ? std::move(clock) : SteadyClock([] { return std::chrono::steady_clock::now(); }))
    , m_trim(trim ? std::move(trim) : Trim([] { return ::malloc_trim(0); }))
{
    m_lastCheck = Now();
}

std::chrono::steady_clock::time_point MemoryWatchdog::Now() const
{
    return m_clock();
}

void MemoryWatchdog::Reset()
{
    m_lastCheck = Now();
}

bool MemoryWatchdog::Check()
{
    const auto now = Now();
    if (now - m_lastCheck <= kCheckInterval)
    {
        return m_strikes == kStrikesToStop;
    }
    EDR_LOG_DEBUG("MEMCHECK: Memory threshold: softLimit: " << m_limits.softKb << " KB "
                                                            << " HardLimit: " << m_limits.hardKb << " KB.");
    if (m_trim() == 1)
    {
        EDR_LOG_DEBUG("MEMCHECK: Memory released back to OS after trim");
    }
    else
    {
        EDR_LOG_DEBUG("MEMCHECK: No memory was released back to OS after trim.");
    }
    const float percent = m_usage();
    const auto usageKb = static_cast<uint64_t>(percent / 100.0f * static_cast<float>(m_totalMemoryKb));
    EDR_LOG_DEBUG("MEMCHECK: Current memory consumption of edr process " << usageKb << " KB");
    m_lastCheck = now;
    if (usageKb > m_limits.hardKb)
    {
        ++m_strikes;
        m_totalStrikes.fetch_add(1, std::memory_order_relaxed);
        EDR_LOG_DEBUG("MEMCHECK: Strike : " << m_strikes << " as memory went over hard limit:  "
                                            << m_limits.hardKb << " KB.");
        return m_strikes == kStrikesToStop;
    }
    if (usageKb >= m_limits.softKb)
    {
        return m_strikes == kStrikesToStop;
    }
    m_strikes = 0;
    return false;
}

} // namespace vantor::edr
