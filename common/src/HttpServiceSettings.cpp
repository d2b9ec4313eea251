#include "HttpServiceSettings.h"

#include "edr/CommonConfig.h"

#include <algorithm>

namespace vantor::common
{

HttpServiceSettings HttpServiceSettings::FromCommonConfig(const edr::CommonConfig& config)
{
    HttpServiceSettings settings;
    settings.connectionTimeout = std::chrono::seconds(config.ConnectionTimeout());
    settings.requestTimeout = std::chrono::seconds(config.RequestTimeout());
    settings.caCertPath = config.CaCertPath();
    settings.useProxyOrder = config.UseProxyOrder();
    settings.proxyFailOpen = config.ProxyFailOpen();
    settings.customerId = config.CustomerId();
    settings.agentId = config.AgentId();
    for (const char* name : kProxyVariables)
    {
        if (config.HasEnvironmentVariable(name))
        {
            std::string proxy = config.EnvironmentVariable(name);
            if (!proxy.empty() &&
                std::find(settings.proxies.begin(), settings.proxies.end(), proxy) == settings.proxies.end())
            {
                settings.proxies.push_back(std::move(proxy));
            }
        }
    }
    return settings;
}

} // namespace vantor::common
