#pragma once

#include "common/HttpService.h"

#include <functional>
#include <memory>
#include <string>

namespace vantor::common
{

// Sends one payload to one URL, trying up to maxRetries times in all, and
// reports the result once through the completion callback (on the HTTP
// service's thread, or on the caller's when the service refuses the
// request). The payload is kept only until the upload ends.
class HttpUploader
{
public:
    using Callback = std::function<void(bool success)>;

    // Throws std::invalid_argument "HttpUploader: maxRetries cannot be 0".
    HttpUploader(std::shared_ptr<HttpService> service, unsigned maxRetries);

    // contentType: "application/json", "application/octet-stream", ...;
    // protocolType: the C-PROTOTYPE value ("status", "fim", "ioc").
    void Upload(const std::string& url, std::string payload, const std::string& contentType,
                const std::string& protocolType, Callback callback);

    unsigned MaxRetries() const { return m_maxRetries; }

private:
    struct Attempt;
    static void Send(const std::shared_ptr<Attempt>& attempt);
    static void OnResponse(const std::shared_ptr<Attempt>& attempt,
                           const std::shared_ptr<HttpResponse>& response);

    std::shared_ptr<HttpService> m_service;
    const unsigned m_maxRetries;
};

} // namespace vantor::common
