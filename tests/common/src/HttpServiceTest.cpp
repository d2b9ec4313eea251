#include "common/HttpService.h"
#include "common/HmacRequestSigner.h"
#include "common/HttpDownloadManager.h"
#include "common/HttpUploader.h"
#include "common/InMemoryHttpResponse.h"
#include "common/LzmaHttpInterceptor.h"
#include "common/OnDiskHttpResponse.h"
#include "common/SigValidationHttpInterceptor.h"
#include "tests/common/src/CommonTestHelpers.h"
#include "tests/support/TempDir.h"
#include "tools/TestReceiver.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>
#include <random>
#include <thread>

using namespace vantor::common;
using vantor::tools::TestReceiver;
using namespace std::chrono_literals;
using vantor::test::ReadWhole;

namespace
{

const char* kKey = "0123456789abcdef-test-key";

uint16_t FreePort()
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    close(fd);
    return ntohs(addr.sin_port);
}

class HttpServiceTest : public testing::Test
{
protected:
    void SetUp() override
    {
        std::filesystem::create_directories(m_dir + "/out");
        std::filesystem::create_directories(m_dir + "/keys");
        std::ofstream(m_dir + "/keys/edr_hmac.key") << kKey << "\n";
        TestReceiver::Options options;
        options.outputDir = m_dir + "/out";
        options.certDir = m_dir;
        options.hmacKey = kKey;
        options.customerId = "cust-1";
        options.agentId = "agent-1";
        options.requestLog = m_dir + "/requests.log";
        m_receiver = std::make_unique<TestReceiver>(options);
        m_receiver->Start();
    }

    void TearDown() override
    {
        m_services.clear();
        m_receiver.reset();
    }

    HttpServiceSettings Settings() const
    {
        HttpServiceSettings settings;
        settings.connectionTimeout = 2s;
        settings.requestTimeout = 3s;
        settings.caCertPath = m_receiver->Certificate().certPath;
        settings.useSystemProxy = false;
        settings.retryAttempts = 0;
        settings.retryPause = 20ms;
        settings.customerId = "cust-1";
        settings.agentId = "agent-1";
        return settings;
    }

    // extra runs after the compression.
    std::shared_ptr<HttpService> Service(const HttpServiceSettings& settings, bool lzma = true,
                                         std::shared_ptr<HttpInterceptor> extra = nullptr,
                                         const std::string& key = "edr_hmac.key")
    {
        auto service = std::make_shared<HttpService>(
            settings, std::make_shared<HmacRequestSigner>(m_dir + "/keys/" + key));
        if (lzma)
        {
            service->AddInterceptor(std::make_shared<LzmaHttpInterceptor>());
        }
        if (extra)
        {
            service->AddInterceptor(std::move(extra));
        }
        service->Start();
        m_services.push_back(service);
        return service;
    }

    static bool Upload(HttpUploader& uploader, const std::string& url, const std::string& payload)
    {
        std::promise<bool> done;
        std::atomic<int> calls{0};
        uploader.Upload(url, payload, "application/json", "fim",
                        [&](bool ok)
                        {
                            if (calls++ == 0)
                            {
                                done.set_value(ok);
                            }
                        });
        auto future = done.get_future();
        if (future.wait_for(20s) != std::future_status::ready)
        {
            ADD_FAILURE() << "upload did not complete";
            return false;
        }
        const bool result = future.get();
        std::this_thread::sleep_for(20ms);
        EXPECT_EQ(calls.load(), 1) << "callback must run exactly once";
        return result;
    }

    static std::shared_ptr<HttpResponse> Perform(HttpService& service, const HttpRequest& request)
    {
        std::promise<std::shared_ptr<HttpResponse>> done;
        service.Queue(request, [&](const std::shared_ptr<HttpResponse>& r) { done.set_value(r); });
        return done.get_future().get();
    }

    vantor::test::TempDir m_tmp;
    const std::string m_dir = m_tmp.Path();
    std::unique_ptr<TestReceiver> m_receiver;
    std::vector<std::shared_ptr<HttpService>> m_services;
};

