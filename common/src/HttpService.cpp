#include "common/HttpService.h"

#include "common/InMemoryHttpResponse.h"
#include "common/Logging.h"
#include "common/OnDiskHttpResponse.h"
#include "common/util/Digest.h"

#include <Poco/UUIDGenerator.h>

#include <algorithm>
#include <cstring>
#include <mutex>

namespace vantor::common
{
namespace
{

constexpr const char* kServerHeader = "C-SRV";
constexpr auto kIdlePoll = std::chrono::milliseconds(1000);

void GlobalInit()
{
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

bool IsRetryableCode(CURLcode code)
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

// Certificate problems are configuration faults: no route or retry fixes
// them, and no fallback may ever skip the verification.
bool IsVerificationFailure(CURLcode code)
{
    return code == CURLE_PEER_FAILED_VERIFICATION || code == CURLE_SSL_CACERT_BADFILE ||
           code == CURLE_SSL_CERTPROBLEM || code == CURLE_SSL_PINNEDPUBKEYNOTMATCH ||
           code == CURLE_SSL_ISSUER_ERROR || code == CURLE_SSL_CRL_BADFILE;
}

bool IsRetryableStatus(long status)
{
    return status == 408 || status == 429 || status >= 500;
}

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

struct HttpService::Transfer
{
    MutableHttpRequest request;
    std::shared_ptr<MutableHttpResponse> response;
    Callback callback;
    bool routesResolved = false;
    std::vector<std::string> routes; // "" is the direct connection
    std::size_t route = 0;
    unsigned attempt = 0;
    std::chrono::steady_clock::time_point due;
    // The list outlives the handle that points to it.
    CurlSlistHandle headers;
    CurlEasyHandle easy;
    char error[CURL_ERROR_SIZE] = {};
};

HttpService::HttpService(HttpServiceSettings settings, std::shared_ptr<const HmacRequestSigner> signer)
    : ThreadedClass("HttpService")
    , m_settings(std::move(settings))
    , m_signer(std::move(signer))
{
    GlobalInit();
    m_multi.reset(curl_multi_init());
    if (!m_multi)
    {
        throw HttpServiceException("HttpService: curl_multi_init failed");
    }
}

HttpService::~HttpService()
{
    Stop();
}

void HttpService::AddInterceptor(std::shared_ptr<HttpInterceptor> interceptor)
{
    std::lock_guard lock(m_mutex);
    if (m_state != State::Initial)
    {
        throw HttpServiceException("HttpService: interceptors can only be added before start");
    }
    m_interceptors.push_back(std::move(interceptor));
}

void HttpService::Start()
{
    {
        std::lock_guard lock(m_mutex);
        if (m_state != State::Initial)
        {
            throw HttpServiceException("HttpService cannot be started when in state " +
                                       std::to_string(static_cast<int>(m_state)));
        }
        m_state = State::Running;
    }
    ThreadedClass::Start();
}

void HttpService::Stop()
{
    {
        std::lock_guard lock(m_mutex);
        if (m_state == State::Initial)
        {
            m_state = State::Stopped;
            return;
        }
        m_state = State::Stopped;
    }
    ThreadedClass::Stop();
    // The worker cancels on its way out; this covers a worker that ended
    // early. Nothing else touches these lists once it is joined.
    CancelAll();
}

HttpService::State HttpService::GetState() const
{
    std::lock_guard lock(m_mutex);
    return m_state;
}

void HttpService::Queue(const HttpRequest& request, Callback callback)
{
    Queue(request, std::make_shared<InMemoryHttpResponse>(), std::move(callback));
}

void HttpService::Queue(const HttpRequest& request, std::shared_ptr<MutableHttpResponse> response,
                        Callback callback)
{
    if (GetState() != State::Running)
    {
        throw HttpServiceException("HttpService is not running");
    }
    if (!response || response->IsFinalized())
    {
        throw std::invalid_argument("HttpService: the response must be new");
    }
    auto transfer = std::make_unique<Transfer>();
    transfer->request = MutableHttpRequest(request);
    MutableHttpRequest& r = transfer->request;
    r.Validate();
    const bool intercept = r.UseInterceptors() && !m_interceptors.empty();
    if (intercept && !response->SupportsInterceptors())
    {
        throw HttpServiceException(OnDiskHttpResponse::kInterceptorsRefused);
    }

    r.AddHeader("C-PROTOTYPE", r.ProtocolType());
    r.AddHeader("C-CUSTID", m_settings.customerId);
    r.AddHeader("C-CLNTID", m_settings.agentId);
    r.AddHeader("C-PRODUCT", "OUTPOST");
    r.AddHeader("C-PROTOVER", "1.0");
    r.AddHeader("C-PROTOCLNTPLATFORM", "LINUX");
    r.AddHeader("C-PROTOCLNTARCH", "x64");
    r.AddHeader("X-Correlation-Id", Poco::UUIDGenerator::defaultGenerator().createRandom().toString());
    // Large bodies would otherwise wait for a "100 Continue" first.
    r.AddHeader("Expect", "");
    if (intercept)
    {
        for (const auto& interceptor : m_interceptors)
        {
            interceptor->InterceptRequest(r);
        }
    }
    r.AddHeader("C-PAYLOADHASH", util::Digest::HexOf(util::Digest::Algorithm::Sha256, r.Payload()));

    transfer->response = std::move(response);
    transfer->callback = std::move(callback);
    {
        std::lock_guard lock(m_mutex);
        // Checked again under the lock: Stop() drains m_incoming after
        // setting the state, so nothing pushed here is ever forgotten.
        if (m_state != State::Running)
        {
            throw HttpServiceException("HttpService is not running");
        }
        m_incoming.push_back(std::move(transfer));
    }
    curl_multi_wakeup(m_multi.get());
}

void HttpService::OnStop()
{
    curl_multi_wakeup(m_multi.get());
}

void HttpService::Run()
{
    while (!IsStopping())
    {
        TakeIncoming();
        StartDue();
        int running = 0;
        CURLMcode mc = curl_multi_perform(m_multi.get(), &running);
        if (mc != CURLM_OK)
        {
            EDR_LOG_ERROR("curl_multi_perform failed with error code: " << mc << " "
                                                                        << curl_multi_strerror(mc));
        }
        ReadMessages();
        if (IsStopping())
        {
            break;
        }
        mc = curl_multi_poll(m_multi.get(), nullptr, 0, static_cast<int>(PollTimeout().count()), nullptr);
        if (mc != CURLM_OK)
        {
            EDR_LOG_ERROR("curl_multi_wait failed with error code: " << mc << " " << curl_multi_strerror(mc));
        }
    }
    CancelAll();
}

std::chrono::milliseconds HttpService::PollTimeout() const
{
    {
        std::lock_guard lock(m_mutex);
        if (!m_incoming.empty())
        {
            return std::chrono::milliseconds(0);
        }
    }
    auto timeout = kIdlePoll;
    const auto now = std::chrono::steady_clock::now();
    for (const auto& t : m_waiting)
    {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(t->due - now);
        timeout = std::clamp(left, std::chrono::milliseconds(0), timeout);
    }
    return timeout;
}

void HttpService::TakeIncoming()
{
    std::vector<std::unique_ptr<Transfer>> incoming;
    {
        std::lock_guard lock(m_mutex);
        incoming.swap(m_incoming);
    }
    const auto now = std::chrono::steady_clock::now();
    for (auto& t : incoming)
    {
        t->due = now;
        m_waiting.push_back(std::move(t));
    }
}

void HttpService::StartDue()
{
    const auto now = std::chrono::steady_clock::now();
    auto due = std::stable_partition(m_waiting.begin(), m_waiting.end(),
                                     [&](const auto& t) { return t->due > now; });
    std::vector<std::unique_ptr<Transfer>> ready;
    std::move(due, m_waiting.end(), std::back_inserter(ready));
    m_waiting.erase(due, m_waiting.end());
    for (auto& t : ready)
    {
        StartAttempt(std::move(t));
    }
}

std::vector<std::string> HttpService::ResolveRoutes(const std::string& url)
{
    std::vector<std::string> routes;
    auto add = [&routes](const std::string& proxy)
    {
        if (!proxy.empty() && std::find(routes.begin(), routes.end(), proxy) == routes.end())
        {
            routes.push_back(proxy);
        }
    };
    if (m_settings.useProxyOrder)
    {
        for (const auto& proxy : m_settings.proxies)
        {
            add(proxy);
        }
    }
    if (m_settings.useSystemProxy)
    {
        for (const auto& proxy : m_proxyResolver.Resolve(url))
        {
            add(proxy);
        }
    }
    if (routes.empty() || m_settings.proxyFailOpen)
    {
        routes.emplace_back();
    }
    return routes;
}

void HttpService::StartAttempt(std::unique_ptr<Transfer> transfer)
{
    Transfer& t = *transfer;
    try
    {
        if (!t.routesResolved)
        {
            t.routes = ResolveRoutes(t.request.Url());
            t.routesResolved = true;
        }
        t.response->Reset();
        if (m_signer)
        {
            m_signer->Sign(t.request, std::chrono::system_clock::now());
        }

        t.easy.reset(curl_easy_init());
        t.headers.reset();
        if (!t.easy)
        {
            throw HttpServiceException("curl_easy_init failed");
        }
        CURL* easy = t.easy.get();
        for (const auto& [name, value] : t.request.Headers().Entries())
        {
            // "Name;" sends an empty header; "Expect:" drops libcurl's own.
            const std::string line = !value.empty()     ? name + ": " + value
                                     : name == "Expect" ? name + ":"
                                                        : name + ";";
            curl_slist* list = curl_slist_append(t.headers.get(), line.c_str());
            if (list == nullptr)
            {
                throw HttpServiceException("curl_slist_append failed");
            }
            t.headers.release();
            t.headers.reset(list);
        }
        const std::string& route = t.routes[t.route];
        t.error[0] = '\0';
        curl_easy_setopt(easy, CURLOPT_URL, t.request.Url().c_str());
        curl_easy_setopt(easy, CURLOPT_PRIVATE, &t);
        curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, t.error);
        curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "https");
        curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
        curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
        curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
        if (!m_settings.caCertPath.empty())
        {
            curl_easy_setopt(easy, CURLOPT_CAINFO, m_settings.caCertPath.c_str());
        }
        curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS,
                         static_cast<long>(m_settings.connectionTimeout.count()));
        curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, static_cast<long>(m_settings.requestTimeout.count()));
        // An empty proxy also keeps libcurl from reading proxy variables
        // behind the route decision.
        curl_easy_setopt(easy, CURLOPT_PROXY, route.c_str());
        curl_easy_setopt(easy, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
        curl_easy_setopt(easy, CURLOPT_HTTPHEADER, t.headers.get());
        curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &WriteBody);
        curl_easy_setopt(easy, CURLOPT_WRITEDATA, static_cast<MutableHttpResponse*>(t.response.get()));
        switch (t.request.Method())
        {
        case HttpMethod::Get:
            curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
            break;
        case HttpMethod::Post:
        case HttpMethod::Put:
        case HttpMethod::Delete:
            if (t.request.Method() != HttpMethod::Post)
            {
                curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, ToString(t.request.Method()));
            }
            curl_easy_setopt(easy, CURLOPT_POSTFIELDS, t.request.Payload().data());
            curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                             static_cast<curl_off_t>(t.request.Payload().size()));
            break;
        }
        const CURLMcode mc = curl_multi_add_handle(m_multi.get(), easy);
        if (mc != CURLM_OK)
        {
            throw HttpServiceException(std::string("curl_multi_add_handle failed: ") +
                                       curl_multi_strerror(mc));
        }
        m_active.emplace(easy, std::move(transfer));
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("Cannot start HTTP request for " << t.request.Url() << ": " << e.what());
        Complete(std::move(transfer), HttpResponse::Outcome::Failed, e.what());
    }
}

