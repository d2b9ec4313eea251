#include "common/HttpService.h"

#include "common/HttpRetryPolicy.h"
#include "common/HttpTransfer.h"
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

} // namespace

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
    std::vector<TransferPtr> incoming;
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
    std::vector<TransferPtr> ready;
    std::move(due, m_waiting.end(), std::back_inserter(ready));
    m_waiting.erase(due, m_waiting.end());
    for (auto& t : ready)
    {
        StartAttempt(std::move(t));
    }
}

void HttpService::StartAttempt(TransferPtr transfer)
{
    Transfer& t = *transfer;
    try
    {
        if (!t.routes)
        {
            const std::string& url = t.request.Url();
            t.routes.emplace(internal::HttpRoutes::Plan(m_settings, m_settings.useSystemProxy
                                                                        ? m_proxyResolver.Resolve(url)
                                                                        : std::vector<std::string>()));
        }
        t.response->Reset();
        if (m_signer)
        {
            m_signer->Sign(t.request, std::chrono::system_clock::now());
        }
        t.PrepareAttempt(m_settings);
        CURL* easy = t.easy.get();
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

void HttpService::Requeue(TransferPtr transfer, std::chrono::milliseconds delay)
{
    transfer->easy.reset();
    transfer->due = std::chrono::steady_clock::now() + delay;
    m_waiting.push_back(std::move(transfer));
}

bool HttpService::Retry(TransferPtr& transfer)
{
    Transfer& t = *transfer;
    if (!t.routes->TakeRetry(m_settings.retryAttempts))
    {
        return false;
    }
    EDR_LOG_INFO("Retrying HTTP request for " << t.request.Url());
    EDR_LOG_INFO("Http Service retry attempt = " << t.routes->Attempt()
                                                 << " out of :" << m_settings.retryAttempts);
    Requeue(std::move(transfer), m_settings.retryPause);
    return true;
}

void HttpService::OnTransportError(TransferPtr transfer, CURLcode code)
{
    Transfer& t = *transfer;
    const std::string reason = t.FailureText(code);
    EDR_LOG_WARNING("HTTP request for " << t.request.Url() << " failed: " << reason);
    long connectCode = 0;
    curl_easy_getinfo(t.easy.get(), CURLINFO_HTTP_CONNECTCODE, &connectCode);
    const auto action =
        internal::HttpRetryPolicy::AfterTransportError(code, t.routes->ViaProxy(), connectCode);
    // Through a proxy that did not open the tunnel, another route may work.
    if (action == internal::HttpRetryPolicy::Action::NextRoute && t.routes->Next())
    {
        Requeue(std::move(transfer), std::chrono::milliseconds(0));
        return;
    }
    if (action == internal::HttpRetryPolicy::Action::Retry && Retry(transfer))
    {
        return;
    }
    Complete(std::move(transfer), HttpResponse::Outcome::Failed, reason);
}

void HttpService::OnDone(TransferPtr transfer, CURLcode code)
{
    if (code != CURLE_OK)
    {
        OnTransportError(std::move(transfer), code);
        return;
    }
    Transfer& t = *transfer;
    CURL* easy = t.easy.get();
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
    const bool viaProxy = t.routes->ViaProxy();
    const auto action = internal::HttpRetryPolicy::AfterResponse(status, viaProxy, fromServer);
    if (action == internal::HttpRetryPolicy::Action::NextRoute)
    {
        EDR_LOG_WARNING("Header C-SRV is not present, so failover to next proxy.");
        if (t.routes->Next())
        {
            EDR_LOG_INFO("C-SRV header is not present, attempting next proxy");
            Requeue(std::move(transfer), std::chrono::milliseconds(0));
            return;
        }
        Complete(std::move(transfer), HttpResponse::Outcome::Failed,
                 "The answer did not come from the server (no C-SRV header), HTTP status " +
                     std::to_string(status));
        return;
    }
    if (viaProxy)
    {
        EDR_LOG_DEBUG("Header C-SRV is present, go with the retry attempts configured.");
        EDR_LOG_DEBUG("C-SRV header is present, not attempting next proxy.");
    }
    if (action == internal::HttpRetryPolicy::Action::Retry && Retry(transfer))
    {
        return;
    }
    Complete(std::move(transfer), HttpResponse::Outcome::Completed, {});
}

void HttpService::Complete(TransferPtr transfer, HttpResponse::Outcome outcome, std::string error)
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
    std::vector<TransferPtr> cancelled;
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
