#pragma once

#include "common/HttpRequest.h"
#include "common/HttpResponse.h"
#include "common/HttpService.h"
#include "common/MutableHttpResponse.h"

#include <memory>

namespace vantor::util
{

// Blocking front end of the HTTP service for callers that need the answer
// before going on (downloads). Must not be called on the service's own
// thread, which could then never complete the request.
class HttpClient
{
public:
    explicit HttpClient(std::shared_ptr<common::HttpService> service);

    // The completed response, whatever its HTTP status. Throws
    // std::runtime_error "Response payload is NULL for HTTP request for <url>"
    // when no answer arrived (with the failure reason),
    // "Response isn't available for cancelled HTTP request for <url>" and
    // "Invalid internal state for HTTP request for <url>"; the service's own
    // exceptions pass through.
    std::shared_ptr<common::HttpResponse>
    Perform(const common::HttpRequest& request,
            std::shared_ptr<common::MutableHttpResponse> response = nullptr);

private:
    std::shared_ptr<common::HttpService> m_service;
};

} // namespace vantor::util