TEST_F(HttpServiceTest, UploadCarriesFixedHeadersAndValidHmacAndArrivesByteExact)
{
    HttpUploader uploader(Service(Settings()), 1);
    std::mt19937 rng(1);
    std::string payload(100 * 1024, '\0');
    for (auto& c : payload)
    {
        c = static_cast<char>(rng() % 40);
    }
    ASSERT_TRUE(Upload(uploader, m_receiver->Url("/upload/fim?v=1"), payload));

    const auto requests = m_receiver->Requests();
    ASSERT_EQ(requests.size(), 1u);
    const auto& r = requests[0];
    EXPECT_EQ(r.rejection, "");
    EXPECT_EQ(r.headers.Get("C-PROTOTYPE"), "fim");
    EXPECT_EQ(r.headers.Get("C-PRODUCT"), "OUTPOST");
    EXPECT_EQ(r.headers.Get("Content-Encoding"), "LZMA");
    EXPECT_EQ(r.headers.Get("Content-Type"), "application/json");
    EXPECT_TRUE(r.headers.Get("X-CRVD-Authorization")->starts_with("CRVD-HMAC-SHA256 Credential=agent-1, "));
    EXPECT_TRUE(ReadWhole(m_dir + "/out/1.payload") == payload);
}

TEST_F(HttpServiceTest, LzmaAnswerIsDecompressedAndItsSignatureChecked)
{
    auto service =
        Service(Settings(), true,
                std::make_shared<SigValidationHttpInterceptor>(m_receiver->Certificate().publicKeyPath));
    MutableHttpRequest request(HttpMethod::Post, m_receiver->Url());
    request.SetProtocolType("status");
    request.SetPayload("payload");
    auto response = Perform(*service, request);
    EXPECT_TRUE(response->IsSuccess()) << response->Error();
    EXPECT_EQ(response->Payload(), R"({"stored":1})");
    EXPECT_FALSE(response->Headers().Has("Content-Encoding"));
    EXPECT_FALSE(response->Headers().Has("C-SRV"));
    EXPECT_TRUE(response->IsFinalized());

    // Answers signed by another key are refused.
    const auto other = vantor::tools::TestCertificate::Create(m_dir, "other");
    auto strict =
        Service(Settings(), true, std::make_shared<SigValidationHttpInterceptor>(other.publicKeyPath));
    response = Perform(*strict, request);
    EXPECT_EQ(response->GetOutcome(), HttpResponse::Outcome::Failed);
    EXPECT_EQ(response->Error(), "Response signature validation failed");
}

// Leaves one fixed header out, as a broken client would.
class DropHeader : public HttpInterceptor
{
public:
    explicit DropHeader(std::string name)
        : m_name(std::move(name))
    {
    }
    void InterceptRequest(MutableHttpRequest& request) override { request.RemoveHeader(m_name); }
    void InterceptResponse(MutableHttpResponse&) override {}

private:
    std::string m_name;
};

TEST_F(HttpServiceTest, ReceiverRefusesWhatTheBackEndRefuses)
{
    HttpUploader plain(Service(Settings(), false), 1);
    EXPECT_FALSE(Upload(plain, m_receiver->Url("/upload/fim"), "{\"a\":1}"));
    HttpUploader headless(Service(Settings(), true, std::make_shared<DropHeader>("C-PRODUCT")), 1);
    EXPECT_FALSE(Upload(headless, m_receiver->Url("/upload/fim"), "{\"a\":2}"));
    HttpUploader good(Service(Settings()), 1);
    EXPECT_TRUE(Upload(good, m_receiver->Url("/upload/fim"), "{\"a\":3}"));

    const auto requests = m_receiver->Requests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0].rejection, "payload is not LZMA-compressed");
    EXPECT_EQ(requests[0].status, 400);
    EXPECT_EQ(requests[1].rejection, "bad or missing header C-PRODUCT");
    EXPECT_EQ(requests[2].rejection, "");
    EXPECT_EQ(m_receiver->StoredCount(), 1u);
    EXPECT_EQ(ReadWhole(m_dir + "/requests.log"),
              "POST /upload/fim 400 Content-Encoding=- Accept-Encoding=- refused: payload is not "
              "LZMA-compressed\n"
              "POST /upload/fim 400 Content-Encoding=LZMA Accept-Encoding=LZMA refused: bad or missing "
              "header C-PRODUCT\n"
              "POST /upload/fim 200 Content-Encoding=LZMA Accept-Encoding=LZMA\n");

    std::ofstream(m_dir + "/keys/other.key") << "not-the-key";
    HttpUploader wrongKey(Service(Settings(), true, nullptr, "other.key"), 1);
    EXPECT_FALSE(Upload(wrongKey, m_receiver->Url(), "{}"));
    EXPECT_EQ(m_receiver->Requests().back().rejection, "HMAC: signature mismatch");
    EXPECT_EQ(m_receiver->StoredCount(), 1u);
}

