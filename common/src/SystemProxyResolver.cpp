#include "common/SystemProxyResolver.h"

#include "common/Logging.h"

#include <proxy.h>

#include <cstring>

namespace vantor::common
{

void SystemProxyResolver::FactoryDeleter::operator()(pxProxyFactory_* factory) const
{
    px_proxy_factory_free(factory);
}

SystemProxyResolver::SystemProxyResolver() = default;
SystemProxyResolver::~SystemProxyResolver() = default;

std::vector<std::string> SystemProxyResolver::Resolve(const std::string& url)
{
    std::vector<std::string> result;
    if (!m_factory)
    {
        // Created on first use: building the factory loads libproxy's
        // modules, which a service without system proxies never needs.
        m_factory.reset(px_proxy_factory_new());
        if (!m_factory)
        {
            EDR_LOG_WARNING("System proxy discovery is unavailable");
            return result;
        }
    }
    char** proxies = px_proxy_factory_get_proxies(m_factory.get(), url.c_str());
    if (proxies == nullptr)
    {
        return result;
    }
    for (char** p = proxies; *p != nullptr; ++p)
    {
        if (std::strncmp(*p, "direct://", 9) != 0)
        {
            result.emplace_back(*p);
        }
    }
    px_proxy_factory_free_proxies(proxies);
    return result;
}

} // namespace vantor::common
