#pragma once

#include <curl/curl.h>

namespace vantor::common::internal
{

// What the HTTP service does after one attempt of a request. Certificate
// problems are configuration faults: no route or retry fixes them, and no
// fallback ever skips the verification. A proxy that did not open the
// tunnel, or an answer without the back end's C-SRV header through a proxy
// (it came from something in between), sends the request to the next
// route. Transport failures that may pass (time-outs, lost connections) and
// the statuses 408, 429 and 5xx are retried on the same route.
//
// Stateless and thread-safe.
class HttpRetryPolicy
{
public:
    enum class Action
    {
        Complete, // hand the answer on
        Fail,     // give up with the failure
        Retry,    // try the same route again (when retries are left)
        NextRoute // try the next route (when one is left)
    };

    // After a transfer that failed with code; connectCode is the proxy's
    // answer to CONNECT (0 without one).
    static Action AfterTransportError(CURLcode code, bool viaProxy, long connectCode);
    // After an answer with this status; fromServer tells whether it carried
    // the C-SRV header.
    static Action AfterResponse(long status, bool viaProxy, bool fromServer);

    static bool IsRetryable(CURLcode code);
    static bool IsVerificationFailure(CURLcode code);
    static bool IsRetryableStatus(long status);
};

} // namespace vantor::common::internal