TEST_F(HttpServiceTest, PutAbove16KbIsRefusedAndPostOf1MbAccepted)
{
    // The limit holds for the payload as given, before compression.
    auto service = Service(Settings());
    MutableHttpRequest put(HttpMethod::Put, m_receiver->Url("/upload/put"));
    put.SetProtocolType("status");
    put.SetPayload(std::string(16385, 'p'));
    EXPECT_THAT(
        [&] {
            service->Queue(put,
                           [](const std::shared_ptr<HttpResponse>&) { ADD_FAILURE() << "must not be sent"; });
        },
        testing::ThrowsMessage<std::invalid_argument>(
            testing::StrEq("PUT method only supports a maximum payload of 16KB")));
    put.SetPayload(std::string(16384, 'p'));
    EXPECT_TRUE(Perform(*service, put)->IsSuccess());

    HttpUploader uploader(service, 1);
    const std::string big(1024 * 1024, 'b');
    ASSERT_TRUE(Upload(uploader, m_receiver->Url(), big));
    EXPECT_TRUE(ReadWhole(m_dir + "/out/2.payload") == big);
    EXPECT_EQ(m_receiver->Requests()[0].method, "PUT");
}

TEST_F(HttpServiceTest, ServerErrorsAreRetriedUpToTheLimit)
{
    HttpUploader uploader(Service(Settings()), 3);
    m_receiver->FailNext(1, 503);
    EXPECT_TRUE(Upload(uploader, m_receiver->Url(), "{\"a\":1}"));
    EXPECT_EQ(m_receiver->RequestCount(), 2u);
    EXPECT_EQ(m_receiver->StoredCount(), 1u);

    // The service's retry on the same route.
    auto settings = Settings();
    settings.retryAttempts = 1;
    HttpUploader single(Service(settings), 1);
    m_receiver->FailNext(1, 500);
    EXPECT_TRUE(Upload(single, m_receiver->Url(), "{\"a\":2}"));
    EXPECT_EQ(m_receiver->RequestCount(), 4u);
    EXPECT_EQ(m_receiver->StoredCount(), 2u);

    // The uploader gives up at its maximum.
    HttpUploader twice(Service(Settings()), 2);
    m_receiver->FailNext(100, 502);
    EXPECT_FALSE(Upload(twice, m_receiver->Url(), "{}"));
    EXPECT_EQ(m_receiver->RequestCount(), 6u);
    EXPECT_EQ(m_receiver->StoredCount(), 2u);
    EXPECT_THROW(HttpUploader(m_services.back(), 0), std::invalid_argument);
}

TEST_F(HttpServiceTest, WrongCaFailsWithoutSendingAndAStalledServerTimesOut)
{
    const auto other = vantor::tools::TestCertificate::Create(m_dir, "other");
    auto settings = Settings();
    settings.caCertPath = other.certPath;
    settings.retryAttempts = 2;
    auto service = Service(settings);
    MutableHttpRequest request(HttpMethod::Post, m_receiver->Url());
    request.SetPayload("secret");
    auto response = Perform(*service, request);
    EXPECT_EQ(response->GetOutcome(), HttpResponse::Outcome::Failed);
    EXPECT_EQ(response->Status(), 0);
    EXPECT_EQ(m_receiver->RequestCount(), 0u);

    // A server that never answers: the request times out.
    settings = Settings();
    settings.requestTimeout = 300ms;
    service = Service(settings);
    m_receiver->StallNext(1, 10s);
    const auto start = std::chrono::steady_clock::now();
    response = Perform(*service, request);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);
    EXPECT_EQ(response->GetOutcome(), HttpResponse::Outcome::Failed);
    EXPECT_NE(response->Error().find("timed out"), std::string::npos) << response->Error();
}

