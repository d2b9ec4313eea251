#pragma once

#include "audit/SyscallEvent.h"

namespace vantor::audit::internal
{

// A new process: clone, fork or vfork. A clone that makes a thread
// (CLONE_THREAD) is refused: threads are not tracked.
class CloneEvent : public SyscallEvent
{
public:
    CloneEvent(auparse_state_t* au, const SetAsideRecords& aside);

    std::unique_ptr<edr::Event> Clone() const override;
    edr::EventType GetType() const override;
    std::string GetActionName() const override;
    uint32_t GetCategory() const override;

    // The new process (the call's return value).
    pid_t GetChildProcessId() const { return static_cast<pid_t>(m_records.syscall.exit); }
};

} // namespace vantor::audit::internal
