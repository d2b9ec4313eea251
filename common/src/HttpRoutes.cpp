#include "common/HttpRoutes.h"

#include "common/Logging.h"

#include <algorithm>
#include <stdexcept>

namespace vantor::common::internal
{

std::vector<std::string> HttpRoutes::Plan(const HttpServiceSettings& settings,
                                          const std::vector<std::string>& systemProxies)
{
    std::vector<std::string> routes;
    auto add = [&routes](const std::string& proxy)
    {
        if (!proxy.empty() && std::find(routes.begin(), routes.end(), proxy) == routes.end())
        {
            routes.push_back(proxy);
        }
    };
    if (settings.useProxyOrder)
    {
        for (const auto& proxy : settings.proxies)
        {
            add(proxy);
        }
    }
    if (settings.useSystemProxy)
    {
        for (const auto& proxy : systemProxies)
        {
            add(proxy);
        }
    }
    if (routes.empty() || settings.proxyFailOpen)
    {
        routes.emplace_back();
    }
    return routes;
}

HttpRoutes::HttpRoutes(std::vector<std::string> routes)
    : m_routes(std::move(routes))
{
    if (m_routes.empty())
    {
        throw std::invalid_argument("HttpRoutes: no route");
    }
}

bool HttpRoutes::Next()
{
    if (m_index + 1 >= m_routes.size())
    {
        return false;
    }
    ++m_index;
    m_attempt = 0;
    EDR_LOG_INFO("Http Service Proxy retry attempt = " << m_index);
    return true;
}

bool HttpRoutes::TakeRetry(unsigned maxRetries)
{
    if (m_attempt >= maxRetries)
    {
        return false;
    }
    ++m_attempt;
    return true;
}

} // namespace vantor::common::internal
