#include "ioc/BatchWriter.h"

#include "common/Logging.h"
#include "edr/Event.h"
#include "ioc/ProcessInfo.h"
#include "ioc/protobuf/DataFormatter.h"

namespace vantor::ioc::internal
{

BatchWriter::BatchWriter(protobuf::DataFormatter& formatter, Clock clock)
    : m_formatter(formatter)
    , m_clock(std::move(clock))
{
}

void BatchWriter::Append(const edr::Event& event, const ProcessInfo* actor)
{
    if (!m_formatter.InBatch())
    {
        m_formatter.Start();
        m_opened = m_clock();
    }
    m_formatter.Append(event, actor);
    if (actor && event.GetType() == edr::EventType::Running)
    {
        m_formatter.AppendLoadedModules(event, *actor);
    }
    if (m_formatter.IsFull() || m_formatter.EventCount() >= kMaxEvents)
    {
        Finish();
    }
}

void BatchWriter::FinishIfDue(bool force)
{
    if (!m_formatter.InBatch())
    {
        return;
    }
    if (force || m_clock() - m_opened >= kMaxAge)
    {
        Finish();
    }
}

void BatchWriter::Finish()
{
    const std::size_t events = m_formatter.EventCount();
    try
    {
        if (m_formatter.Finish() || events == 0)
        {
            return;
        }
    }
    catch (const std::exception& e)
    {
        // The formatter has closed the batch; the next event opens another.
        EDR_LOG_ERROR("Failed to finish IOC event batch: " << e.what());
    }
    m_lostEvents.fetch_add(events, std::memory_order_relaxed);
}

} // namespace vantor::ioc::internal
