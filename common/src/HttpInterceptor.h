#pragma once

#include "common/MutableHttpRequest.h"
#include "common/MutableHttpResponse.h"

#include <stdexcept>

namespace vantor::common
{

class HttpInterceptorException : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// Rewrites a request before it is sent and its answer before it is handed
// on. Request sides run in registration order, response sides in reverse.
// Throwing HttpInterceptorException fails the request without a retry.
class HttpInterceptor
{
public:
    virtual ~HttpInterceptor() = default;
    virtual void InterceptRequest(MutableHttpRequest& request) = 0;
    virtual void InterceptResponse(MutableHttpResponse& response) = 0;
};

} // namespace vantor::common
