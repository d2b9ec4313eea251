#include "common/HttpUploader.h"

#include "common/Logging.h"
#include "common/MutableHttpRequest.h"

#include <mutex>
#include <stdexcept>

namespace vantor::common
{

struct HttpUploader::Tally
{
    std::mutex mutex;
    Outcomes outcomes;
};

// State of one upload across its attempts. The service is held weakly: an
// upload in flight must not keep a stopped service alive.
struct HttpUploader::Attempt
{
    std::weak_ptr<HttpService> service;
    MutableHttpRequest request;
    Callback callback;
    std::shared_ptr<Tally> tally;
    unsigned maxRetries = 1;
    unsigned attempt = 0;
    bool finished = false;

    void Finish(bool success, const std::string& reason = {})
    {
        if (finished)
        {
            return;
        }
        finished = true;
        {
            std::lock_guard lock(tally->mutex);
            if (success)
            {
                ++tally->outcomes.succeeded;
            }
            else
            {
                ++tally->outcomes.failed;
                tally->outcomes.lastError = reason;
            }
        }
        if (callback)
        {
            auto cb = std::move(callback);
            callback = nullptr;
            cb(success);
        }
    }
};

HttpUploader::HttpUploader(std::shared_ptr<HttpService> service, unsigned maxRetries)
    : m_service(std::move(service))
    , m_maxRetries(maxRetries)
    , m_tally(std::make_shared<Tally>())
{
    if (maxRetries == 0)
    {
        throw std::invalid_argument("HttpUploader: maxRetries cannot be 0");
    }
    if (!m_service)
    {
        throw std::invalid_argument("HttpUploader: 'service' cannot be null");
    }
}

void HttpUploader::Upload(const std::string& url, std::string payload, const std::string& contentType,
                          const std::string& protocolType, Callback callback)
{
    auto attempt = std::make_shared<Attempt>();
    attempt->service = m_service;
    attempt->maxRetries = m_maxRetries;
    attempt->callback = std::move(callback);
    attempt->tally = m_tally;
    attempt->request.SetMethod(HttpMethod::Post);
    attempt->request.SetUrl(url);
    attempt->request.SetContentType(contentType);
    attempt->request.SetProtocolType(protocolType);
    EDR_LOG_INFO("HttpUploader: Sending " << payload.size() << " bytes of type " << contentType);
    attempt->request.SetPayload(std::move(payload));
    Send(attempt);
}

void HttpUploader::Send(const std::shared_ptr<Attempt>& attempt)
{
    ++attempt->attempt;
    const auto service = attempt->service.lock();
    try
    {
        if (!service)
        {
            throw HttpServiceException("HttpService is not running");
        }
        service->Queue(attempt->request, [attempt](const std::shared_ptr<HttpResponse>& response)
                       { OnResponse(attempt, response); });
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("HttpUploader: Upload failed. (" << e.what() << ") (Retry " << attempt->attempt << ")");
        attempt->Finish(false, e.what());
    }
}

void HttpUploader::OnResponse(const std::shared_ptr<Attempt>& attempt,
                              const std::shared_ptr<HttpResponse>& response)
{
    if (response->GetOutcome() == HttpResponse::Outcome::Cancelled)
    {
        EDR_LOG_WARNING("HttpUploader: Upload cancelled.");
        attempt->Finish(false, "cancelled");
        return;
    }
    if (response->IsSuccess())
    {
        EDR_LOG_INFO("HttpUploader: Uploaded " << attempt->request.Payload().size()
                                               << " bytes successfully.");
        attempt->Finish(true);
        return;
    }
    const std::string reason = response->GetOutcome() == HttpResponse::Outcome::Completed
                                   ? "HTTP status " + std::to_string(response->Status())
                                   : response->Error();
    EDR_LOG_ERROR("HttpUploader: Upload failed. (" << reason << ") (Retry " << attempt->attempt << ")");
    if (attempt->attempt >= attempt->maxRetries)
    {
        attempt->Finish(false, reason);
        return;
    }
    Send(attempt);
}

HttpUploader::Outcomes HttpUploader::GetOutcomes() const
{
    std::lock_guard lock(m_tally->mutex);
    return m_tally->outcomes;
}

} // namespace vantor::common
