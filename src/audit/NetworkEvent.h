#pragma once

#include "audit/SyscallEvent.h"

namespace vantor::audit::internal
{

// connect, bind (and accept): the address and port of the SOCKADDR record.
class NetworkEvent : public SyscallEvent
{
public:
    NetworkEvent(auparse_state_t* au, const SetAsideRecords& aside);

    std::unique_ptr<edr::Event> Clone() const override;
    edr::EventType GetType() const override;
    std::string GetActionName() const override;
    uint32_t GetCategory() const override;
    std::string GetNetworkAddress() const override;
    uint16_t GetNetworkPort() const override;

    // "inet" or "inet6".
    const std::string& GetFamily() const { return m_records.sockaddr->family; }
};

} // namespace vantor::audit::internal
