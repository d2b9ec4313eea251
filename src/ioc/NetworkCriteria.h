#pragma once

#include "edr/FilterCriteria.h"
#include "ioc/RegexPatterns.h"

#include <rapidjson/document.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vantor::ioc::internal
{

// The network filter of a rule (a "filterType" entry whose "objectType" is
// "network"):
//
//   {"objectType": "network", "protocol": "tcp" | "udp" | "any",
//    "localPort":  [{"number": 22}, {"range": [8000, 8100]}],
//    "remotePort": [...],
//    "localIPAddress":  ["127\\.0\\.0\\.1", "10\\..*"],
//    "remoteIPAddress": [...]}
//
// "protocol" is required; the port and address lists are optional, and an
// absent list puts no condition on its side. Ports match when any entry
// does; addresses are regular expressions matched against the whole address
// text, and match when any does.
//
// The local side and the remote side of an event are matched separately. A
// connect or an accept carries the remote side (the peer's address and
// port), a bind the local side; a side that has conditions but that the
// event does not carry does not match. The audit records of these calls do
// not say whether the socket is TCP or UDP, so "protocol" is checked for its
// value but not compared with the event.
//
// Immutable after construction; matching is safe from any thread.
class NetworkCriteria : public edr::FilterCriteria
{
public:
    struct PortRange
    {
        uint16_t first = 0;
        uint16_t last = 0;
        bool single = true; // written as "number"
    };

    // Throws EventRuleException with the texts "Missing or invalid <member>
    // in filterType", "Unsupported value: <protocol> provided in filterType",
    // "Invalid Port numbers in manifest", "Invalid Port Range" and "Empty
    // port object in manifest".
    explicit NetworkCriteria(const rapidjson::Value& filter);

    bool Match(const edr::Event& event) const override;

    // One port object: {"number": n} or {"range": [first, last]}.
    static PortRange ParsePort(const rapidjson::Value& port, const std::string& error);

    const std::string& GetProtocol() const { return m_protocol; }

private:
    struct Side
    {
        std::vector<PortRange> ports;
        RegexPatterns addresses;

        bool HasConditions() const { return !ports.empty() || !addresses.Empty(); }
    };

    struct Endpoint
    {
        std::string address;
        uint16_t port = 0;
    };

    static std::vector<PortRange> ParsePorts(const rapidjson::Value& filter, const char* member);
    static RegexPatterns ParseAddresses(const rapidjson::Value& filter, const char* member);
    static bool MatchSide(const Side& side, const std::optional<Endpoint>& endpoint);
    static bool MatchPorts(const std::vector<PortRange>& ports, uint16_t port);
    static bool MatchAddresses(const RegexPatterns& addresses, const std::string& address);

    std::string m_protocol;
    Side m_local;
    Side m_remote;
};

} // namespace vantor::ioc::internal
