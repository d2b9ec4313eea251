#pragma once

#include "audit/FileEvent.h"

namespace vantor::audit::internal
{

// A change of a file's attributes (mode, owner, times, extended attributes).
class AttributeEvent : public FileEvent
{
public:
    // A gate that routes none of its paths spares the stat (see SetObject).
    AttributeEvent(auparse_state_t* au, const SetAsideRecords& aside, Magic magic, const StatGate& gate = {});

    std::unique_ptr<edr::Event> Clone() const override;
    edr::EventType GetType() const override;
    std::string GetActionName() const override;
};

} // namespace vantor::audit::internal
