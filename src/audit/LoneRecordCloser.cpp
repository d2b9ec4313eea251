#include "audit/LoneRecordCloser.h"

#include "audit/AuditTables.h"

#include <libaudit.h>

namespace vantor::audit
{

namespace
{

// Record types that libauparse completes only on PROCTITLE or EOE (its
// bounds are libaudit's: kernel records up to the user-space anomalies).
bool WaitsForItsEnd(int type)
{
    return type >= AUDIT_FIRST_EVENT && type < AUDIT_FIRST_ANOM_MSG && type != AUDIT_PROCTITLE &&
           type != AUDIT_EOE && type != AUDIT_KERNEL;
}

} // namespace

std::optional<std::string> LoneRecordCloser::EndOfEventFor(std::string_view line)
{
    // "[node=<name> ]type=<NAME> msg=audit(<seconds>.<millis>:<serial>): ..."
    const auto typeAt = line.find("type=");
    if (typeAt == std::string_view::npos)
    {
        return std::nullopt;
    }
    const auto nameEnd = line.find(' ', typeAt);
    const auto stampAt = line.find("msg=audit(", typeAt);
    if (nameEnd == std::string_view::npos || stampAt == std::string_view::npos)
    {
        return std::nullopt;
    }
    const auto stampEnd = line.find(')', stampAt);
    if (stampEnd == std::string_view::npos)
    {
        return std::nullopt;
    }
    const std::string_view stamp = line.substr(stampAt + 4, stampEnd + 1 - (stampAt + 4));
    const int type = AuditTables::RecordType(line.substr(typeAt + 5, nameEnd - (typeAt + 5)));
    if (type == AUDIT_SYSCALL)
    {
        Remember(stamp);
        return std::nullopt;
    }
    if (!WaitsForItsEnd(type) || m_syscallStamps.find(stamp) != m_syscallStamps.end())
    {
        return std::nullopt;
    }
    return "type=EOE msg=" + std::string(stamp) + ": ";
}

void LoneRecordCloser::Remember(std::string_view stamp)
{
    if (m_syscallStamps.find(stamp) != m_syscallStamps.end())
    {
        return;
    }
    m_syscallStamps.emplace(stamp);
    m_order.emplace_back(stamp);
    if (m_order.size() > kRemembered)
    {
        m_syscallStamps.erase(m_order.front());
        m_order.pop_front();
    }
}

} // namespace vantor::audit
