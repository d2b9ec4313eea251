#pragma once

#include "ioc/protobuf/IocEvents.pb.h"

#include <string>
#include <vector>

namespace vantor::edr
{
class CommonConfig;
}

namespace vantor::ioc::internal::protobuf
{

// Who sends the batches: the identity fields of each batch's Agent message.
// Where they come from (FromConfig):
//   customerId   <- common_config "customer_id"
//   agentId      <- common_config "agent_id"
//   version      <- common_config "agent_version"
//   fullOSName   <- common_config "osname"
//   computerName <- the host name (uname nodename)
//   netBiosName  <- the host name up to its first "."
//   architecture <- the machine (uname machine, "x86_64")
//   interfaces   <- one entry per non-empty common_config "ipv4" / "ipv6"
//                   (ipAddress only: the configuration names no interface)
//   assetType, tags: nothing in the configuration holds them; left empty.
// "platform" is always "LINUX"; bootTime and isQuarantine change at run
// time and are the formatter's.
//
// A plain value.
struct AgentIdentity
{
    struct Address
    {
        std::string interfaceName;
        std::string macAddress;
        std::string ipAddress;
        std::string gatewayAddress;
    };

    static constexpr const char* kPlatform = "LINUX";

    std::string customerId;
    std::string agentId;
    std::string assetType;
    std::string netBiosName;
    std::string computerName;
    std::string fullOSName;
    std::string version;
    std::string architecture;
    std::vector<Address> interfaces;

    static AgentIdentity FromConfig(const edr::CommonConfig& config);

    // Writes the identity fields and the platform into agent (other fields
    // untouched).
    void FillAgent(::com::corvid::ioc::model::proto::event::Agent& agent) const;
};

} // namespace vantor::ioc::internal::protobuf
