#include "common/HttpRetryPolicy.h"
#include "common/HttpRoutes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace vantor::common::internal
{
namespace
{

using ::testing::ElementsAre;
using Action = HttpRetryPolicy::Action;

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

} // namespace
} // namespace vantor::common::internal
