#include "edr/daemon/HealthSources.h"

#include "audit/AuditNetlink.h"
#include "audit/CapturePipeline.h"
#include "audit/KernelIOChannel.h"
#include "audit/KernelRuleWatchdog.h"
#include "common/HttpUploader.h"
#include "edr/AHSUploadSchedule.h"
#include "edr/EventRuleEngine.h"
#include "edr/daemon/MemoryWatchdog.h"
#include "fim/Component.h"
#include "ioc/Component.h"

namespace vantor::edr
{

namespace
{

using Reading = HealthMonitor::Reading;

HealthMonitor::Source Make(const char* contextId, int64_t statusCode, AHSState state,
                           HealthMonitor::Read read)
{
    HealthMonitor::Source source;
    source.contextId = contextId;
    source.statusCode = statusCode;
    source.state = state;
    source.read = std::move(read);
    return source;
}

// The kernel's 32-bit counter made a 64-bit total that survives its wrap.
class Unwrapped
{
public:
    uint64_t Next(uint32_t raw)
    {
        m_total += static_cast<uint32_t>(raw - m_last);
        m_last = raw;
        return m_total;
    }

private:
    uint32_t m_last = 0;
    uint64_t m_total = 0;
};

} // namespace

HealthMonitor::Source HealthSources::KernelAudit()
{
    auto source =
        Make(AHSContext::kKernelAudit, AHSStatusCode::kKernelLost, AHSState::Degraded,
             [lost = Unwrapped()]() mutable -> std::optional<Reading>
             {
                 const auto status = audit::AuditNetlink().GetStatus("HealthMonitor");
                 if (!status)
                 {
                     return std::nullopt;
                 }
                 return Reading{{{"lost", lost.Next(status->lost)}},
                                {{"backlog", status->backlog}, {"backlogLimit", status->backlog_limit}},
                                {}};
             });
    source.fromFirstReading = true;
    return source;
}

HealthSources::Sources HealthSources::Capture(const audit::CapturePipeline& capture,
                                              const EventRuleEngine& engine)
{
    const audit::CapturePipeline* pipeline = &capture;
    Sources sources;
    if (const auto* kernel = dynamic_cast<const audit::KernelIOChannel*>(&capture.GetChannel()))
    {
        sources.push_back(Make(AHSContext::kKernelChannel, AHSStatusCode::kChannelOverflow,
                               AHSState::Degraded,
                               [kernel]() -> std::optional<Reading> {
                                   return Reading{{{"overflows", kernel->GetOverflowCount()}}, {}, {}};
                               }));
        sources.push_back(Make(AHSContext::kKernelChannel, AHSStatusCode::kChannelDecodeDropped,
                               AHSState::Degraded,
                               [kernel]() -> std::optional<Reading> {
                                   return Reading{{{"bytes", kernel->GetDroppedBytes()}}, {}, {}};
                               }));
    }
    sources.push_back(Make(AHSContext::kParserQueue, AHSStatusCode::kParserQueueDropped, AHSState::Degraded,
                           [pipeline]() -> std::optional<Reading>
                           {
                               const auto c = pipeline->GetCounters();
                               return Reading{{{"buffers", c.queueDroppedBuffers},
                                               {"bytes", c.queueDroppedBytes},
                                               {"discardedAtStopBytes", c.discardedBytesAtStop}},
                                              {},
                                              {}};
                           }));
    sources.push_back(Make(AHSContext::kIntake, AHSStatusCode::kIntakeUnsupported, AHSState::Ok,
                           [pipeline]() -> std::optional<Reading>
                           {
                               const auto c = pipeline->GetCounters();
                               return Reading{{{"syscalls", c.unsupportedSyscalls},
                                               {"records", c.otherRecords},
                                               {"failedCalls", c.failedCalls}},
                                              {},
                                              {}};
                           }));
    sources.push_back(Make(AHSContext::kIntake, AHSStatusCode::kIntakeMalformed, AHSState::Degraded,
                           [pipeline]() -> std::optional<Reading>
                           {
                               const auto c = pipeline->GetCounters();
                               return Reading{{{"events", c.malformedEvents},
                                               {"lines", c.overlongLines},
                                               {"feedErrors", c.feedErrors}},
                                              {},
                                              {}};
                           }));
    sources.push_back(Make(AHSContext::kProcessing, AHSStatusCode::kProcessingDropped, AHSState::Degraded,
                           [pipeline, engine = &engine]() -> std::optional<Reading>
                           {
                               const auto c = pipeline->GetCounters();
                               return Reading{{{"failed", c.failedEvents},
                                               {"handlerFailures", engine->GetHandlerFailureCount()},
                                               {"droppedAtStop", c.droppedAtStop}},
                                              {},
                                              {}};
                           }));
    sources.push_back(
        Make(AHSContext::kParserCpu, AHSStatusCode::kCpuPaused, AHSState::Degraded,
             [pipeline]() -> std::optional<Reading>
             {
                 const auto c = pipeline->GetCounters();
                 return Reading{{{"pauses", c.parserCpuPauses}, {"pausedMs", c.parserPausedMs}}, {}, {}};
             }));
    sources.push_back(Make(
        AHSContext::kProcessingCpu, AHSStatusCode::kCpuPaused, AHSState::Degraded,
        [pipeline]() -> std::optional<Reading>
        {
            const auto c = pipeline->GetCounters();
            return Reading{{{"pauses", c.processingCpuPauses}, {"pausedMs", c.processingPausedMs}}, {}, {}};
        }));
    return sources;
}

HealthSources::Sources HealthSources::Fim(const fim::Component& fim)
{
    const fim::Component* component = &fim;
    Sources sources;
    sources.push_back(
        Make(AHSContext::kFimSpool, AHSStatusCode::kSpoolEvicted, AHSState::Degraded,
             [component]() -> std::optional<Reading>
             {
                 const auto c = component->GetLossCounts();
                 return Reading{{{"files", c.spoolDroppedFiles}, {"bytes", c.spoolDroppedBytes}}, {}, {}};
             }));
    sources.push_back(
        Make(AHSContext::kFimContent, AHSStatusCode::kContentUnreadable, AHSState::Degraded,
             [component]() -> std::optional<Reading> {
                 return Reading{{{"files", component->GetLossCounts().unreadableContent}}, {}, {}};
             }));
    sources.push_back(
        Make(AHSContext::kFimDocuments, AHSStatusCode::kDocumentOverflow, AHSState::Degraded,
             [component]() -> std::optional<Reading> {
                 return Reading{{{"events", component->GetLossCounts().documentOverflows}}, {}, {}};
             }));
    sources.push_back(
        Make(AHSContext::kFimDocuments, AHSStatusCode::kDocumentFailed, AHSState::Degraded,
             [component]() -> std::optional<Reading> {
                 return Reading{{{"documents", component->GetLossCounts().failedDocuments}}, {}, {}};
             }));
    return sources;
}

HealthSources::Sources HealthSources::Uploads(const char* contextId,
                                              std::shared_ptr<const common::HttpUploader> uploader,
                                              bool countSuccesses)
{
    Sources sources;
    if (countSuccesses)
    {
        sources.push_back(Make(contextId, AHSStatusCode::kUploadSucceeded, AHSState::Ok,
                               [uploader]() -> std::optional<Reading> {
                                   return Reading{{{"uploads", uploader->GetOutcomes().succeeded}}, {}, {}};
                               }));
    }
    sources.push_back(Make(contextId, AHSStatusCode::kUploadFailed, AHSState::Degraded,
                           [uploader]() -> std::optional<Reading>
                           {
                               auto outcomes = uploader->GetOutcomes();
                               return Reading{{{"failures", outcomes.failed}},
                                              {},
                                              {{"lastError", std::move(outcomes.lastError)}}};
                           }));
    return sources;
}

HealthSources::Sources HealthSources::Ioc(const ioc::Component& ioc)
{
    const ioc::Component* component = &ioc;
    Sources sources;
    sources.push_back(Make(AHSContext::kIocQueue, AHSStatusCode::kIocQueueDropped, AHSState::Degraded,
                           [component]() -> std::optional<Reading> {
                               return Reading{{{"events", component->GetDroppedEventCount()}}, {}, {}};
                           }));
    sources.push_back(Make(AHSContext::kIocQueue, AHSStatusCode::kIocBatchLost, AHSState::Degraded,
                           [component]() -> std::optional<Reading> {
                               return Reading{{{"events", component->GetLostBatchEventCount()}}, {}, {}};
                           }));
    sources.push_back(Make(AHSContext::kIocSpool, AHSStatusCode::kSpoolEvicted, AHSState::Degraded,
                           [component]() -> std::optional<Reading>
                           {
                               const auto dropped = component->GetSpoolDropCount();
                               return Reading{{{"files", dropped.files}, {"bytes", dropped.bytes}}, {}, {}};
                           }));
    return sources;
}

HealthMonitor::Source HealthSources::StatusStore(const AHSUploadSchedule& schedule)
{
    return Make(AHSContext::kStatusStore, AHSStatusCode::kStatusEvicted, AHSState::Degraded,
                [schedule = &schedule]() -> std::optional<Reading> {
                    return Reading{{{"records", schedule->EvictedRecords()}}, {}, {}};
                });
}

HealthMonitor::Source HealthSources::KernelRules(const audit::KernelRuleWatchdog& watchdog)
{
    return Make(AHSContext::kKernelRules, AHSStatusCode::kRulesReinstalled, AHSState::Degraded,
                [watchdog = &watchdog]() -> std::optional<Reading>
                {
                    return Reading{{{"missing", watchdog->TotalMissing()},
                                    {"reinstalled", watchdog->TotalReinstalled()}},
                                   {},
                                   {}};
                });
}

HealthMonitor::Source HealthSources::Memory(const MemoryWatchdog& watchdog)
{
    return Make(AHSContext::kDaemonMemory, AHSStatusCode::kMemoryStrike, AHSState::Degraded,
                [watchdog = &watchdog]() -> std::optional<Reading>
                {
                    return Reading{{{"strikes", watchdog->TotalStrikes()}},
                                   {{"hardLimitKb", watchdog->GetLimits().hardKb}},
                                   {}};
                });
}

} // namespace vantor::edr
