#pragma once

#include "common/HttpServiceSettings.h"

#include <cstddef>
#include <string>
#include <vector>

namespace vantor::common::internal
{

// The routes one request may take and where it stands on them. A route is a
// proxy URL, or "" for the direct connection. It counts the retries spent on
// the current route; moving to the next route starts them again.
//
// Not thread-safe: one request's routes live on the HTTP service thread.
class HttpRoutes
{
public:
    // The routes in the order they are tried (see HttpServiceSettings):
    // the configured proxies in proxy-order mode, then the system's proxies
    // for the URL, then the direct connection when there was no proxy or
    // proxy fail-open allows going around them. Duplicates are tried once.
    static std::vector<std::string> Plan(const HttpServiceSettings& settings,
                                         const std::vector<std::string>& systemProxies);

    // routes must not be empty.
    explicit HttpRoutes(std::vector<std::string> routes);

    const std::string& Current() const { return m_routes[m_index]; }
    bool ViaProxy() const { return !Current().empty(); }
    unsigned Attempt() const { return m_attempt; }

    // Moves to the next route; false when none is left.
    bool Next();
    // Takes one more retry on the current route; false once maxRetries
    // have been taken.
    bool TakeRetry(unsigned maxRetries);

private:
    std::vector<std::string> m_routes;
    std::size_t m_index = 0;
    unsigned m_attempt = 0;
};

} // namespace vantor::common::internal
