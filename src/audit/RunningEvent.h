#pragma once

#include "audit/SyscallEvent.h"

namespace vantor::audit::internal
{

// A process start (execve): arguments from the EXECVE record, the executed
// file from the first PATH record, the working directory from CWD.
class RunningEvent : public SyscallEvent
{
public:
    RunningEvent(auparse_state_t* au, const SetAsideRecords& aside);

    std::unique_ptr<edr::Event> Clone() const override;
    edr::EventType GetType() const override;
    std::string GetActionName() const override;
    std::vector<std::string> GetActorProcessArguments() const override;
    std::string GetCommandLine() const override;
    uint32_t GetCategory() const override;
    std::string GetCwd() const override;
    // The file named by the call (a script, where the image is its
    // interpreter).
    std::string GetSecondaryImage() const override;
    bool HasProcess() const override;

private:
    std::string m_executable;
};

} // namespace vantor::audit::internal
