#pragma once

#include "common/CurlHandle.h"
#include "common/HttpRoutes.h"
#include "common/HttpService.h"
#include "common/HttpServiceSettings.h"
#include "common/MutableHttpRequest.h"
#include "common/MutableHttpResponse.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>

namespace vantor::common::internal
{

// One queued request on its way through the HTTP service: the request as
// it goes out, the response it fills, its completion callback, its routes
// and, while an attempt runs, that attempt's libcurl handles.
//
// Not thread-safe: it lives on the HTTP service thread once queued.
struct HttpTransfer
{
    MutableHttpRequest request;
    std::shared_ptr<MutableHttpResponse> response;
    HttpService::Callback callback;
    // Resolved before the first attempt.
    std::optional<HttpRoutes> routes;
    std::chrono::steady_clock::time_point due;
    // The list outlives the handle that points to it.
    CurlSlistHandle headers;
    CurlEasyHandle easy;
    char error[CURL_ERROR_SIZE] = {};

    // Builds a fresh easy handle for one attempt over the current route:
    // headers, verification, time-outs, proxy, method and body, the body of
    // the answer streamed into the response. Throws HttpServiceException.
    void PrepareAttempt(const HttpServiceSettings& settings);
    // libcurl's own text for a failed attempt, else the code's text.
    std::string FailureText(CURLcode code) const;
};

} // namespace vantor::common::internal
