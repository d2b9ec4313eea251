#include "edr/Config.h"
#include "common/util/Json.h"
#include "edr/CommonConfig.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <rapidjson/document.h>

#include <functional>
#include <sstream>

using vantor::edr::CommonConfig;
using vantor::edr::EDR::Config;

namespace
{

rapidjson::Document Parse(const std::string& text)
{
    rapidjson::Document d;
    EXPECT_TRUE(vantor::util::ParseJson(d, text)) << text;
    return d;
}

auto Refused(const char* text)
{
    return testing::ThrowsMessage<std::invalid_argument>(testing::StrEq(text));
}

const char* kCommon = R"({
  "agent_id": "a1", "agent_version": "3.2.1", "ca_cert_path": "/etc/ca.pem",
  "connection_timeout": 30, "customer_id": "c1", "log_config_file": "/etc/log.properties",
  "proxy_order": 1, "request_timeout": 120, "service_url": "https://svc.example",
  "activation_id": "act", "environment_variables": {"https_proxy": "http://p:3128", "PATH": "/bin"},
  "agent_effective_uid": 0, "agent_effective_gid": 4, "ipv4": "10.0.0.1", "ipv6": "::1",
  "osname": "Debian", "platform": "linux", "agent_install_path": "/opt/outpost",
  "sudo_command": "sudo", "use_sudo": false, "Blackout_Events": [{"start": 1}]
})";

rapidjson::Document CommonWith(const std::function<void(rapidjson::Document&)>& change)
{
    auto d = Parse(kCommon);
    change(d);
    return d;
}

} // namespace

TEST(EdrConfigTest, AcceptsUnsignedIntegersAndOptionalPath)
{
    Config withPath(Parse(R"({"audit_backlog_limit": 8192, "cpu_limit": 10, "memory_limit": 5,
                              "dispatcher_socket_path": "/var/run/audispd_events", "extra": [1]})"));
    EXPECT_EQ(withPath.AuditBacklogLimit(), 8192u);
    EXPECT_EQ(withPath.CpuLimit(), 10u);
    EXPECT_EQ(withPath.MemoryLimit(), 5u);
    EXPECT_TRUE(withPath.UseDispatcher());
    EXPECT_EQ(withPath.DispatcherSocketPath(), "/var/run/audispd_events");

    Config kernel(Parse(R"({"audit_backlog_limit": 0, "cpu_limit": 150, "memory_limit": 0})"));
    EXPECT_FALSE(kernel.UseDispatcher());
    EXPECT_EQ(kernel.CpuLimit(), 150u) << "limits above 100 are refused later, by the resource monitor";
}

TEST(EdrConfigTest, RejectsWrongTypesAndMissingKeys)
{
    const char* bad[] = {
        R"({"audit_backlog_limit": 1, "cpu_limit": 50.5, "memory_limit": 5})",
        R"({"audit_backlog_limit": 1, "cpu_limit": -1, "memory_limit": 5})",
        R"({"audit_backlog_limit": 1, "cpu_limit": "10", "memory_limit": 5})",
        R"({"audit_backlog_limit": 1, "cpu_limit": 10})",
        R"({"audit_backlog_limit": 1, "cpu_limit": 10, "memory_limit": 5, "dispatcher_socket_path": 7})",
        R"([1, 2])",
    };
    for (const char* text : bad)
    {
        const auto json = Parse(text);
        EXPECT_THAT([&] { Config c(json); }, Refused("EDR::Config: Invalid json")) << text;
    }
    Config ok(Parse(R"({"audit_backlog_limit": 1, "cpu_limit": 10, "memory_limit": 5})"));
    EXPECT_THAT([&] { ok.Update(Parse(bad[0])); }, Refused("EDR::Config::Update: Invalid json"));
    EXPECT_EQ(ok.CpuLimit(), 10u) << "a refused update changes nothing";
    ok.Update(Parse(R"({"audit_backlog_limit": 2, "cpu_limit": 20, "memory_limit": 6})"));
    EXPECT_EQ(ok.CpuLimit(), 20u);
}

