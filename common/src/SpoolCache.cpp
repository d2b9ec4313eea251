#include "common/SpoolCache.h"

#include "common/Logging.h"
#include "common/SpoolStorageException.h"

namespace vantor::common::internal
{

SpoolCache::SpoolCache(std::unique_ptr<SpoolDataFormatter> formatter, ScheduleSync scheduleSync)
    : m_formatter(std::move(formatter))
    , m_scheduleSync(std::move(scheduleSync))
{
}

std::size_t SpoolCache::Append(std::string_view record, std::chrono::seconds maxAge, bool own)
{
    const std::size_t added = own ? m_formatter->AppendOwn(record) : m_formatter->Append(record);
    const bool started = m_records == 0;
    m_size += added;
    ++m_records;
    EDR_LOG_DEBUG("SpoolStorage: Added " << added << " bytes to cache. Current Cache size: " << m_size);
    if (started)
    {
        m_start = SteadyClock::now();
        Arm(m_start + maxAge);
        EDR_LOG_DEBUG("SpoolStorage: Scheduled cache sync after " << maxAge.count() << " seconds.");
    }
    return added;
}

const std::string& SpoolCache::Serialize()
{
    try
    {
        m_formatter->Serialize(m_buffer);
    }
    catch (const std::exception&)
    {
        EDR_LOG_ERROR("SpoolStorage::FlushDataCache: Failed to serialize data cache. Resetting cache.");
        Reset();
        throw SpoolStorageException("Failed to serialize data cache");
    }
    return m_buffer;
}

void SpoolCache::Reset()
{
    m_formatter->Reset();
    m_size = 0;
    m_records = 0;
}

void SpoolCache::Rearm(std::chrono::seconds maxAge)
{
    if (!Empty())
    {
        Arm(m_start + maxAge);
    }
}

bool SpoolCache::SyncDue(SteadyClock::time_point deadline, std::chrono::seconds maxAge)
{
    if (!m_syncDeadline || *m_syncDeadline != deadline)
    {
        return false; // superseded by an earlier one
    }
    m_syncDeadline.reset();
    if (Empty())
    {
        return false;
    }
    const auto due = m_start + maxAge;
    if (SteadyClock::now() < due)
    {
        Arm(due); // the cache was restarted since this was armed
        return false;
    }
    return true;
}

void SpoolCache::Arm(SteadyClock::time_point deadline)
{
    if (m_syncDeadline && *m_syncDeadline <= deadline)
    {
        return; // an earlier sync is pending; it re-arms for the rest
    }
    if (m_scheduleSync(deadline))
    {
        m_syncDeadline = deadline;
    }
}

} // namespace vantor::common::internal
