#pragma once

#include "edr/Event.h"

#include <string>

namespace vantor::fim::internal
{

// The pseudo event of the baseline pass: handed to the event processor it
// asks for the pass over one watched path; the pass also builds the document
// of each file it records from one. It has no type; its action is "Baseline"
// and its actor is the daemon itself.
class BaselineEvent : public edr::Event
{
public:
    explicit BaselineEvent(std::string path);

    std::unique_ptr<Event> Clone() const override;
    std::string GetActionName() const override { return "Baseline"; }
    uint32_t GetEventId() const override { return 0; }
    pid_t GetActorProcessId() const override { return m_pid; }
    uint32_t GetActorUserId() const override { return m_uid; }
    std::string GetFile() const override { return m_path; }
    uint32_t GetCategory() const override;
    uint64_t GetTimestamp() const override { return m_timestamp; }
    bool IsSuccessful() const override { return true; }

private:
    std::string m_path;
    uint64_t m_timestamp;
    pid_t m_pid;
    uint32_t m_uid;
};

} // namespace vantor::fim::internal
