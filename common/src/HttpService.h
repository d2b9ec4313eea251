#pragma once

#include "common/CurlHandle.h"
#include "common/HmacRequestSigner.h"
#include "common/HttpInterceptor.h"
#include "common/HttpRequest.h"
#include "common/HttpResponse.h"
#include "common/HttpServiceSettings.h"
#include "common/MutableHttpRequest.h"
#include "common/MutableHttpResponse.h"
#include "common/SystemProxyResolver.h"
#include "common/ThreadedClass.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace vantor::common
{

namespace internal
{
struct HttpTransfer;
} // namespace internal

class HttpServiceException : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// Performs all outgoing HTTP traffic on one thread that drives a libcurl
// multi handle. Requests are queued from any thread; each completes exactly
// once through its callback, on the service thread, with a finalised
// response: answered, failed, or cancelled when the service stops first.
// The parts: each request's transfer (internal::HttpTransfer), its routes
// (internal::HttpRoutes) and the retry policy (internal::HttpRetryPolicy).
class HttpService : private ThreadedClass
{
public:
    using Callback = std::function<void(const std::shared_ptr<HttpResponse>&)>;

    enum class State
    {
        Initial = 0,
        Running = 1,
        Stopped = 2
    };

    // signer may be null: requests then go out unsigned.
    explicit HttpService(HttpServiceSettings settings,
                         std::shared_ptr<const HmacRequestSigner> signer = nullptr);
    ~HttpService() override;

    // Only before Start().
    void AddInterceptor(std::shared_ptr<HttpInterceptor> interceptor);

    // Throws HttpServiceException "HttpService cannot be started when in
    // state <n>" unless the service is new.
    void Start();
    // Cancels what is still queued or in flight; idempotent.
    void Stop();
    State GetState() const;
    bool IsServiceThread() const { return IsWorkerThread(); }

    // Adds the fixed headers, runs the request interceptors and queues the
    // request. Throws HttpServiceException "HttpService is not running",
    // std::invalid_argument for an oversized PUT or a finalised response,
    // HttpServiceException with the refusal of an on-disk response when
    // interceptors would apply, HttpInterceptorException when an
    // interceptor fails.
    void Queue(const HttpRequest& request, std::shared_ptr<MutableHttpResponse> response, Callback callback);
    // The same with an in-memory response.
    void Queue(const HttpRequest& request, Callback callback);

    const HttpServiceSettings& Settings() const { return m_settings; }

private:
    using Transfer = internal::HttpTransfer;
    using TransferPtr = std::unique_ptr<Transfer>;

    void Run() override;
    void OnStop() override;

    void TakeIncoming();
    void StartDue();
    void StartAttempt(TransferPtr transfer);
    void ReadMessages();
    void OnDone(TransferPtr transfer, CURLcode code);
    void OnTransportError(TransferPtr transfer, CURLcode code);
    // Queues the transfer again, at once or after the retry pause.
    void Requeue(TransferPtr transfer, std::chrono::milliseconds delay);
    bool Retry(TransferPtr& transfer);
    void Complete(TransferPtr transfer, HttpResponse::Outcome outcome, std::string error);
    void CancelAll();
    std::chrono::milliseconds PollTimeout() const;

    const HttpServiceSettings m_settings;
    const std::shared_ptr<const HmacRequestSigner> m_signer;
    std::vector<std::shared_ptr<HttpInterceptor>> m_interceptors;

    mutable std::mutex m_mutex;
    State m_state = State::Initial;
    std::vector<TransferPtr> m_incoming;

    // Service thread only.
    CurlMultiHandle m_multi;
    std::vector<TransferPtr> m_waiting;
    std::unordered_map<CURL*, TransferPtr> m_active;
    SystemProxyResolver m_proxyResolver;
};

} // namespace vantor::common
