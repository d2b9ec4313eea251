#pragma once

#include "edr/Event.h"
#include "edr/ProcessLookup.h"

#include <string>
#include <vector>

namespace vantor::edr
{

// A process start made up from process data (a process found running, or a
// container runtime process) rather than from audit records. Its event id is
// 0, so it is not ordered against audited events by serial.
class PseudoRunningEvent : public Event
{
public:
    // What a process lookup knows, and what only a made-up start carries.
    struct Process : ProcessLookup::Process
    {
        std::string userName;
        std::string loginName;
        std::string cwd;
        // Milliseconds since the epoch.
        uint64_t timestamp = 0;
    };

    explicit PseudoRunningEvent(Process process);

    std::unique_ptr<Event> Clone() const override;
    EventType GetType() const override;
    std::string GetActionName() const override;
    uint32_t GetEventId() const override;
    uint32_t GetActorEuid() const override;
    std::vector<std::string> GetActorProcessArguments() const override;
    pid_t GetActorProcessId() const override;
    pid_t GetActorParentProcessId() const override;
    std::string GetActorUserName() const override;
    uint32_t GetActorUserId() const override;
    std::string GetActorLoginName() const override;
    uint32_t GetActorAuid() const override;
    std::string GetCommandLine() const override;
    std::string GetImage() const override;
    uint32_t GetCategory() const override;
    std::string GetCwd() const override;
    uint64_t GetTimestamp() const override;
    bool HasProcess() const override;
    bool IsSuccessful() const override;
    bool IsThread() const override;
    void UpdateActorProcessId(pid_t pid) override;

private:
    Process m_process;
};

} // namespace vantor::edr