TEST(CommonConfigTest, ProxyOrderEnvironmentAndBlackoutEvents)
{
    CommonConfig c(Parse(kCommon));
    EXPECT_TRUE(c.UseProxyOrder());
    EXPECT_FALSE(c.ProxyFailOpen()) << "absent proxy_fail_open defaults to false";
    EXPECT_EQ(c.EnvironmentVariable("https_proxy"), "http://p:3128");
    EXPECT_FALSE(c.HasEnvironmentVariable("http_proxy"));
    EXPECT_THAT(
        [&] { c.EnvironmentVariable("http_proxy"); },
        testing::ThrowsMessage<std::exception>(testing::StrEq("Environment variable (http_proxy) not set.")));
    EXPECT_TRUE(c.HasBlackoutEvents());
    EXPECT_EQ(c.BlackoutEvents(), R"([{"start":1}])");

    CommonConfig other(CommonWith([](auto& d) { d["proxy_order"].SetUint(2); }));
    EXPECT_FALSE(other.UseProxyOrder());
}

TEST(CommonConfigTest, RejectsEachMandatoryKeyMissingOrMistyped)
{
    std::istringstream mandatory(
        "agent_id agent_version ca_cert_path connection_timeout customer_id log_config_file proxy_order "
        "request_timeout service_url activation_id environment_variables agent_effective_uid "
        "agent_effective_gid ipv4 ipv6 osname platform agent_install_path sudo_command use_sudo");
    for (std::string key; mandatory >> key;)
    {
        const auto missing = CommonWith([&](auto& d) { d.RemoveMember(key.c_str()); });
        EXPECT_THAT([&] { CommonConfig c(missing); }, Refused("CommonConfig: Invalid json")) << key;
    }
    const std::function<void(rapidjson::Document&)> mistyped[] = {
        [](auto& d) { d["use_sudo"].SetString("true"); },
        [](auto& d) { d["connection_timeout"].SetInt(-5); },
        [](auto& d) { d["agent_effective_uid"].SetDouble(1.5); },
    };
    for (const auto& change : mistyped)
    {
        const auto bad = CommonWith(change);
        EXPECT_THAT([&] { CommonConfig c(bad); }, Refused("CommonConfig: Invalid json"));
    }
    const auto noBlackout = CommonWith([](auto& d) { d.RemoveMember("Blackout_Events"); });
    EXPECT_NO_THROW(CommonConfig c(noBlackout));
}

TEST(CommonConfigTest, SerialisesMembersInFixedOrder)
{
    CommonConfig c(CommonWith(
        [](auto& d)
        {
            d["environment_variables"].RemoveMember("PATH");
            d.AddMember("proxy_fail_open", true, d.GetAllocator());
        }));
    const std::string json = c.ToJson();
    std::istringstream order(
        "agent_id agent_version ca_cert_path customer_id log_config_file proxy_order proxy_fail_open "
        "connection_timeout request_timeout service_url activation_id agent_effective_uid "
        "agent_effective_gid "
        "ipv4 ipv6 osname platform agent_install_path sudo_command use_sudo environment_variables "
        "Blackout_Events");
    size_t last = 0;
    for (std::string key; order >> key;)
    {
        const size_t pos = json.find("\"" + key + "\":");
        ASSERT_NE(pos, std::string::npos) << key;
        EXPECT_GT(pos, last == 0 ? 0 : last) << key << " out of order in " << json;
        last = pos;
    }
    // The written form reads back as an equal configuration.
    CommonConfig again(Parse(json));
    EXPECT_EQ(again.ToJson(), json);
    EXPECT_TRUE(again.ProxyFailOpen());
}

TEST(CommonConfigTest, GivesHttpSettingsWithExportedProxiesInOrderAndTheKeyPath)
{
    const CommonConfig config(CommonWith(
        [](auto& d)
        {
            d["request_timeout"].SetUint(9);
            d.AddMember("proxy_fail_open", true, d.GetAllocator());
            const auto proxies = Parse(R"({"http_proxy": "http://p3:1", "corvid_https_proxy": "http://p2:1",
                "corvid_https_tls_proxy": "http://p1:1", "https_proxy": "http://p2:1"})");
            d["environment_variables"].CopyFrom(proxies, d.GetAllocator());
        }));
    const auto settings = config.HttpSettings();
    EXPECT_EQ(settings.requestTimeout, std::chrono::seconds(9));
    EXPECT_TRUE(settings.proxyFailOpen);
    EXPECT_EQ(settings.proxies, (std::vector<std::string>{"http://p1:1", "http://p2:1", "http://p3:1"}));
    EXPECT_EQ(config.HmacKeyPath(), "/opt/outpost/keys/edr_hmac.key");
}
