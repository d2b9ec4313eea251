#pragma once

#include "edr/Event.h"

#include <auparse.h>

#include <cstdint>
#include <string>

namespace vantor::audit::internal
{

// An event built from the records of one audit event: it carries the audit
// serial and time of the first record.
class Event : public edr::Event
{
public:
    uint32_t GetEventId() const override;
    uint64_t GetTimestamp() const override;
    bool HasProcess() const override;

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
};

} // namespace vantor::audit::internal
