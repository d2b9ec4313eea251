#pragma once

#include "audit/Event.h"

#include <string>

namespace vantor::audit::internal
{

// An abnormal program end (ANOM_ABEND record): a process killed by a signal
// that dumps core.
class AbendEvent : public Event
{
public:
    explicit AbendEvent(auparse_state_t* au);

    std::unique_ptr<edr::Event> Clone() const override;
    edr::EventType GetType() const override;
    std::string GetActionName() const override;
    pid_t GetActorProcessId() const override;
    std::string GetActorUserName() const override;
    uint32_t GetActorUserId() const override;
    std::string GetActorLoginName() const override;
    uint32_t GetActorAuid() const override;
    std::string GetImage() const override;
    uint32_t GetCategory() const override;
    bool IsSuccessful() const override;
    bool IsThread() const override;
    void UpdateActorProcessId(pid_t pid) override;

    int GetSignal() const { return m_signal; }
    const std::string& GetCommand() const { return m_comm; }

private:
    pid_t m_pid = 0;
    uint32_t m_uid = 0;
    uint32_t m_auid = 4294967295U;
    int m_signal = 0;
    std::string m_comm;
    std::string m_exe;
};

} // namespace vantor::audit::internal
