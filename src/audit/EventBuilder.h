#pragma once

#include "audit/AuditEventClass.h"
#include "audit/SetAsideRecords.h"
#include "edr/Event.h"

#include <auparse.h>

#include <memory>
#include <vector>

namespace vantor::audit
{

// Builds typed events from the libauparse state of one complete audit event.
// The intake decides the class from the SYSCALL record; the builder checks the
// records and throws (EventException or a std::runtime_error with the class's
// rejection text) when the event does not fit its class.
class EventBuilder
{
public:
    using Events = std::vector<std::unique_ptr<edr::Event>>;

    virtual ~EventBuilder() = default;

    // Appends the event(s) built from the state and the values set aside for
    // it; a rename that replaced its target appends a delete event for the
    // target as well.
    virtual void BuildSyscallEvent(AuditEventClass eventClass, auparse_state_t* state,
                                   const SetAsideRecords& aside, Events& out) = 0;
    // An abnormal end (ANOM_ABEND record).
    virtual void BuildAbendEvent(auparse_state_t* state, Events& out) = 0;
};

} // namespace vantor::audit
