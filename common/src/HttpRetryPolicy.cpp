#include "common/HttpRetryPolicy.h"

namespace vantor::common::internal
{

HttpRetryPolicy::Action HttpRetryPolicy::AfterTransportError(CURLcode code, bool viaProxy, long connectCode)
{
    if (IsVerificationFailure(code))
    {
        return Action::Fail;
    }
    if (viaProxy && connectCode != 200)
    {
        return Action::NextRoute;
    }
    return IsRetryable(code) ? Action::Retry : Action::Fail;
}

HttpRetryPolicy::Action HttpRetryPolicy::AfterResponse(long status, bool viaProxy, bool fromServer)
{
    if (viaProxy && !fromServer)
    {
        return Action::NextRoute;
    }
    return IsRetryableStatus(status) ? Action::Retry : Action::Complete;
}

bool HttpRetryPolicy::IsRetryable(CURLcode code)
{
    switch (code)
    {
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_CONNECT:
    case CURLE_OPERATION_TIMEDOUT:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
        return true;
    default:
        return false;
    }
}

bool HttpRetryPolicy::IsVerificationFailure(CURLcode code)
{
    return code == CURLE_PEER_FAILED_VERIFICATION || code == CURLE_SSL_CACERT_BADFILE ||
           code == CURLE_SSL_CERTPROBLEM || code == CURLE_SSL_PINNEDPUBKEYNOTMATCH ||
           code == CURLE_SSL_ISSUER_ERROR || code == CURLE_SSL_CRL_BADFILE;
}

bool HttpRetryPolicy::IsRetryableStatus(long status)
{
    return status == 408 || status == 429 || status >= 500;
}

} // namespace vantor::common::internal
