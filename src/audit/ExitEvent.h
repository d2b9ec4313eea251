#pragma once

#include "audit/SyscallEvent.h"

namespace vantor::audit::internal
{

// The end of a process (exit_group).
class ExitEvent : public SyscallEvent
{
public:
    ExitEvent(auparse_state_t* au, const SetAsideRecords& aside);

    std::unique_ptr<edr::Event> Clone() const override;
    edr::EventType GetType() const override;
    std::string GetActionName() const override;
    uint32_t GetCategory() const override;
    // exit_group never returns, so its record carries no success field; a
    // record of it means the process ended.
    bool IsSuccessful() const override;

    int GetExitCode() const { return static_cast<int>(m_records.syscall.args[0]); }
};

} // namespace vantor::audit::internal
