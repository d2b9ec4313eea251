#include "common/util/HttpClient.h"

#include "common/InMemoryHttpResponse.h"
#include "common/Logging.h"

#include <future>
#include <stdexcept>

namespace vantor::util
{

HttpClient::HttpClient(std::shared_ptr<common::HttpService> service)
    : m_service(std::move(service))
{
    if (!m_service)
    {
        throw std::invalid_argument("HttpClient: 'service' cannot be null");
    }
}

std::shared_ptr<common::HttpResponse>
HttpClient::Perform(const common::HttpRequest& request, std::shared_ptr<common::MutableHttpResponse> response)
{
    if (m_service->IsServiceThread())
    {
        throw std::logic_error("HttpClient: cannot wait for a request on the HTTP service thread");
    }
    if (!response)
    {
        response = std::make_shared<common::InMemoryHttpResponse>();
    }
    auto promise = std::make_shared<std::promise<std::shared_ptr<common::HttpResponse>>>();
    auto future = promise->get_future();
    m_service->Queue(request, response,
                     [promise](const std::shared_ptr<common::HttpResponse>& result)
                     { promise->set_value(result); });
    const auto result = future.get();
    using Outcome = common::HttpResponse::Outcome;
    if (!result)
    {
        throw std::runtime_error("Response payload is NULL for HTTP request for " + request.Url());
    }
    switch (result->GetOutcome())
    {
    case Outcome::Completed:
        return result;
    case Outcome::Failed:
        EDR_LOG_ERROR("Response payload is NULL for HTTP request for " << request.Url() << " ("
                                                                       << result->Error() << ")");
        throw std::runtime_error("Response payload is NULL for HTTP request for " + request.Url() + " (" +
                                 result->Error() + ")");
    case Outcome::Cancelled:
        EDR_LOG_ERROR("Response isn't available for cancelled HTTP request for " << request.Url());
        throw std::runtime_error("Response isn't available for cancelled HTTP request for " + request.Url());
    case Outcome::Pending:
        break;
    }
    EDR_LOG_ERROR("Invalid internal state for HTTP request for " << request.Url());
    throw std::runtime_error("Invalid internal state for HTTP request for " + request.Url());
}

} // namespace vantor::util
