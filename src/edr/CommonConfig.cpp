#include "edr/CommonConfig.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <rapidjson/writer.h>

#include <stdexcept>
#include <string_view>

namespace vantor::edr
{

namespace
{
enum class Kind
{
    String,
    Uint,
    Object,
    Bool
};

struct Check
{
    const char* key;
    Kind kind;
};

// Mandatory members in the order they are validated.
constexpr Check kChecks[] = {
    {"agent_id", Kind::String},
    {"agent_version", Kind::String},
    {"ca_cert_path", Kind::String},
    {"connection_timeout", Kind::Uint},
    {"customer_id", Kind::String},
    {"log_config_file", Kind::String},
    {"proxy_order", Kind::Uint},
    {"request_timeout", Kind::Uint},
    {"service_url", Kind::String},
    {"activation_id", Kind::String},
    {"environment_variables", Kind::Object},
    {"agent_effective_uid", Kind::Uint},
    {"agent_effective_gid", Kind::Uint},
    {"ipv4", Kind::String},
    {"ipv6", Kind::String},
    {"osname", Kind::String},
    {"platform", Kind::String},
    {"agent_install_path", Kind::String},
    {"sudo_command", Kind::String},
    {"use_sudo", Kind::Bool},
};

bool HasKind(const rapidjson::Value& v, Kind kind)
{
    switch (kind)
    {
    case Kind::String:
        return v.IsString();
    case Kind::Uint:
        return v.IsUint64();
    case Kind::Object:
        return v.IsObject();
    case Kind::Bool:
        return v.IsBool();
    }
    return false;
}

std::string Str(const rapidjson::Value& json, const char* key)
{
    const auto& v = json[key];
    return std::string(v.GetString(), v.GetStringLength());
}
} // namespace

bool CommonConfig::IsValid(const rapidjson::Value& json)
{
    if (!json.IsObject())
    {
        return false;
    }
    for (const auto& check : kChecks)
    {
        const auto it = json.FindMember(check.key);
        if (it == json.MemberEnd() || !HasKind(it->value, check.kind))
        {
            return false;
        }
    }
    return true;
}

CommonConfig::CommonConfig(const rapidjson::Value& json)
{
    if (!IsValid(json))
    {
        throw std::invalid_argument("CommonConfig: Invalid json");
    }
    m_agentId = Str(json, "agent_id");
    m_agentVersion = Str(json, "agent_version");
    m_caCertPath = Str(json, "ca_cert_path");
    m_connectionTimeout = static_cast<int64_t>(json["connection_timeout"].GetUint64());
    m_customerId = Str(json, "customer_id");
    m_logConfigFile = Str(json, "log_config_file");
    m_proxyOrder = static_cast<uint32_t>(json["proxy_order"].GetUint64());
    m_requestTimeout = static_cast<int64_t>(json["request_timeout"].GetUint64());
    m_serviceUrl = Str(json, "service_url");
    m_activationId = Str(json, "activation_id");
    for (const auto& m : json["environment_variables"].GetObject())
    {
        // Only string values carry a setting; others are not environment text.
        if (m.value.IsString())
        {
            m_environment.emplace(std::string(m.name.GetString(), m.name.GetStringLength()),
                                  std::string(m.value.GetString(), m.value.GetStringLength()));
        }
    }
    m_agentEffectiveUid = static_cast<uint32_t>(json["agent_effective_uid"].GetUint64());
    m_agentEffectiveGid = static_cast<uint32_t>(json["agent_effective_gid"].GetUint64());
    m_ipv4 = Str(json, "ipv4");
    m_ipv6 = Str(json, "ipv6");
    m_osName = Str(json, "osname");
    m_platform = Str(json, "platform");
    m_agentInstallPath = Str(json, "agent_install_path");
    m_sudoCommand = Str(json, "sudo_command");
    m_useSudo = json["use_sudo"].GetBool();

    const auto failOpen = json.FindMember("proxy_fail_open");
    m_proxyFailOpen = failOpen != json.MemberEnd() && failOpen->value.IsBool() && failOpen->value.GetBool();
    const auto blackout = json.FindMember("Blackout_Events");
    if (blackout != json.MemberEnd())
    {
        rapidjson::StringBuffer buffer;
        rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
        blackout->value.Accept(writer);
        m_blackoutEvents.assign(buffer.GetString(), buffer.GetSize());
        m_hasBlackoutEvents = true;
    }
}

#define CORVID_GETTER(type, name, member)                                                                    \
    type CommonConfig::name() const                                                                          \
    {                                                                                                        \
        std::lock_guard lock(m_mutex);                                                                       \
        return member;                                                                                       \
    }

CORVID_GETTER(std::string, AgentId, m_agentId)
CORVID_GETTER(std::string, AgentVersion, m_agentVersion)
CORVID_GETTER(std::string, CaCertPath, m_caCertPath)
CORVID_GETTER(int64_t, ConnectionTimeout, m_connectionTimeout)
CORVID_GETTER(std::string, CustomerId, m_customerId)
CORVID_GETTER(std::string, LogConfigFile, m_logConfigFile)
CORVID_GETTER(uint32_t, ProxyOrder, m_proxyOrder)
CORVID_GETTER(bool, UseProxyOrder, m_proxyOrder == 1)
CORVID_GETTER(bool, ProxyFailOpen, m_proxyFailOpen)
CORVID_GETTER(int64_t, RequestTimeout, m_requestTimeout)
CORVID_GETTER(std::string, ServiceUrl, m_serviceUrl)
CORVID_GETTER(std::string, ActivationId, m_activationId)
using EnvironmentMap = std::unordered_map<std::string, std::string>;
CORVID_GETTER(EnvironmentMap, EnvironmentVariables, m_environment)
CORVID_GETTER(uint32_t, AgentEffectiveUid, m_agentEffectiveUid)
CORVID_GETTER(uint32_t, AgentEffectiveGid, m_agentEffectiveGid)
CORVID_GETTER(std::string, Ipv4, m_ipv4)
CORVID_GETTER(std::string, Ipv6, m_ipv6)
CORVID_GETTER(std::string, OsName, m_osName)
CORVID_GETTER(std::string, Platform, m_platform)
CORVID_GETTER(std::string, AgentInstallPath, m_agentInstallPath)
CORVID_GETTER(std::string, SudoCommand, m_sudoCommand)
CORVID_GETTER(bool, UseSudo, m_useSudo)
CORVID_GETTER(bool, HasBlackoutEvents, m_hasBlackoutEvents)
CORVID_GETTER(std::string, BlackoutEvents, m_blackoutEvents)

#undef CORVID_GETTER

bool CommonConfig::HasEnvironmentVariable(const std::string& name) const
{
    std::lock_guard lock(m_mutex);
    return m_environment.count(name) != 0;
}

std::string CommonConfig::EnvironmentVariable(const std::string& name) const
{
    std::lock_guard lock(m_mutex);
    const auto it = m_environment.find(name);
    if (it == m_environment.end())
    {
        throw std::out_of_range("Environment variable (" + name + ") not set.");
    }
    return it->second;
}

std::string CommonConfig::ToJson() const
{
    std::lock_guard lock(m_mutex);
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> w(buffer);
    auto str = [&w](std::string_view key, const std::string& value)
    {
        w.Key(key.data(), static_cast<rapidjson::SizeType>(key.size()));
        w.String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
    };
    w.StartObject();
    str("agent_id", m_agentId);
    str("agent_version", m_agentVersion);
    str("ca_cert_path", m_caCertPath);
    str("customer_id", m_customerId);
    str("log_config_file", m_logConfigFile);
    w.Key("proxy_order");
    w.Uint(m_proxyOrder);
    w.Key("proxy_fail_open");
    w.Bool(m_proxyFailOpen);
    w.Key("connection_timeout");
    w.Int64(m_connectionTimeout);
    w.Key("request_timeout");
    w.Int64(m_requestTimeout);
    str("service_url", m_serviceUrl);
    str("activation_id", m_activationId);
    w.Key("agent_effective_uid");
    w.Uint(m_agentEffectiveUid);
    w.Key("agent_effective_gid");
    w.Uint(m_agentEffectiveGid);
    str("ipv4", m_ipv4);
    str("ipv6", m_ipv6);
    str("osname", m_osName);
    str("platform", m_platform);
    str("agent_install_path", m_agentInstallPath);
    str("sudo_command", m_sudoCommand);
    w.Key("use_sudo");
    w.Bool(m_useSudo);
    w.Key("environment_variables");
    w.StartObject();
    for (const auto& [name, value] : m_environment)
    {
        str(name, value);
    }
    w.EndObject();
    if (m_hasBlackoutEvents)
    {
        w.Key("Blackout_Events");
        w.RawValue(m_blackoutEvents.data(), m_blackoutEvents.size(), rapidjson::kObjectType);
    }
    w.EndObject();
    return std::string(buffer.GetString(), buffer.GetSize());
}

common::HttpServiceSettings CommonConfig::HttpSettings() const
{
    common::HttpServiceSettings settings;
    settings.connectionTimeout = std::chrono::seconds(ConnectionTimeout());
    settings.requestTimeout = std::chrono::seconds(RequestTimeout());
    settings.caCertPath = CaCertPath();
    settings.useProxyOrder = UseProxyOrder();
    settings.proxyFailOpen = ProxyFailOpen();
    settings.customerId = CustomerId();
    settings.agentId = AgentId();
    const auto environment = EnvironmentVariables();
    for (const char* name : common::HttpServiceSettings::kProxyVariables)
    {
        const auto it = environment.find(name);
        if (it != environment.end() && !it->second.empty() &&
            std::find(settings.proxies.begin(), settings.proxies.end(), it->second) == settings.proxies.end())
        {
            settings.proxies.push_back(it->second);
        }
    }
    return settings;
}

std::string CommonConfig::HmacKeyPath() const
{
    return (std::filesystem::path(AgentInstallPath()) / "keys/edr_hmac.key").string();
}

std::string CommonConfig::ResponseKeyPath() const
{
    return (std::filesystem::path(AgentInstallPath()) / "keys/edr_response.pub").string();
}

} // namespace vantor::edr
