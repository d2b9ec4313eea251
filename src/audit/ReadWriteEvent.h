#pragma once

#include "audit/FileEvent.h"

namespace vantor::audit::internal
{

// An open (or read/write call) of a file: read, write or create, decided
// from the PATH record and the call's flags.
class ReadWriteEvent : public FileEvent
{
public:
    // A gate that routes none of its paths spares the stat (see SetObject).
    ReadWriteEvent(auparse_state_t* au, const SetAsideRecords& aside, Magic magic, const StatGate& gate = {});

    std::unique_ptr<edr::Event> Clone() const override;
    edr::EventType GetType() const override;
    std::string GetActionName() const override;

private:
    edr::EventType m_type = edr::EventType::Write;
};

} // namespace vantor::audit::internal
