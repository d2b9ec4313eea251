#include "audit/NetworkEvent.h"

#include "common/Logging.h"

#include <sys/syscall.h>

namespace vantor::audit::internal
{
namespace
{

bool IsNetworkCall(int call)
{
    return call == SYS_connect || call == SYS_bind || call == SYS_accept || call == SYS_accept4;
}

bool IsLoopback(const std::string& address, const std::string& family)
{
    return family == "inet" ? address.starts_with("127.") : address == "::1";
}

} // namespace

NetworkEvent::NetworkEvent(auparse_state_t* au, const SetAsideRecords& aside)
    : SyscallEvent(au, aside, AuditRecords::kSockaddr)
{
    if (!IsNetworkCall(GetSyscall()))
    {
        throw edr::EventException("Invalid syscall for Network event: " + std::to_string(GetSyscall()));
    }
    if (m_records.sockaddrInvalid || !m_records.sockaddr)
    {
        throw edr::EventException("Invalid SOCKADDR record in Network event");
    }
    const auto& addr = *m_records.sockaddr;
    if (addr.family != "inet" && addr.family != "inet6")
    {
        throw edr::EventException("Unsupported family in Network event: " + addr.family);
    }
    if (addr.address.empty())
    {
        throw edr::EventException("Host address unavailable in Network event");
    }
    if (!addr.port)
    {
        throw edr::EventException("Port unavailable in Network event");
    }
    if (IsLoopback(addr.address, addr.family))
    {
        EDR_LOG_DEBUG("Found Loopback address: " << addr.address);
    }
}

std::unique_ptr<edr::Event> NetworkEvent::Clone() const
{
    return std::make_unique<NetworkEvent>(*this);
}

edr::EventType NetworkEvent::GetType() const
{
    switch (GetSyscall())
    {
    case SYS_connect:
        return edr::EventType::Connect;
    case SYS_bind:
        return edr::EventType::Bind;
    case SYS_accept:
    case SYS_accept4:
        return edr::EventType::Accept;
    default:
        throw edr::EventException("Unsupported network system call");
    }
}

std::string NetworkEvent::GetActionName() const
{
    switch (GetType())
    {
    case edr::EventType::Connect:
        return "Connect";
    case edr::EventType::Bind:
        return "Bind";
    default:
        return "Accept";
    }
}

uint32_t NetworkEvent::GetCategory() const
{
    return static_cast<uint32_t>(edr::EventCategory::Network);
}

std::string NetworkEvent::GetNetworkAddress() const
{
    return m_records.sockaddr->address;
}

uint16_t NetworkEvent::GetNetworkPort() const
{
    return *m_records.sockaddr->port;
}

} // namespace vantor::audit::internal
