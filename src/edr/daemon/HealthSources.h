#pragma once

#include "edr/daemon/HealthMonitor.h"

#include <memory>

namespace vantor::audit
{
class CapturePipeline;
class KernelRuleWatchdog;
} // namespace vantor::audit

namespace vantor::common
{
class HttpUploader;
} // namespace vantor::common

namespace vantor::fim
{
class Component;
} // namespace vantor::fim

namespace vantor::ioc
{
class Component;
} // namespace vantor::ioc

namespace vantor::edr
{

class AHSUploadSchedule;
class EventRuleEngine;
class MemoryWatchdog;

// The sources of the health monitor, one per place that can lose or hold
// back events and per uploader outcome, each under its context id and
// status code. A source reads the owner's counters, so the owner must stay
// until the monitor is closed.
class HealthSources
{
public:
    using Source = HealthMonitor::Source;
    using Sources = std::vector<Source>;

    // The kernel's lost counter (counted from the daemon's start) with its
    // backlog and backlog limit, through the audit status request.
    static Source KernelAudit();
    // The capture path: the kernel channel's overflows and dropped bytes
    // (when it reads the kernel), the parser queue, the intake, the
    // processing and the handlers, the CPU pauses.
    static Sources Capture(const audit::CapturePipeline& capture, const EventRuleEngine& engine);
    static Sources Fim(const fim::Component& fim);
    // Successes (when countSuccesses) and failures with the last error.
    static Sources Uploads(const char* contextId, std::shared_ptr<const common::HttpUploader> uploader,
                           bool countSuccesses);
    // Events the IOC processing queue dropped when full, and messages of
    // batches the IOC spool refused.
    static Sources Ioc(const ioc::Component& ioc);
    // Kernel rules of ours that somebody else removed and that were put back.
    static Source KernelRules(const audit::KernelRuleWatchdog& watchdog);
    static Source StatusStore(const AHSUploadSchedule& schedule);
    static Source Memory(const MemoryWatchdog& watchdog);
};

} // namespace vantor::edr
