#pragma once

#include "common/HttpRequest.h"

#include <cstddef>
#include <string>

namespace vantor::common
{

// The request as built by callers and rewritten by interceptors.
class MutableHttpRequest : public HttpRequest
{
public:
    // PUT bodies above this size are refused: the back end's PUT endpoints
    // take small control documents only.
    static constexpr std::size_t kMaxPutPayload = 16384;

    MutableHttpRequest() = default;
    MutableHttpRequest(HttpMethod method, std::string url);
    MutableHttpRequest(const MutableHttpRequest&) = default;
    MutableHttpRequest& operator=(const MutableHttpRequest&) = default;
    explicit MutableHttpRequest(const HttpRequest& other)
        : HttpRequest(other)
    {
    }

    void SetMethod(HttpMethod method) { m_method = method; }
    void SetUrl(std::string url) { m_url = std::move(url); }
    // Throws std::invalid_argument "AddHeader: Invalid header key".
    void AddHeader(std::string name, std::string value) { m_headers.Set(std::move(name), std::move(value)); }
    bool RemoveHeader(std::string_view name) { return m_headers.Remove(name); }
    void SetPayload(std::string payload) { m_payload = std::move(payload); }
    void SetContentType(std::string contentType) { AddHeader("Content-Type", std::move(contentType)); }
    void SetProtocolType(std::string type) { m_protocolType = std::move(type); }
    void SetUseInterceptors(bool use) { m_useInterceptors = use; }

    // Throws std::invalid_argument "PUT method only supports a maximum
    // payload of 16KB" for an oversized PUT.
    void Validate() const;
};

} // namespace vantor::common
