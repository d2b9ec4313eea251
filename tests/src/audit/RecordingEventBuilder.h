#pragma once

// An EventBuilder for tests of the audit intake: it records which builder
// operation each complete audit event reached (the class, or abnormal end)
// with the event's serial and its PATH names, and answers a minimal event
// that carries the serial. Serials listed in RejectSerial are refused with an
// exception, as a real event class refuses records that do not fit.

#include "audit/EventBuilder.h"

#include <auparse.h>

#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace vantor::test
{

struct BuiltEvent
{
    // Empty for an abnormal end.
    std::optional<audit::AuditEventClass> eventClass;
    unsigned long serial = 0;
    // The "name" fields of the PATH records, as libauparse gives them raw.
    std::vector<std::string> names;
};

class RecordedEvent : public edr::Event
{
public:
    RecordedEvent(uint32_t serial, std::optional<audit::AuditEventClass> eventClass)
        : m_serial(serial)
        , m_eventClass(eventClass)
    {
    }
    uint32_t GetEventId() const override { return m_serial; }
    std::optional<audit::AuditEventClass> EventClass() const { return m_eventClass; }

private:
    uint32_t m_serial;
    std::optional<audit::AuditEventClass> m_eventClass;
};

class RecordingEventBuilder : public audit::EventBuilder
{
public:
    void BuildSyscallEvent(audit::AuditEventClass eventClass, auparse_state_t* state,
                           const audit::SetAsideRecords& /*aside*/, Events& out) override
    {
        Record(eventClass, state, out);
    }

    void BuildAbendEvent(auparse_state_t* state, Events& out) override { Record(std::nullopt, state, out); }

    void RejectSerial(unsigned long serial)
    {
        std::lock_guard lock(m_mutex);
        m_rejected.insert(serial);
    }

    std::vector<BuiltEvent> Built() const
    {
        std::lock_guard lock(m_mutex);
        return m_built;
    }

    void Clear()
    {
        std::lock_guard lock(m_mutex);
        m_built.clear();
    }

private:
    void Record(std::optional<audit::AuditEventClass> eventClass, auparse_state_t* state, Events& out)
    {
        BuiltEvent built{eventClass, ::auparse_get_serial(state), {}};
        if (::auparse_first_record(state) > 0)
        {
            do
            {
                // PATH records, and those joined to the SYSCALL record.
                const int type = ::auparse_get_type(state);
                if ((type != 1302 /* PATH */ && type != 1300 /* SYSCALL */) ||
                    ::auparse_first_field(state) <= 0)
                {
                    continue;
                }
                do
                {
                    const char* field = ::auparse_get_field_name(state);
                    if (field != nullptr && std::string(field) == "name")
                    {
                        const char* value = ::auparse_get_field_str(state);
                        built.names.emplace_back(value != nullptr ? value : "");
                    }
                } while (::auparse_next_field(state) > 0);
            } while (::auparse_next_record(state) > 0);
        }
        std::lock_guard lock(m_mutex);
        if (m_rejected.count(built.serial) > 0)
        {
            throw std::runtime_error("Rejected by the test builder");
        }
        m_built.push_back(built);
        out.push_back(std::make_unique<RecordedEvent>(static_cast<uint32_t>(built.serial), eventClass));
    }

    mutable std::mutex m_mutex;
    std::vector<BuiltEvent> m_built;
    std::set<unsigned long> m_rejected;
};

} // namespace vantor::test