void HttpService::ReadMessages()
{
    int left = 0;
    while (CURLMsg* msg = curl_multi_info_read(m_multi.get(), &left))
    {
        if (msg->msg != CURLMSG_DONE)
        {
            EDR_LOG_ERROR("curl_multi_info_read failed with error code: " << msg->msg
                                                                          << " unexpected message");
            continue;
        }
        CURL* easy = msg->easy_handle;
        const CURLcode code = msg->data.result;
        const auto it = m_active.find(easy);
        if (it == m_active.end())
        {
            continue;
        }
        auto transfer = std::move(it->second);
        m_active.erase(it);
        curl_multi_remove_handle(m_multi.get(), easy);
        EDR_LOG_DEBUG("Finished curl request");
        OnDone(std::move(transfer), code);
    }
}

bool HttpService::NextRoute(Transfer& t)
{
    if (t.route + 1 >= t.routes.size())
    {
        return false;
    }
    ++t.route;
    t.attempt = 0;
    EDR_LOG_INFO("Http Service Proxy retry attempt = " << t.route);
    return true;
}

bool HttpService::Retry(std::unique_ptr<Transfer>& transfer)
{
    Transfer& t = *transfer;
    if (t.attempt >= m_settings.retryAttempts)
    {
        return false;
    }
    ++t.attempt;
    EDR_LOG_INFO("Retrying HTTP request for " << t.request.Url());
    EDR_LOG_INFO("Http Service retry attempt = " << t.attempt << " out of :" << m_settings.retryAttempts);
    t.due = std::chrono::steady_clock::now() + m_settings.retryPause;
    t.easy.reset();
    m_waiting.push_back(std::move(transfer));
    return true;
}

