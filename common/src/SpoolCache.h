#pragma once

#include "common/SpoolDataFormatter.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace vantor::common::internal
{

// A spool's in-memory cache: the records its data formatter holds since the
// last flush, their size, and the one-shot sync that bounds how long the
// first of them waits in memory (the max file age).
//
// Not thread-safe: the spool calls it under its mutex, from the sync's task
// as well.
class SpoolCache
{
public:
    using SteadyClock = std::chrono::steady_clock;
    // Queues the spool's sync for the deadline on the spool's task; answers
    // false when the task is refused.
    using ScheduleSync = std::function<bool(SteadyClock::time_point deadline)>;

    SpoolCache(std::unique_ptr<SpoolDataFormatter> formatter, ScheduleSync scheduleSync);

    bool Empty() const { return m_records == 0; }
    std::size_t Size() const { return m_size; }

    // Adds a record and answers the bytes it added to the cache. A record
    // the formatter refuses throws, and the cache is unchanged. The first
    // record of a cache arms the sync maxAge later. An own record goes to the
    // formatter's AppendOwn.
    std::size_t Append(std::string_view record, std::chrono::seconds maxAge, bool own = false);

    // The serialised cache; empty when the formatter gives nothing. When the
    // formatter fails, the cache is dropped and SpoolStorageException
    // "Failed to serialize data cache" thrown.
    const std::string& Serialize();
    void Reset();

    // The max age changed: a held cache is synced by its new time.
    void Rearm(std::chrono::seconds maxAge);
    // The sync armed for deadline came due: answers whether the cache must
    // be flushed now. A sync superseded by an earlier one answers false, as
    // does one for a cache restarted since, which is armed again.
    bool SyncDue(SteadyClock::time_point deadline, std::chrono::seconds maxAge);

private:
    void Arm(SteadyClock::time_point deadline);

    const std::unique_ptr<SpoolDataFormatter> m_formatter;
    const ScheduleSync m_scheduleSync;
    std::size_t m_size = 0;
    std::size_t m_records = 0;
    SteadyClock::time_point m_start{};
    std::optional<SteadyClock::time_point> m_syncDeadline;
    std::string m_buffer;
};

} // namespace vantor::common::internal
