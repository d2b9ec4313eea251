#include "audit/AuditEventBuilder.h"

#include "audit/AbendEvent.h"
#include "audit/AttributeEvent.h"
#include "audit/CloneEvent.h"
#include "audit/CreateEvent.h"
#include "audit/DeleteEvent.h"
#include "audit/ExitEvent.h"
#include "audit/NetworkEvent.h"
#include "audit/ReadWriteEvent.h"
#include "audit/RenameEvent.h"
#include "audit/RunningEvent.h"
#include "common/Logging.h"

namespace vantor::audit
{

AuditEventBuilder::AuditEventBuilder(std::shared_ptr<const edr::LibMagicWrapper> magic, StatGate gate)
    : m_magic(std::move(magic))
    , m_statGate(std::move(gate))
{
}

void AuditEventBuilder::BuildSyscallEvent(AuditEventClass eventClass, auparse_state_t* state,
                                          const SetAsideRecords& aside, Events& out)
{
    using namespace internal;
    std::unique_ptr<edr::Event> event;
    switch (eventClass)
    {
    case AuditEventClass::ReadWrite:
        event = std::make_unique<ReadWriteEvent>(state, aside, m_magic, m_statGate);
        break;
    case AuditEventClass::Network:
        event = std::make_unique<NetworkEvent>(state, aside);
        break;
    case AuditEventClass::Clone:
        event = std::make_unique<CloneEvent>(state, aside);
        break;
    case AuditEventClass::Running:
        event = std::make_unique<RunningEvent>(state, aside);
        break;
    case AuditEventClass::Rename:
    {
        auto rename = std::make_unique<RenameEvent>(state, aside, m_magic, m_statGate);
        std::unique_ptr<edr::Event> replaced;
        if (const PathRecord* target = rename->GetReplaced())
        {
            try
            {
                replaced = std::make_unique<DeleteEvent>(*rename, *target);
            }
            catch (const std::exception& e)
            {
                m_failedReplacedDeletes.fetch_add(1, std::memory_order_relaxed);
                EDR_LOG_ERROR("Failed to create pseudo delete event for rename event with ID:"
                              << rename->GetEventId() << ": " << e.what());
            }
        }
        EDR_LOG_TRACE("Event Action:" << rename->GetActionName());
        out.push_back(std::move(rename));
        if (replaced)
        {
            EDR_LOG_TRACE("Event Action:" << replaced->GetActionName());
            out.push_back(std::move(replaced));
        }
        return;
    }
    case AuditEventClass::Create:
        event = std::make_unique<CreateEvent>(state, aside, m_magic, m_statGate);
        break;
    case AuditEventClass::Delete:
        event = std::make_unique<DeleteEvent>(state, aside, m_magic);
        break;
    case AuditEventClass::Attribute:
        event = std::make_unique<AttributeEvent>(state, aside, m_magic, m_statGate);
        break;
    case AuditEventClass::Exit:
        event = std::make_unique<ExitEvent>(state, aside);
        break;
    }
    if (event)
    {
        EDR_LOG_TRACE("Event Action:" << event->GetActionName());
        out.push_back(std::move(event));
    }
}

void AuditEventBuilder::BuildAbendEvent(auparse_state_t* state, Events& out)
{
    out.push_back(std::make_unique<internal::AbendEvent>(state));
}

} // namespace vantor::audit
