#pragma once

#include "common/HttpHeaders.h"

#include <string>

namespace vantor::common
{

enum class HttpMethod
{
    Get,
    Post,
    Put,
    Delete
};

const char* ToString(HttpMethod method);

// Read-only view of one outgoing request. The service copies what it is
// given, so a caller may reuse its request object once queued.
class HttpRequest
{
public:
    virtual ~HttpRequest() = default;

    HttpMethod Method() const { return m_method; }
    const std::string& Url() const { return m_url; }
    const HttpHeaders& Headers() const { return m_headers; }
    const std::string& Payload() const { return m_payload; }
    // Value of the "C-PROTOTYPE" header: what kind of data the payload is.
    const std::string& ProtocolType() const { return m_protocolType; }
    // False for requests whose answers must bypass the interceptors
    // (streamed downloads).
    bool UseInterceptors() const { return m_useInterceptors; }

protected:
    HttpRequest() = default;
    HttpRequest(const HttpRequest&) = default;
    HttpRequest& operator=(const HttpRequest&) = default;

    HttpMethod m_method = HttpMethod::Get;
    std::string m_url;
    HttpHeaders m_headers;
    std::string m_payload;
    std::string m_protocolType;
    bool m_useInterceptors = true;
};

} // namespace vantor::common
