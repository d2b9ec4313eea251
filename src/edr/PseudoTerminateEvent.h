#pragma once

#include "edr/Event.h"

#include <string>

namespace vantor::edr
{

// The end of a process that was noticed without an audited exit (the process
// tree found it gone). The type is given by the maker; the action is "Exit".
class PseudoTerminateEvent : public Event
{
public:
    PseudoTerminateEvent(EventType type, pid_t pid, pid_t parentPid, std::string image, uint64_t timestamp);

    std::unique_ptr<Event> Clone() const override;
    EventType GetType() const override;
    std::string GetActionName() const override;
    uint32_t GetEventId() const override;
    pid_t GetActorProcessId() const override;
    pid_t GetActorParentProcessId() const override;
    std::string GetImage() const override;
    uint32_t GetCategory() const override;
    uint64_t GetTimestamp() const override;
    bool HasProcess() const override;
    bool IsSuccessful() const override;
    bool IsThread() const override;
    void UpdateActorProcessId(pid_t pid) override;

private:
    EventType m_type;
    pid_t m_pid;
    pid_t m_parentPid;
    std::string m_image;
    uint64_t m_timestamp;
};

} // namespace vantor::edr
