#pragma once

#include "edr/Event.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vantor::test
{

// An event with settable fields; what it leaves out throws like any event.
class TestEvent : public edr::Event
{
public:
    edr::EventType type = edr::EventType::Write;
    uint32_t id = 1;
    uint64_t timestamp = 1000;
    pid_t pid = 0;
    pid_t ppid = 0;
    std::string image = "/usr/bin/test";
    std::vector<std::string> arguments;
    uint32_t category = 1;
    bool successful = true;
    std::string file = "/watched/file";
    std::string newFile;
    int refreshed = 0;
    // Set: the capture's reading of the actor's /proc stat (nothing: gone).
    std::optional<std::optional<edr::ProcessStat>> actorStat;

    std::unique_ptr<Event> Clone() const override { return std::make_unique<TestEvent>(*this); }
    edr::EventType GetType() const override { return type; }
    std::string GetActionName() const override { return "Test"; }
    uint32_t GetEventId() const override { return id; }
    uint32_t GetActorEuid() const override { return 0; }
    std::vector<std::string> GetActorProcessArguments() const override { return arguments; }
    pid_t GetActorProcessId() const override { return pid; }
    pid_t GetActorParentProcessId() const override { return ppid; }
    uint32_t GetActorUserId() const override { return 0; }
    uint32_t GetActorAuid() const override { return 1000; }
    std::string GetFile() const override { return file; }
    std::string GetNewFile() const override { return newFile; }
    std::string GetImage() const override { return image; }
    uint32_t GetCategory() const override { return category; }
    uint64_t GetTimestamp() const override { return timestamp; }
    bool IsSuccessful() const override { return successful; }
    void Refresh() override { ++refreshed; }
    void UpdateActorProcessId(pid_t newPid) override { pid = newPid; }
    bool HasActorProcessStat() const override { return actorStat.has_value(); }
    std::optional<edr::ProcessStat> GetActorProcessStat() const override
    {
        return actorStat ? *actorStat : Event::GetActorProcessStat();
    }
};

inline std::unique_ptr<TestEvent> MakeEvent(edr::EventType type, pid_t pid, uint32_t id = 1)
{
    auto event = std::make_unique<TestEvent>();
    event->type = type;
    event->pid = pid;
    event->id = id;
    return event;
}

} // namespace vantor::test