TEST_F(HttpServiceTest, StopCompletesEveryRequestExactlyOnce)
{
    auto settings = Settings();
    settings.retryAttempts = 5;
    settings.retryPause = 5s;
    auto service = Service(settings);
    m_receiver->StallNext(3, 10s);
    m_receiver->FailNext(100, 503);
    constexpr int kRequests = 6;
    std::array<std::atomic<int>, kRequests> calls{};
    std::array<std::atomic<int>, kRequests> outcome{};
    for (int i = 0; i < kRequests; ++i)
    {
        MutableHttpRequest request(HttpMethod::Post, m_receiver->Url());
        service->Queue(request,
                       [&, i](const std::shared_ptr<HttpResponse>& r)
                       {
                           ++calls[i];
                           outcome[i] = static_cast<int>(r->GetOutcome());
                       });
    }
    ASSERT_TRUE(m_receiver->WaitForRequests(3, 5s)); // the non-stalled ones now wait to retry
    const auto start = std::chrono::steady_clock::now();
    service->Stop();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    for (int i = 0; i < kRequests; ++i)
    {
        EXPECT_EQ(calls[i].load(), 1) << i;
        EXPECT_EQ(outcome[i].load(), static_cast<int>(HttpResponse::Outcome::Cancelled)) << i;
    }
    MutableHttpRequest late(HttpMethod::Post, m_receiver->Url());
    EXPECT_THAT([&] { service->Queue(late, [](const std::shared_ptr<HttpResponse>&) {}); },
                testing::ThrowsMessage<HttpServiceException>(testing::StrEq("HttpService is not running")));
    EXPECT_THAT([&] { service->Start(); }, testing::ThrowsMessage<HttpServiceException>(testing::StrEq(
                                               "HttpService cannot be started when in state 2")));
    HttpUploader uploader(service, 3);
    EXPECT_FALSE(Upload(uploader, m_receiver->Url(), "{}"));
}

TEST_F(HttpServiceTest, DeadProxyIsBypassedOnlyWhenFailOpenAndSystemProxyIsConsulted)
{
    auto settings = Settings();
    settings.useProxyOrder = true;
    settings.proxies = {"http://127.0.0.1:" + std::to_string(FreePort())};
    settings.proxyFailOpen = false;
    HttpUploader closed(Service(settings), 1);
    EXPECT_FALSE(Upload(closed, m_receiver->Url(), "{}"));
    EXPECT_EQ(m_receiver->RequestCount(), 0u);

    settings.proxyFailOpen = true;
    HttpUploader open(Service(settings), 1);
    EXPECT_TRUE(Upload(open, m_receiver->Url(), "{}"));
    EXPECT_EQ(m_receiver->StoredCount(), 1u);

    // A proxy found in the environment is a route like a configured one.
    settings.useProxyOrder = false;
    settings.proxyFailOpen = false;
    setenv("https_proxy", settings.proxies[0].c_str(), 1);
    settings.useSystemProxy = true;
    HttpUploader system(Service(settings), 1);
    const bool ok = Upload(system, m_receiver->Url(), "{}");
    unsetenv("https_proxy");
    EXPECT_FALSE(ok);
    EXPECT_EQ(m_receiver->RequestCount(), 1u);
}

TEST_F(HttpServiceTest, RangedDownloadAssemblesChunksOnDisk)
{
    auto service = Service(Settings());
    HttpDownloadManager downloader(service, 1000);
    const std::string target = m_dir + "/download.bin";
    ASSERT_TRUE(downloader.Download(m_receiver->Url("/download/2500"), target));
    EXPECT_EQ(ReadWhole(target), TestReceiver::DownloadContent(2500));
    EXPECT_EQ(m_receiver->RequestCount(), 3u);
    EXPECT_FALSE(downloader.Download(m_receiver->Url("/upload"), target)); // a 400, not a range

    // An on-disk response cannot go through the interceptors.
    MutableHttpRequest request(HttpMethod::Get, m_receiver->Url("/download/10"));
    EXPECT_THAT([&] { service->Queue(request, std::make_shared<OnDiskHttpResponse>(target), nullptr); },
                testing::ThrowsMessage<HttpServiceException>(
                    testing::StrEq("OnDiskHttpResponse does not support HTTP interceptors")));
}

} // namespace
