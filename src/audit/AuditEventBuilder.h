#pragma once

#include "audit/EventBuilder.h"
#include "edr/LibMagicWrapper.h"

#include <memory>

namespace vantor::audit
{

// Builds the event classes from libauparse states.
class AuditEventBuilder : public EventBuilder
{
public:
    // The magic database wrapper describes file types for file events; it is
    // shared with the events, which may outlive the builder.
    explicit AuditEventBuilder(std::shared_ptr<const edr::LibMagicWrapper> magic);

    void BuildSyscallEvent(AuditEventClass eventClass, auparse_state_t* state, Events& out) override;
    void BuildAbendEvent(auparse_state_t* state, Events& out) override;

private:
    std::shared_ptr<const edr::LibMagicWrapper> m_magic;
};

} // namespace vantor::audit
