#pragma once

#include "common/HttpService.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace vantor::common
{

// Sends one payload to one URL, trying up to maxRetries times in all, and
// reports the result once through the completion callback (on the HTTP
// service's thread, or on the caller's when the service refuses the
// request). The payload is kept only until the upload ends. The uploader
// counts how its uploads ended, for the health status.
//
// Upload and GetOutcomes may be called from any thread.
class HttpUploader
{
public:
    using Callback = std::function<void(bool success)>;

    // Uploads ended since the uploader was made; a cancelled one counts as
    // failed.
    struct Outcomes
    {
        uint64_t succeeded = 0;
        uint64_t failed = 0;
        // Why the last failed upload failed; empty before the first.
        std::string lastError;
    };

    // Throws std::invalid_argument "HttpUploader: maxRetries cannot be 0".
    HttpUploader(std::shared_ptr<HttpService> service, unsigned maxRetries);

    // contentType: "application/json", "application/octet-stream", ...;
    // protocolType: the C-PROTOTYPE value ("status", "fim", "ioc").
    void Upload(const std::string& url, std::string payload, const std::string& contentType,
                const std::string& protocolType, Callback callback);

    unsigned MaxRetries() const { return m_maxRetries; }
    Outcomes GetOutcomes() const;

private:
    struct Attempt;
    struct Tally;
    static void Send(const std::shared_ptr<Attempt>& attempt);
    static void OnResponse(const std::shared_ptr<Attempt>& attempt,
                           const std::shared_ptr<HttpResponse>& response);

    std::shared_ptr<HttpService> m_service;
    const unsigned m_maxRetries;
    // Shared with the uploads in flight, which may end after the uploader.
    const std::shared_ptr<Tally> m_tally;
};

} // namespace vantor::common
