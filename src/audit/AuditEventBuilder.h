#pragma once

#include "audit/EventBuilder.h"
#include "audit/FileEvent.h"
#include "edr/LibMagicWrapper.h"

#include <atomic>
#include <memory>

namespace vantor::audit
{

// Builds the event classes from libauparse states.
class AuditEventBuilder : public EventBuilder
{
public:
    using StatGate = internal::FileEvent::StatGate;

    // The magic database wrapper describes file types for file events; it is
    // shared with the events, which may outlive the builder. A file event
    // whose paths the gate routes nowhere gets no stat; without a gate every
    // file event is stat-ed. The gate runs on the building thread.
    explicit AuditEventBuilder(std::shared_ptr<const edr::LibMagicWrapper> magic, StatGate gate = {});

    void BuildSyscallEvent(AuditEventClass eventClass, auparse_state_t* state, const SetAsideRecords& aside,
                           Events& out) override;
    void BuildAbendEvent(auparse_state_t* state, Events& out) override;

    // Renames whose replaced target got no delete event (logged); readable
    // from any thread.
    uint64_t GetFailedReplacedDeleteCount() const
    {
        return m_failedReplacedDeletes.load(std::memory_order_relaxed);
    }

private:
    std::shared_ptr<const edr::LibMagicWrapper> m_magic;
    StatGate m_statGate;
    std::atomic<uint64_t> m_failedReplacedDeletes{0};
};

} // namespace vantor::audit