void HttpService::OnDone(std::unique_ptr<Transfer> transfer, CURLcode code)
{
    Transfer& t = *transfer;
    CURL* easy = t.easy.get();
    const bool viaProxy = !t.routes[t.route].empty();
    if (code != CURLE_OK)
    {
        const std::string reason = t.error[0] != '\0' ? std::string(t.error) : curl_easy_strerror(code);
        EDR_LOG_WARNING("HTTP request for " << t.request.Url() << " failed: " << reason);
        if (IsVerificationFailure(code))
        {
            Complete(std::move(transfer), HttpResponse::Outcome::Failed, reason);
            return;
        }
        long connectCode = 0;
        curl_easy_getinfo(easy, CURLINFO_HTTP_CONNECTCODE, &connectCode);
        // Through a proxy that did not open the tunnel, another route may work.
        if (viaProxy && connectCode != 200)
        {
            if (NextRoute(t))
            {
                t.due = std::chrono::steady_clock::now();
                m_waiting.push_back(std::move(transfer));
                return;
            }
        }
        else if (IsRetryableCode(code) && Retry(transfer))
        {
            return;
        }
        Complete(std::move(transfer), HttpResponse::Outcome::Failed, reason);
        return;
    }

    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    try
    {
        t.response->SetStatus(status);
        curl_header* prev = nullptr;
        while (curl_header* h = curl_easy_nextheader(easy, CURLH_HEADER, -1, prev))
        {
            t.response->AddHeader(h->name, h->value);
            prev = h;
        }
    }
    catch (const std::exception& e)
    {
        Complete(std::move(transfer), HttpResponse::Outcome::Failed,
                 std::string("Invalid response header: ") + e.what());
        return;
    }

    const bool fromServer = t.response->Headers().Has(kServerHeader);
    if (fromServer)
    {
        EDR_LOG_DEBUG("Header C-SRV is present in response. Deleting it.");
        t.response->RemoveHeader(kServerHeader);
    }
    if (viaProxy)
    {
        if (!fromServer)
        {
            EDR_LOG_WARNING("Header C-SRV is not present, so failover to next proxy.");
            if (NextRoute(t))
            {
                EDR_LOG_INFO("C-SRV header is not present, attempting next proxy");
                t.due = std::chrono::steady_clock::now();
                m_waiting.push_back(std::move(transfer));
                return;
            }
            Complete(std::move(transfer), HttpResponse::Outcome::Failed,
                     "The answer did not come from the server (no C-SRV header), HTTP status " +
                         std::to_string(status));
            return;
        }
        EDR_LOG_DEBUG("Header C-SRV is present, go with the retry attempts configured.");
        EDR_LOG_DEBUG("C-SRV header is present, not attempting next proxy.");
    }
    if (IsRetryableStatus(status) && Retry(transfer))
    {
        return;
    }
    Complete(std::move(transfer), HttpResponse::Outcome::Completed, {});
}

