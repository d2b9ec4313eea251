#include "edr/daemon/HealthMonitor.h"

#include "common/Logging.h"

#include <stdexcept>

namespace vantor::edr
{

HealthMonitor::HealthMonitor(std::shared_ptr<AHSRecordWriter> writer, std::chrono::seconds interval,
                             Clock clock)
    : common::PeriodicSchedule(interval, std::move(clock))
    , m_writer(std::move(writer))
{
    if (!m_writer)
    {
        throw std::invalid_argument("HealthMonitor: 'writer' cannot be null");
    }
}

void HealthMonitor::AddSource(Source source)
{
    std::lock_guard lock(m_mutex);
    Entry entry;
    entry.primed = !source.fromFirstReading;
    entry.source = std::move(source);
    m_entries.push_back(std::move(entry));
}

void HealthMonitor::Run()
{
    Sample();
}

void HealthMonitor::Close()
{
    Sample();
    std::lock_guard lock(m_mutex);
    m_closed = true;
}

size_t HealthMonitor::Sample()
{
    std::lock_guard lock(m_mutex);
    size_t written = 0;
    if (m_closed)
    {
        return written;
    }
    for (auto& entry : m_entries)
    {
        std::optional<Reading> reading;
        try
        {
            reading = entry.source.read();
        }
        catch (const std::exception& e)
        {
            EDR_LOG_ERROR("HealthMonitor: Failed to read " << entry.source.contextId << ": " << e.what());
        }
        if (!reading)
        {
            continue;
        }
        const auto& totals = reading->totals;
        entry.last.resize(totals.size(), 0);
        std::vector<AHSRecordWriter::Field> fields;
        bool moved = false;
        for (size_t i = 0; i < totals.size(); ++i)
        {
            const uint64_t total = totals[i].second;
            const uint64_t delta = total >= entry.last[i] ? total - entry.last[i] : total;
            entry.last[i] = total;
            moved = moved || delta != 0;
            fields.emplace_back(totals[i].first, delta);
        }
        if (!entry.primed)
        {
            entry.primed = true;
            continue;
        }
        if (!moved)
        {
            continue;
        }
        for (const auto& [name, value] : reading->levels)
        {
            fields.emplace_back(name, value);
        }
        for (auto& [name, text] : reading->texts)
        {
            fields.emplace_back(name, std::move(text));
        }
        if (m_writer->Write(entry.source.contextId, entry.source.statusCode, entry.source.state, fields))
        {
            ++written;
        }
    }
    return written;
}

} // namespace vantor::edr
