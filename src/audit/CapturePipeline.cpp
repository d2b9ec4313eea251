#include "audit/CapturePipeline.h"

#include "audit/AuditEventProcessor.h"
#include "common/Logging.h"

namespace vantor::audit
{

namespace
{
CapturePipeline::CpuUsage Sampler(const std::function<CapturePipeline::CpuUsage()>& make)
{
    return make ? make() : CapturePipeline::CpuUsage{};
}

ParserThread::CpuUsageSource ParserSampler(CapturePipeline::CpuUsage usage)
{
    if (!usage)
    {
        return nullptr;
    }
    return [usage = std::move(usage)]() -> double { return usage(); };
}
} // namespace

CapturePipeline::CapturePipeline(std::unique_ptr<common::IOChannel> channel,
                                 std::shared_ptr<const edr::LibMagicWrapper> magic,
                                 AuditEventProcessor& processor, Limits limits,
                                 const std::function<CpuUsage()>& makeCpuUsage)
    : m_channel(std::move(channel))
    , m_processor(processor)
    // A file event that no path rule routes goes nowhere: its stat is
    // spared while it is built.
    , m_builder(std::move(magic), [&processor](std::string_view path) { return processor.RoutesPath(path); })
    , m_processing(processor, limits.cpuPercent, Sampler(makeCpuUsage))
    , m_parser(
          m_builder, [this](ParserThread::Events events) { m_processing.Enqueue(std::move(events)); },
          ParserSampler(Sampler(makeCpuUsage)), limits.cpuPercent)
{
    if (limits.totalMemoryKb != 0)
    {
        m_processing.SetQueueSize(limits.memoryPercent * limits.totalMemoryKb / 100);
        m_parser.SetQueueSize(limits.memoryPercent * limits.totalMemoryKb);
    }
    m_channel->SetDataCallback([this](std::vector<uint8_t> data) { m_parser.Enqueue(std::move(data)); });
    m_channel->SetErrorCallback(
        [](common::IOChannel::Error error)
        { EDR_LOG_ERROR("Audit channel failed: " << common::IOChannel::ErrorText(error)); });
}

CapturePipeline::~CapturePipeline()
{
    Stop();
}

CaptureCounters CapturePipeline::GetCounters() const
{
    CaptureCounters counters;
    m_parser.AddCounters(counters);
    m_processing.AddCounters(counters);
    counters.malformedEvents += m_builder.GetFailedReplacedDeleteCount();
    counters.failedEvents += m_processor.GetFailedEventCount();
    return counters;
}

void CapturePipeline::Start()
{
    m_processing.Start();
    m_parser.Start();
    m_started = true;
    m_channel->Start();
}

void CapturePipeline::Stop()
{
    if (!m_started)
    {
        return;
    }
    m_started = false;
    m_channel->Stop();
    // The processing thread first: a parser blocked on its full queue is let
    // go by the stop instead of waiting for a whole batch to be processed.
    m_processing.Stop();
    m_parser.Stop();
}

} // namespace vantor::audit
