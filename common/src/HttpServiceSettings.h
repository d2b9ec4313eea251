#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace vantor::common
{

// How the HTTP service reaches the back end.
//
// Routes of one request, tried in this order:
//  1. in proxy-order mode, each entry of `proxies`;
//  2. when `useSystemProxy`, the proxies that libproxy finds for the URL;
//  3. the direct connection, when no proxy was found at all or when
//     `proxyFailOpen` allows going around proxies that do not work.
// A route is left for the next one when the connection through it fails or
// when the answer lacks the back end's C-SRV header (it came from something
// in between). On a route that reaches the back end, retryable failures
// (time-outs, lost connections, 408, 429, 5xx) are retried up to
// `retryAttempts` more times, `retryPause` apart.
struct HttpServiceSettings
{
    std::chrono::milliseconds connectionTimeout{std::chrono::seconds(60)};
    std::chrono::milliseconds requestTimeout{std::chrono::seconds(600)};
    // CA bundle that the server's certificate must chain to; empty uses the
    // system store. Verification is never switched off.
    std::string caCertPath;
    bool useProxyOrder = false;
    std::vector<std::string> proxies;
    bool useSystemProxy = true;
    bool proxyFailOpen = false;
    unsigned retryAttempts = 2;
    std::chrono::milliseconds retryPause{std::chrono::seconds(2)};
    std::string customerId;
    std::string agentId;

    // The exported proxy variables, in the order they are exported.
    static constexpr const char* kProxyVariables[] = {"corvid_https_tls_proxy", "corvid_https_proxy",
                                                      "https_proxy", "http_proxy"};
};

} // namespace vantor::common