void HttpService::Complete(std::unique_ptr<Transfer> transfer, HttpResponse::Outcome outcome,
                           std::string error)
{
    Transfer& t = *transfer;
    MutableHttpResponse& response = *t.response;
    try
    {
        if (outcome == HttpResponse::Outcome::Completed && t.request.UseInterceptors() &&
            response.SupportsInterceptors())
        {
            try
            {
                for (auto it = m_interceptors.rbegin(); it != m_interceptors.rend(); ++it)
                {
                    (*it)->InterceptResponse(response);
                }
            }
            catch (const std::exception& e)
            {
                outcome = HttpResponse::Outcome::Failed;
                error = e.what();
            }
        }
        if (!response.IsFinalized())
        {
            response.SetOutcome(outcome, std::move(error));
            response.Finalize();
        }
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("Cannot finalise the HTTP response for " << t.request.Url() << ": " << e.what());
    }
    if (!t.callback)
    {
        return;
    }
    try
    {
        std::shared_ptr<HttpResponse> result = t.response;
        t.callback(result);
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("HTTP completion callback failed for " << t.request.Url() << ": " << e.what());
    }
    catch (...)
    {
        EDR_LOG_ERROR("HTTP completion callback failed for " << t.request.Url());
    }
}

void HttpService::CancelAll()
{
    std::vector<std::unique_ptr<Transfer>> cancelled;
    for (auto& [easy, transfer] : m_active)
    {
        curl_multi_remove_handle(m_multi.get(), easy);
        cancelled.push_back(std::move(transfer));
    }
    m_active.clear();
    for (auto& transfer : m_waiting)
    {
        cancelled.push_back(std::move(transfer));
    }
    m_waiting.clear();
    {
        std::lock_guard lock(m_mutex);
        for (auto& transfer : m_incoming)
        {
            cancelled.push_back(std::move(transfer));
        }
        m_incoming.clear();
    }
    for (auto& transfer : cancelled)
    {
        Complete(std::move(transfer), HttpResponse::Outcome::Cancelled, "HTTP service stopped");
    }
}

} // namespace vantor::common
