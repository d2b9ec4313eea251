#include "ioc/NetworkCriteria.h"

#include "common/Logging.h"
#include "ioc/EventFields.h"
#include "ioc/EventRuleException.h"

namespace vantor::ioc::internal
{

namespace
{

std::string MissingOrInvalid(const char* member)
{
    return std::string("Missing or invalid ") + member + " in filterType";
}

uint16_t PortNumber(const rapidjson::Value& value)
{
    if (!value.IsUint() || value.GetUint() > 65535)
    {
        throw EventRuleException("Invalid Port numbers in manifest");
    }
    return static_cast<uint16_t>(value.GetUint());
}

} // namespace

NetworkCriteria::NetworkCriteria(const rapidjson::Value& filter)
{
    EDR_LOG_TRACE("Setting Network Filters");
    const auto protocol = filter.FindMember("protocol");
    if (protocol == filter.MemberEnd() || !protocol->value.IsString())
    {
        throw EventRuleException(MissingOrInvalid("protocol"));
    }
    m_protocol.assign(protocol->value.GetString(), protocol->value.GetStringLength());
    if (m_protocol != "tcp" && m_protocol != "udp" && m_protocol != "any")
    {
        throw EventRuleException("Unsupported value: " + m_protocol + " provided in filterType");
    }
    m_local.ports = ParsePorts(filter, "localPort");
    m_remote.ports = ParsePorts(filter, "remotePort");
    m_local.addresses = ParseAddresses(filter, "localIPAddress");
    m_remote.addresses = ParseAddresses(filter, "remoteIPAddress");
}

std::vector<NetworkCriteria::PortRange> NetworkCriteria::ParsePorts(const rapidjson::Value& filter,
                                                                    const char* member)
{
    std::vector<PortRange> ports;
    const auto it = filter.FindMember(member);
    if (it == filter.MemberEnd())
    {
        return ports;
    }
    if (!it->value.IsArray())
    {
        throw EventRuleException(MissingOrInvalid(member));
    }
    for (const auto& port : it->value.GetArray())
    {
        ports.push_back(ParsePort(port, MissingOrInvalid(member)));
    }
    return ports;
}

NetworkCriteria::PortRange NetworkCriteria::ParsePort(const rapidjson::Value& port, const std::string& error)
{
    EDR_LOG_TRACE("Parsing network port");
    if (!port.IsObject())
    {
        throw EventRuleException(error);
    }
    const auto number = port.FindMember("number");
    if (number != port.MemberEnd())
    {
        const uint16_t value = PortNumber(number->value);
        return {value, value, true};
    }
    const auto range = port.FindMember("range");
    if (range != port.MemberEnd())
    {
        if (!range->value.IsArray() || range->value.Size() != 2)
        {
            throw EventRuleException("Invalid Port numbers in manifest");
        }
        const PortRange result{PortNumber(range->value[0]), PortNumber(range->value[1]), false};
        if (result.first > result.last)
        {
            throw EventRuleException("Invalid Port Range");
        }
        return result;
    }
    throw EventRuleException("Empty port object in manifest");
}

RegexPatterns NetworkCriteria::ParseAddresses(const rapidjson::Value& filter, const char* member)
{
    const auto it = filter.FindMember(member);
    if (it == filter.MemberEnd())
    {
        return {};
    }
    return RegexPatterns::Parse(it->value, MissingOrInvalid(member));
}

bool NetworkCriteria::Match(const edr::Event& event) const
{
    EDR_LOG_TRACE("Matching Network criteria");
    const edr::EventType type = event.GetType();
    if (!EventFields::IsNetworkEvent(type))
    {
        return false;
    }
    std::optional<Endpoint> local;
    std::optional<Endpoint> remote;
    try
    {
        Endpoint endpoint{event.GetNetworkAddress(), event.GetNetworkPort()};
        (type == edr::EventType::Bind ? local : remote) = std::move(endpoint);
    }
    catch (const edr::EventException&)
    {
        // An event without an address carries neither side.
    }
    if (m_local.HasConditions())
    {
        EDR_LOG_TRACE("Matching for event's local address and port");
        if (!MatchSide(m_local, local))
        {
            return false;
        }
    }
    if (m_remote.HasConditions())
    {
        EDR_LOG_TRACE("Matching for event's remote address and port");
        if (!MatchSide(m_remote, remote))
        {
            return false;
        }
    }
    return true;
}

bool NetworkCriteria::MatchSide(const Side& side, const std::optional<Endpoint>& endpoint)
{
    if (!endpoint)
    {
        EDR_LOG_TRACE("The event does not carry this side of the connection");
        return false;
    }
    if (!side.ports.empty() && !MatchPorts(side.ports, endpoint->port))
    {
        return false;
    }
    return side.addresses.Empty() || MatchAddresses(side.addresses, endpoint->address);
}

bool NetworkCriteria::MatchPorts(const std::vector<PortRange>& ports, uint16_t port)
{
    for (const auto& filter : ports)
    {
        if (filter.single)
        {
            EDR_LOG_TRACE("Matching event Port value: " << port
                                                        << " with filter port value: " << filter.first);
            if (port == filter.first)
            {
                EDR_LOG_TRACE("Matched Event port with filter port value");
                EDR_LOG_TRACE("Port criteria matched");
                return true;
            }
            continue;
        }
        EDR_LOG_TRACE("Matching event Port value: " << port << " with filter port range: [" << filter.first
                                                    << ", " << filter.last << "]");
        if (port >= filter.first && port <= filter.last)
        {
            EDR_LOG_TRACE("Matched Event port with filter port range");
            EDR_LOG_TRACE("Port criteria matched");
            return true;
        }
    }
    EDR_LOG_TRACE("Port criteria not matched");
    return false;
}

bool NetworkCriteria::MatchAddresses(const RegexPatterns& addresses, const std::string& address)
{
    for (size_t i = 0; i < addresses.Size(); ++i)
    {
        EDR_LOG_TRACE("Matching Event IP: " << address << " with Filter IP: " << addresses.Text(i));
        if (addresses.Matches(i, address))
        {
            return true;
        }
    }
    return false;
}

} // namespace vantor::ioc::internal
