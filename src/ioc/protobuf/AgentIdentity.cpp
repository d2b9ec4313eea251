#include "ioc/protobuf/AgentIdentity.h"

#include "edr/CommonConfig.h"
#include "edr/PathEscape.h"

#include <sys/utsname.h>

namespace vantor::ioc::internal::protobuf
{

AgentIdentity AgentIdentity::FromConfig(const edr::CommonConfig& config)
{
    AgentIdentity identity;
    identity.customerId = config.CustomerId();
    identity.agentId = config.AgentId();
    identity.version = config.AgentVersion();
    identity.fullOSName = config.OsName();
    struct utsname names
    {
    };
    if (uname(&names) == 0)
    {
        identity.computerName = names.nodename;
        identity.netBiosName = identity.computerName.substr(0, identity.computerName.find('.'));
        identity.architecture = names.machine;
    }
    for (const auto& address : {config.Ipv4(), config.Ipv6()})
    {
        if (!address.empty())
        {
            identity.interfaces.push_back({{}, {}, address, {}});
        }
    }
    return identity;
}

void AgentIdentity::FillAgent(::com::corvid::ioc::model::proto::event::Agent& agent) const
{
    // The texts come from configuration files and the host: made valid UTF-8
    // like every host text.
    const auto text = [](const std::string& value, std::string* field)
    { edr::PathEscape::EscapeTo(value, *field); };
    text(customerId, agent.mutable_customerid());
    text(agentId, agent.mutable_agentid());
    text(assetType, agent.mutable_assettype());
    text(netBiosName, agent.mutable_netbiosname());
    text(computerName, agent.mutable_computername());
    agent.set_platform(kPlatform);
    text(fullOSName, agent.mutable_fullosname());
    text(version, agent.mutable_version());
    text(architecture, agent.mutable_architecture());
    agent.clear_interfaces();
    for (const auto& address : interfaces)
    {
        auto& entry = *agent.add_interfaces();
        text(address.interfaceName, entry.mutable_interfacename());
        text(address.macAddress, entry.mutable_macaddress());
        text(address.ipAddress, entry.mutable_ipaddress());
        text(address.gatewayAddress, entry.mutable_gatewayaddress());
    }
}

} // namespace vantor::ioc::internal::protobuf
