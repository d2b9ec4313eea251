#pragma once

#include <memory>
#include <string>
#include <vector>

struct pxProxyFactory_;

namespace vantor::common
{

// System proxy discovery through libproxy (environment, desktop settings,
// PAC/WPAD). Not thread-safe: the HTTP service uses it from its own thread.
class SystemProxyResolver
{
public:
    SystemProxyResolver();
    ~SystemProxyResolver();
    SystemProxyResolver(const SystemProxyResolver&) = delete;
    SystemProxyResolver& operator=(const SystemProxyResolver&) = delete;

    // Proxy URLs for the URL in libproxy's order; "direct://" entries are
    // dropped, so an empty list means "no proxy".
    std::vector<std::string> Resolve(const std::string& url);

private:
    struct FactoryDeleter
    {
        void operator()(pxProxyFactory_* factory) const;
    };
    std::unique_ptr<pxProxyFactory_, FactoryDeleter> m_factory;
};

} // namespace vantor::common
