#include "common/HttpTransfer.h"

#include "common/Logging.h"

namespace vantor::common::internal
{
namespace
{

size_t WriteBody(char* data, size_t size, size_t count, void* user)
{
    auto* response = static_cast<MutableHttpResponse*>(user);
    try
    {
        response->AppendPayload(std::string_view(data, size * count));
        return size * count;
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("Cannot store the HTTP response body: " << e.what());
        return 0; // aborts the transfer with CURLE_WRITE_ERROR
    }
}

} // namespace

void HttpTransfer::PrepareAttempt(const HttpServiceSettings& settings)
{
    easy.reset(curl_easy_init());
    headers.reset();
    if (!easy)
    {
        throw HttpServiceException("curl_easy_init failed");
    }
    CURL* handle = easy.get();
    for (const auto& [name, value] : request.Headers().Entries())
    {
        // "Name;" sends an empty header; "Expect:" drops libcurl's own.
        const std::string line = !value.empty()     ? name + ": " + value
                                 : name == "Expect" ? name + ":"
                                                    : name + ";";
        curl_slist* list = curl_slist_append(headers.get(), line.c_str());
        if (list == nullptr)
        {
            throw HttpServiceException("curl_slist_append failed");
        }
        headers.release();
        headers.reset(list);
    }
    error[0] = '\0';
    curl_easy_setopt(handle, CURLOPT_URL, request.Url().c_str());
    curl_easy_setopt(handle, CURLOPT_PRIVATE, this);
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, error);
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "https");
    curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 2L);
    if (!settings.caCertPath.empty())
    {
        curl_easy_setopt(handle, CURLOPT_CAINFO, settings.caCertPath.c_str());
    }
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS,
                     static_cast<long>(settings.connectionTimeout.count()));
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, static_cast<long>(settings.requestTimeout.count()));
    // An empty proxy also keeps libcurl from reading proxy variables behind
    // the route decision.
    curl_easy_setopt(handle, CURLOPT_PROXY, routes->Current().c_str());
    curl_easy_setopt(handle, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &WriteBody);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, static_cast<MutableHttpResponse*>(response.get()));
    switch (request.Method())
    {
    case HttpMethod::Get:
        curl_easy_setopt(handle, CURLOPT_HTTPGET, 1L);
        break;
    case HttpMethod::Post:
    case HttpMethod::Put:
    case HttpMethod::Delete:
        if (request.Method() != HttpMethod::Post)
        {
            curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, ToString(request.Method()));
        }
        curl_easy_setopt(handle, CURLOPT_POSTFIELDS, request.Payload().data());
        curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE,
                         static_cast<curl_off_t>(request.Payload().size()));
        break;
    }
}

std::string HttpTransfer::FailureText(CURLcode code) const
{
    return error[0] != '\0' ? std::string(error) : curl_easy_strerror(code);
}

} // namespace vantor::common::internal
