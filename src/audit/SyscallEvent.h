#pragma once

#include "audit/AuditRecords.h"
#include "audit/Event.h"

namespace vantor::audit::internal
{

// An event made from a SYSCALL record and the records that came with it.
// The acting process is the one the SYSCALL record names; the PROCTITLE
// record gives its command line at the time of the call.
class SyscallEvent : public Event
{
public:
    uint32_t GetActorEuid() const override;
    // The process tree's arguments, else those of the PROCTITLE record.
    std::vector<std::string> GetActorProcessArguments() const override;
    pid_t GetActorProcessId() const override;
    pid_t GetActorParentProcessId() const override;
    std::string GetActorUserName() const override;
    uint32_t GetActorUserId() const override;
    std::string GetActorLoginName() const override;
    uint32_t GetActorAuid() const override;
    // The PROCTITLE record's arguments joined by spaces, else the command
    // line the process tree knows.
    std::string GetCommandLine() const override;
    std::string GetImage() const override;
    bool IsSuccessful() const override;
    // The audit pid is the thread group id, so a syscall event never names a
    // thread on its own.
    bool IsThread() const override;
    void UpdateActorProcessId(pid_t pid) override;
    bool IsElevated() const override;

    int GetSyscall() const { return m_records.syscall.syscall; }
    const AuditRecords& Records() const { return m_records; }

protected:
    // Parses the records (wanted: AuditRecords::Wanted bits; the PROCTITLE
    // record is always read).
    SyscallEvent(auparse_state_t* au, const SetAsideRecords& aside, unsigned wanted);

    AuditRecords m_records;
};

} // namespace vantor::audit::internal
