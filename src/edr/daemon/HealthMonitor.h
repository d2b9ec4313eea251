#pragma once

#include "common/PeriodicSchedule.h"
#include "edr/AHSRecord.h"
#include "edr/AHSRecordWriter.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vantor::edr
{

// The periodic sampler of the daemon's counters: every place that can lose
// an event, the uploaders' outcomes, the CPU pauses and memory strikes. The
// counters are totals kept by their owners (relaxed atomics bumped where
// the thing happens, so that counting costs the hot path no lock or system
// call); the monitor reads them on the Scheduler and writes, per source, one
// record of what changed since its last record. A source whose totals did
// not move writes nothing: the store carries changes only, and a quiet host
// uploads nothing.
//
// A total that goes down (its owner was made again) counts from zero.
//
// Sample and Close may be called from any thread; sources are added before
// the monitor is registered.
class HealthMonitor : public common::PeriodicSchedule
{
public:
    struct Reading
    {
        // Totals, written as the change since the last record.
        std::vector<std::pair<const char*, uint64_t>> totals;
        // Values written as read: a level, a limit.
        std::vector<std::pair<const char*, uint64_t>> levels;
        std::vector<std::pair<const char*, std::string>> texts;
    };
    // Nothing when the counters cannot be read now (tried again next time).
    using Read = std::function<std::optional<Reading>()>;

    struct Source
    {
        std::string contextId;
        int64_t statusCode = 0;
        AHSState state = AHSState::Degraded;
        Read read;
        // The first reading is the starting point, not a change: for
        // counters that began before the daemon (the kernel's).
        bool fromFirstReading = false;
    };

    // Throws std::invalid_argument for a null writer.
    HealthMonitor(std::shared_ptr<AHSRecordWriter> writer, std::chrono::seconds interval, Clock clock = {});

    void AddSource(Source source);

    // Reads every source; answers how many records it wrote.
    size_t Sample();
    // A last sample, after which the sources are no longer read: their
    // owners may go once this returns.
    void Close();

protected:
    void Run() override;

private:
    struct Entry
    {
        Source source;
        std::vector<uint64_t> last;
        bool primed = false;
    };

    const std::shared_ptr<AHSRecordWriter> m_writer;
    std::mutex m_mutex;
    std::vector<Entry> m_entries;
    bool m_closed = false;
};

} // namespace vantor::edr
