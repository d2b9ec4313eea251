#include "common/HttpDownloadManager.h"
#include "common/HttpRetryPolicy.h"
#include "common/HttpRoutes.h"
#include "common/InMemoryHttpResponse.h"
#include "common/LzmaHttpInterceptor.h"
#include "common/MutableHttpRequest.h"
#include "common/util/Base64.h"
#include "common/util/Lzma.h"
#include "tests/common/src/CommonTestHelpers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <stdexcept>

using namespace vantor::common;
using vantor::common::internal::HttpRetryPolicy;
using vantor::common::internal::HttpRoutes;
using vantor::test::ErrorOf;
using Action = HttpRetryPolicy::Action;
using ::testing::ElementsAre;

TEST(HttpResponseTest, FinalizedResponseRefusesEveryChange)
{
    InMemoryHttpResponse response;
    response.SetStatus(200);
    response.AddHeader("X-A", "1");
    response.AppendPayload("abc");
    response.Reset();
    EXPECT_EQ(response.Status(), 0);
    EXPECT_FALSE(response.Headers().Has("x-a"));
    EXPECT_EQ(response.Payload(), "");

    response.SetPayload("body");
    response.AddHeader("X-A", "1");
    response.Finalize();
    EXPECT_EQ(ErrorOf([&] { response.AddHeader("X-B", "2"); }),
              "Cannot add header to HttpResponse after it has been finalized");
    EXPECT_EQ(ErrorOf([&] { response.RemoveHeader("X-A"); }),
              "Cannot remove header from HttpResponse after it has been finalized");
    EXPECT_EQ(ErrorOf([&] { response.AppendPayload("x"); }),
              "Cannot update HttpResponse payload after it has been finalized");
    EXPECT_EQ(ErrorOf([&] { response.SetStatus(500); }),
              "Cannot update HttpResponse status after it has been finalized");
    EXPECT_EQ(ErrorOf([&] { response.Reset(); }), "Cannot reset HttpResponse to initial state");
    EXPECT_EQ(response.Payload(), "body");
    EXPECT_EQ(response.Headers().Get("x-A"), "1");
}

TEST(HttpResponseTest, HeaderNamesAndValuesCannotInjectLines)
{
    MutableHttpRequest request(HttpMethod::Post, "https://127.0.0.1/");
    for (const char* bad : {"", "Bad Name", "Bad:Name", "X\r\nInjected", "Ünicode"})
    {
        EXPECT_EQ(ErrorOf([&] { request.AddHeader(bad, "v"); }), "AddHeader: Invalid header key") << bad;
    }
    EXPECT_EQ(ErrorOf([&] { request.AddHeader("X-Ok", "a\r\nX-Evil: 1"); }),
              "AddHeader: Invalid header value");
    request.AddHeader("X-Ok", "first");
    request.AddHeader("x-ok", "second");
    ASSERT_EQ(request.Headers().Entries().size(), 1u);
    EXPECT_EQ(request.Headers().Get("X-OK"), "second");
}

TEST(HttpResponseTest, LzmaRoundTripAndHostileInput)
{
    std::mt19937 rng(7);
    std::string binary(200000, '\0');
    for (auto& c : binary)
    {
        c = static_cast<char>(rng() % 16);
    }
    for (const std::string& data : {std::string(), std::string("x"), binary})
    {
        const std::string packed = vantor::util::LzmaCompress(data);
        EXPECT_EQ(vantor::util::LzmaDecompress(packed), data);
    }
    const std::string packed = vantor::util::LzmaCompress(binary);
    EXPECT_LT(packed.size(), binary.size());
    EXPECT_THROW(vantor::util::LzmaDecompress(packed.substr(0, packed.size() / 2)),
                 vantor::util::LzmaException);
    EXPECT_THROW(vantor::util::LzmaDecompress("not lzma at all"), vantor::util::LzmaException);
    // A small stream that expands beyond the limit is refused, not inflated.
    EXPECT_THROW(vantor::util::LzmaDecompress(vantor::util::LzmaCompress(std::string(1 << 20, 'z')), 1 << 16),
                 vantor::util::LzmaException);
}

TEST(HttpResponseTest, InMemoryBodyIsBoundedAsReceivedAndDecompressed)
{
    InMemoryHttpResponse received(8);
    received.AppendPayload("1234");
    received.AppendPayload("5678");
    EXPECT_EQ(ErrorOf([&] { received.AppendPayload("9"); }), "HttpResponse payload exceeds 8 bytes");
    EXPECT_EQ(received.Payload(), "12345678");

    // A small answer that the interceptor would expand past the bound.
    InMemoryHttpResponse bomb(1024);
    bomb.AddHeader("Content-Encoding", "LZMA");
    bomb.SetPayload(vantor::util::LzmaCompress(std::string(1025, 'z')));
    EXPECT_THROW(LzmaHttpInterceptor().InterceptResponse(bomb), HttpInterceptorException);
    InMemoryHttpResponse fits(1024);
    fits.AddHeader("Content-Encoding", "LZMA");
    fits.SetPayload(vantor::util::LzmaCompress(std::string(1024, 'z')));
    LzmaHttpInterceptor().InterceptResponse(fits);
    EXPECT_EQ(fits.Payload(), std::string(1024, 'z'));
}

