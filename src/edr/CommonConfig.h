#pragma once

#include "common/HttpServiceSettings.h"

#include <rapidjson/document.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>

namespace vantor::edr
{

// Settings shared with the host agent ("common_config"), fixed for the life
// of the process.
class CommonConfig
{
public:
    // Throws std::invalid_argument "CommonConfig: Invalid json".
    explicit CommonConfig(const rapidjson::Value& json);

    std::string AgentId() const;
    std::string AgentVersion() const;
    std::string CaCertPath() const;
    int64_t ConnectionTimeout() const;
    std::string CustomerId() const;
    std::string LogConfigFile() const;
    uint32_t ProxyOrder() const;
    bool UseProxyOrder() const; // proxy_order == 1
    bool ProxyFailOpen() const;
    int64_t RequestTimeout() const;
    std::string ServiceUrl() const;
    std::string ActivationId() const;
    std::unordered_map<std::string, std::string> EnvironmentVariables() const;
    bool HasEnvironmentVariable(const std::string& name) const;
    // Throws std::out_of_range "Environment variable (<name>) not set.".
    std::string EnvironmentVariable(const std::string& name) const;
    uint32_t AgentEffectiveUid() const;
    uint32_t AgentEffectiveGid() const;
    std::string Ipv4() const;
    std::string Ipv6() const;
    std::string OsName() const;
    std::string Platform() const;
    std::string AgentInstallPath() const;
    std::string SudoCommand() const;
    bool UseSudo() const;
    bool HasBlackoutEvents() const;
    // The "Blackout_Events" value as JSON text ("" when absent).
    std::string BlackoutEvents() const;

    // What the HTTP service needs: time-outs, CA path, proxy mode, fail-open
    // and ids; the proxies are the exported proxy variables it holds, in
    // their export order, each once.
    common::HttpServiceSettings HttpSettings() const;
    // <agent_install_path>/keys/edr_hmac.key, the request signer's key.
    std::string HmacKeyPath() const;
    // <agent_install_path>/keys/edr_response.pub, the back end's public key
    // (PEM) that signs its answers.
    std::string ResponseKeyPath() const;

    // The settings as a JSON object, members in their fixed order.
    std::string ToJson() const;

private:
    static bool IsValid(const rapidjson::Value& json);

    mutable std::mutex m_mutex;
    std::string m_agentId;
    std::string m_agentVersion;
    std::string m_caCertPath;
    int64_t m_connectionTimeout = 0;
    std::string m_customerId;
    std::string m_logConfigFile;
    uint32_t m_proxyOrder = 0;
    bool m_proxyFailOpen = false;
    int64_t m_requestTimeout = 0;
    std::string m_serviceUrl;
    std::string m_activationId;
    std::unordered_map<std::string, std::string> m_environment;
    uint32_t m_agentEffectiveUid = 0;
    uint32_t m_agentEffectiveGid = 0;
    std::string m_ipv4;
    std::string m_ipv6;
    std::string m_osName;
    std::string m_platform;
    std::string m_agentInstallPath;
    std::string m_sudoCommand;
    bool m_useSudo = false;
    bool m_hasBlackoutEvents = false;
    std::string m_blackoutEvents;
};

} // namespace vantor::edr
