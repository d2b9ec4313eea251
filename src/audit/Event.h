#pragma once

#include "edr/Event.h"

#include <auparse.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vantor::audit
{
class ProcessInfo;
}

namespace vantor::audit::internal
{

// An event built from the records of one audit event: it carries the audit
// serial and time of the first record, and the acting process as the process
// tree knows it (attached before any handler sees the event). Like every
// event it has one owner at a time and is not thread-safe.
class Event : public edr::Event
{
public:
    using ProcessPtr = std::shared_ptr<const ProcessInfo>;

    uint32_t GetEventId() const override;
    uint64_t GetTimestamp() const override;
    // Whether the acting process is known to the process tree.
    bool HasProcess() const override;
    // The acting process's arguments and parent as the tree knows them;
    // without it these throw as any event does.
    std::vector<std::string> GetActorProcessArguments() const override;
    pid_t GetActorParentProcessId() const override;
    // The acting process's arguments joined by spaces; without it throws
    // "GetCommandLine not implemented".
    std::string GetCommandLine() const override;

    // Null clears it.
    void SetActorProcess(ProcessPtr process) { m_actor = std::move(process); }
    const ProcessPtr& GetActorProcess() const { return m_actor; }

    // The acting process's /proc stat as the process tree read it when it
    // recorded this event's process start (nothing: the process had gone).
    void SetActorProcessStat(std::optional<edr::ProcessStat> stat)
    {
        m_actorStat = stat;
        m_hasActorStat = true;
    }
    bool HasActorProcessStat() const override { return m_hasActorStat; }
    std::optional<edr::ProcessStat> GetActorProcessStat() const override;

    // Whether the acting process ran with more rights than its user.
    virtual bool IsElevated() const;

protected:
    // Reads the serial and time. Throws EventException "auparse state is
    // NULL", "auparse state is invalid or has no records", "Failed to parse
    // first record" or "Missing event ID or timestamp".
    explicit Event(auparse_state_t* au);

    // The user and login names, looked up once per event (and once per uid in
    // the process).
    const std::string& CachedUserName(uint32_t uid) const;
    const std::string& CachedLoginName(uint32_t auid) const;

private:
    uint32_t m_serial = 0;
    uint64_t m_timestamp = 0;
    mutable std::string m_userName;
    mutable std::string m_loginName;
    ProcessPtr m_actor;
    bool m_hasActorStat = false;
    std::optional<edr::ProcessStat> m_actorStat;
};

} // namespace vantor::audit::internal