TEST(HttpResponseTest, Base64RoundTripAndRejection)
{
    const std::string bytes("\0\xff\x10 binary", 10);
    EXPECT_EQ(vantor::util::Base64Decode(vantor::util::Base64Encode(bytes)), bytes);
    EXPECT_EQ(vantor::util::Base64Encode("abc"), "YWJj");
    EXPECT_THROW(vantor::util::Base64Decode("***"), std::invalid_argument);
}

TEST(HttpResponseTest, ContentRangeParsing)
{
    const auto range = HttpDownloadManager::ParseContentRange("bytes 100-199/1000");
    ASSERT_TRUE(range);
    EXPECT_EQ(range->first, 100u);
    EXPECT_EQ(range->last, 199u);
    EXPECT_EQ(range->total, 1000u);
    for (const char* bad : {"", "bytes */1000", "bytes 5-4/10", "bytes 0-10/10", "items 0-1/2", "bytes 0-1/x",
                            "bytes -1-2/3", "bytes 0-99999999999999999999999/1"})
    {
        EXPECT_FALSE(HttpDownloadManager::ParseContentRange(bad)) << bad;
    }
}

TEST(HttpRoutesTest, PlanTriesConfiguredThenSystemProxiesThenDirectWhenAllowed)
{
    HttpServiceSettings settings;
    settings.useProxyOrder = true;
    settings.proxies = {"http://a:3128", "", "http://b:3128", "http://a:3128"};
    settings.useSystemProxy = true;
    const std::vector<std::string> system = {"http://b:3128", "http://c:8080"};

    EXPECT_THAT(HttpRoutes::Plan(settings, system),
                ElementsAre("http://a:3128", "http://b:3128", "http://c:8080"))
        << "no direct route unless fail-open; duplicates and empty entries once or not at all";
    settings.proxyFailOpen = true;
    EXPECT_THAT(HttpRoutes::Plan(settings, system),
                ElementsAre("http://a:3128", "http://b:3128", "http://c:8080", ""));

    settings.proxyFailOpen = false;
    settings.useProxyOrder = false;
    settings.useSystemProxy = false;
    EXPECT_THAT(HttpRoutes::Plan(settings, system), ElementsAre("")) << "no proxy at all: direct";
}

TEST(HttpRoutesTest, RetriesAreCountedPerRoute)
{
    HttpRoutes routes({"http://proxy:3128", ""});
    EXPECT_TRUE(routes.ViaProxy());
    EXPECT_TRUE(routes.TakeRetry(2));
    EXPECT_TRUE(routes.TakeRetry(2));
    EXPECT_FALSE(routes.TakeRetry(2));
    EXPECT_EQ(routes.Attempt(), 2u);
    ASSERT_TRUE(routes.Next());
    EXPECT_FALSE(routes.ViaProxy());
    EXPECT_EQ(routes.Attempt(), 0u) << "a new route starts its retries afresh";
    EXPECT_TRUE(routes.TakeRetry(2));
    EXPECT_FALSE(routes.Next()) << "the last route has no successor";
    EXPECT_EQ(routes.Current(), "");
    EXPECT_FALSE(HttpRoutes({""}).TakeRetry(0));
    EXPECT_THROW(HttpRoutes({}), std::invalid_argument);
}

TEST(HttpRetryPolicyTest, TransportFailures)
{
    // Certificate problems are never retried nor routed around.
    EXPECT_EQ(HttpRetryPolicy::AfterTransportError(CURLE_PEER_FAILED_VERIFICATION, true, 0), Action::Fail);
    EXPECT_EQ(HttpRetryPolicy::AfterTransportError(CURLE_SSL_CACERT_BADFILE, false, 0), Action::Fail);
    // A proxy that did not open the tunnel: the next route.
    EXPECT_EQ(HttpRetryPolicy::AfterTransportError(CURLE_COULDNT_CONNECT, true, 0), Action::NextRoute);
    EXPECT_EQ(HttpRetryPolicy::AfterTransportError(CURLE_RECV_ERROR, true, 407), Action::NextRoute);
    // Through an open tunnel or directly: retry what may pass.
    EXPECT_EQ(HttpRetryPolicy::AfterTransportError(CURLE_OPERATION_TIMEDOUT, true, 200), Action::Retry);
    EXPECT_EQ(HttpRetryPolicy::AfterTransportError(CURLE_COULDNT_RESOLVE_HOST, false, 0), Action::Retry);
    EXPECT_EQ(HttpRetryPolicy::AfterTransportError(CURLE_URL_MALFORMAT, false, 0), Action::Fail);
    EXPECT_EQ(HttpRetryPolicy::AfterTransportError(CURLE_WRITE_ERROR, false, 0), Action::Fail);
}

TEST(HttpRetryPolicyTest, Answers)
{
    EXPECT_EQ(HttpRetryPolicy::AfterResponse(200, false, false), Action::Complete);
    EXPECT_EQ(HttpRetryPolicy::AfterResponse(200, true, true), Action::Complete);
    EXPECT_EQ(HttpRetryPolicy::AfterResponse(200, true, false), Action::NextRoute)
        << "an answer through a proxy without C-SRV came from something in between";
    EXPECT_EQ(HttpRetryPolicy::AfterResponse(503, true, false), Action::NextRoute);
    for (const long status : {408L, 429L, 500L, 502L, 503L})
    {
        EXPECT_EQ(HttpRetryPolicy::AfterResponse(status, false, false), Action::Retry) << status;
    }
    for (const long status : {400L, 401L, 404L, 407L, 499L})
    {
        EXPECT_EQ(HttpRetryPolicy::AfterResponse(status, true, true), Action::Complete) << status;
    }
}
