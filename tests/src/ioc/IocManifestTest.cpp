#include "ioc/EventRuleManager.h"
#include "ioc/Manifest.h"
#include "ioc/ManifestException.h"
#include "tests/support/ExpectThrowText.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include "common/Logging.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

using namespace vantor;
using ioc::internal::EventRuleManager;
using ioc::internal::Manifest;
using ioc::internal::ManifestException;
using testing::ElementsAre;

namespace
{

// A manifest with the given version, global settings and rules.
std::string ManifestText(const std::string& version, const std::string& settings, const std::string& rules,
                         const std::string& extra = "")
{
    return R"({"policyVersion": ")" + version + R"(", "policyId": "policy-1", "productId": "product-1",
              "globalSettings": )" +
           settings + R"(, "rules": [)" + rules + "]" + extra + "}";
}

const std::string kProcessRule = R"({"ruleId": "p1", "ruleType": "Process", "notify": ["start"]})";
const std::string kNetworkRule = R"({"ruleId": "n1", "ruleType": "Network", "notify": ["establish"]})";

template <typename Rules>
std::vector<std::string> Ids(const Rules& rules)
{
    std::vector<std::string> ids;
    for (const auto& rule : rules)
    {
        ids.push_back(rule->GetId());
    }
    return ids;
}

} // namespace

TEST(IocManifestTest, MinorVersionsFromTheSupportedOneOnLoadAndTheMajorIsNotCompared)
{
    for (const char* version : {"2.0.0", "3.0", "1.5.2", "0.0", "2.7", "7"})
    {
        EXPECT_NO_THROW(Manifest::CheckVersion(version)) << version;
    }
    test::LogCapture log(common::Logging::Edr());
    test::ExpectThrowText<ManifestException>([] { Manifest::Parse(ManifestText("2.-1", "{}", "")); },
                                             "Parsing failed. Unsupported manifest version provided");
    EXPECT_TRUE(
        log.Contains("Manifest version not supported. Supported version: 2.0.0, Provided manifest version: "
                     "2.-1"));
    test::ExpectThrowText<ManifestException>(
        [] { Manifest::CheckVersion("two.zero"); },
        "Exception in converting manifest policyVersion to integer, error: stoi");
    EXPECT_TRUE(log.Contains("\"Exception in converting manifest policyVersion to integer, error: stoi\""));
    test::ExpectThrowText<ManifestException>([] { Manifest::CheckVersion("2."); },
                                             "Exception in converting manifest policyVersion to integer");
}

TEST(IocManifestTest, MandatoryMembersAreLookedUpInOrder)
{
    const auto refused = [](const std::string& text, const std::string& error)
    { test::ExpectThrowText<ManifestException>([&] { Manifest::Parse(text); }, error); };
    refused("[]", "Parsing failed. Manifest is not a JSON object");
    refused("{not json", "Parsing failed. Manifest is not a JSON object");
    refused("{}", "Missing mandatory element: policyVersion");
    refused(R"({"policyVersion": 2})", "Missing mandatory element: policyVersion");
    refused(R"({"policyVersion": "2.0"})", "Missing mandatory element: policyId");
    refused(R"({"policyVersion": "2.0", "policyId": "a"})", "Missing mandatory element: productId");
    refused(R"({"policyVersion": "2.0", "policyId": "a", "productId": "b"})",
            "Missing mandatory element: globalSettings");
    refused(R"({"policyVersion": "2.0", "policyId": "a", "productId": "b", "globalSettings": []})",
            "Missing mandatory element: globalSettings");
    // The version is checked before the rules are looked at.
    refused(R"({"policyVersion": "2.-1", "policyId": "a", "productId": "b", "globalSettings": {}})",
            "Parsing failed. Unsupported manifest version provided");
    refused(R"({"policyVersion": "2.0", "policyId": "a", "productId": "b", "globalSettings": {}})",
            "Parsing failed. 'rules' section is not an array.");
    refused(ManifestText("2.0", "{}", kProcessRule + R"(, {"ruleId": "x", "ruleType": 3})"),
            "Parsing failed. 'rule' section does not contain ruleType as string");
    refused(ManifestText("2.0", "{}", "5"),
            "Parsing failed. 'rule' section does not contain ruleType as string");
}

TEST(IocManifestTest, UnsupportedOrBrokenRulesAreSkippedAndTheOthersLoad)
{
    test::LogCapture log(common::Logging::Edr());
    const auto manifest = Manifest::Parse(
        ManifestText("2.0.0", "{}",
                     kProcessRule + R"(, {"ruleId": "reg", "ruleType": "Registry", "notify": ["write"]},
        {"ruleId": "bad", "ruleType": "Network", "notify": ["establish"], "inclusionFilters": [{"filterType": [
            {"objectType": "network", "protocol": "tcp", "remotePort": [{"range": [443, 80]}]}]}]},
        {"ruleId": "edr", "ruleType": "EDR", "ruleClass": "Other"},
        {"ruleId": "f1", "ruleType": "File", "path": "/etc/passwd", "notify": ["write"]},
        {"ruleId": "d1", "ruleType": "Directory", "path": "/tmp", "notify": ["create"]},
        {"ruleId": "w1", "ruleType": "EDR", "ruleClass": "WhitelistGlobal"}, )" +
                         kNetworkRule));
    std::vector<std::string> ids;
    for (const auto& rule : manifest.rules)
    {
        ids.push_back(rule->GetId() + ":" + rule->GetRuleType());
    }
    EXPECT_THAT(ids, ElementsAre("p1:Process", "f1:File", "d1:Directory", "w1:EDR", "n1:Network"));
    EXPECT_TRUE(log.Contains("Registry ruleType is not supported in edr"));
    EXPECT_TRUE(log.Contains("Rule parsing failed: Invalid Port Range"));
    EXPECT_TRUE(log.Contains("Rule parsing failed: Invalid ruleClass for EDR rule type"));
    EXPECT_TRUE(log.Contains("Parsing Rule: {\"ruleId\":\"reg\""));
}

TEST(IocManifestTest, GlobalSettingsAreReadAndBadValuesKeepTheirDefaults)
{
    test::LogCapture log(common::Logging::Edr());
    const auto plain = Manifest::Parse(ManifestText("2.0.0", R"({"sendMetadata": "yes"})", ""));
    EXPECT_FALSE(plain.gatewayUrl);
    EXPECT_TRUE(log.Contains("Gateway URL is not present in the Manifest"));
    EXPECT_FALSE(plain.sendMetadata);
    EXPECT_TRUE(log.Contains("Invalid value in manifest for sendMetadata: expected a bool"));
    EXPECT_FALSE(plain.heuristicsEnabled);
    EXPECT_FALSE(plain.taggingEnabled);

    const auto full = Manifest::Parse(
        ManifestText("2.0.0",
                     R"({"gateway_url": "https://gw", "maxFileSizeToProcess": 4096, "sendMetadata": true,
            "knownProcessPaths": ["/usr/bin/dpkg", 5, "/usr/bin/apt"],
            "tags": {"thresholdScore": 10, "Execution": {"score": 5}}})",
                     "", R"(, "heuristicsEnabled": true)"));
    EXPECT_EQ(full.gatewayUrl, "https://gw");
    EXPECT_EQ(full.maxFileSizeToProcess, 4096u);
    EXPECT_EQ(full.sendMetadata, true);
    EXPECT_THAT(full.knownProcessPaths, ElementsAre("/usr/bin/dpkg", "/usr/bin/apt"));
    EXPECT_TRUE(log.Contains("knownProcessPaths contains non-string value"));
    EXPECT_TRUE(full.taggingEnabled);
    EXPECT_EQ(full.tags, R"({"thresholdScore":10,"Execution":{"score":5}})");
    EXPECT_EQ(full.heuristicsEnabled, true);

    log.Channel().Clear();
    const auto odd = Manifest::Parse(ManifestText(
        "2.0.0",
        R"({"knownProcessPaths": "/usr/bin/dpkg", "tags": {"thresholdScore": 0}, "maxFileSizeToProcess": -1})",
        "", R"(, "heuristicsEnabled": "yes")"));
    EXPECT_TRUE(odd.knownProcessPaths.empty());
    EXPECT_TRUE(log.Contains("knownProcessPaths is not an array of string."));
    EXPECT_FALSE(odd.taggingEnabled);
    EXPECT_TRUE(log.Contains("Tagging is disabled."));
    EXPECT_FALSE(odd.maxFileSizeToProcess);
    EXPECT_FALSE(odd.heuristicsEnabled);
}

class IocRuleManagerTest : public testing::Test
{
protected:
    ioc::Ioc::Config::Manifest Write(const std::string& name, const std::string& text)
    {
        return {m_dir.Write(name, text), "ioc"};
    }

    test::TempDir m_dir;
    EventRuleManager m_manager;
};

TEST_F(IocRuleManagerTest, LaterManifestsAddRulesAndOverrideSettings)
{
    const auto first =
        Write("first.json", ManifestText("2.0.0",
                                         R"({"gateway_url": "https://one", "sendMetadata": true,
                                                            "knownProcessPaths": ["/a", "/b"]})",
                                         kProcessRule, R"(, "heuristicsEnabled": true)"));
    const auto broken = Write("broken.json", ManifestText("2.-1", "{}", kNetworkRule));
    const auto second =
        Write("second.json",
              ManifestText("2.0.0", R"({"gateway_url": "https://two", "knownProcessPaths": ["/b", "/c"],
                                                        "maxFileSizeToProcess": 10})",
                           kNetworkRule + "," + kProcessRule +
                               R"(, {"ruleId": "p2", "ruleType": "Process", "notify": ["exit"]})"));
    test::LogCapture log(common::Logging::Edr());
    ASSERT_TRUE(m_manager.LoadManifests({first, broken, second}));
    EXPECT_TRUE(log.Contains("EventRuleManager: Manifest " + broken.path +
                             " refused: Parsing failed. Unsupported manifest version provided"));
    EXPECT_TRUE(log.Contains("EventRuleManager: Skipping rule p1 of " + second.path));
    EXPECT_FALSE(log.Contains("Disabling EDR"));
    EXPECT_THAT(Ids(*m_manager.GetRules()), ElementsAre("p1", "n1", "p2"));
    EXPECT_EQ(m_manager.GetGatewayUrl(), "https://two");
    EXPECT_TRUE(m_manager.IsSendMetadata()) << "the second manifest does not give it";
    EXPECT_THAT(m_manager.GetKnownProcessPaths(), ElementsAre("/a", "/b", "/c"));
    EXPECT_EQ(m_manager.GetMaxFileSizeToProcess(), 10u);
    EXPECT_TRUE(m_manager.IsHeuristicsEnabled());

    // The kernel gets one process rule for the two.
    const auto audit = m_manager.GetAuditRules();
    EXPECT_THAT(Ids(audit), ElementsAre("n1", EventRuleManager::kMergedProcessRuleId));
    EXPECT_EQ(audit[1]->GetActions().size(), 2u);

    // The heuristics switch keeps its value when a manifest says nothing.
    ASSERT_TRUE(m_manager.LoadManifests({second}));
    EXPECT_TRUE(m_manager.IsHeuristicsEnabled());
    EXPECT_THAT(Ids(*m_manager.GetRules()), ElementsAre("n1", "p1", "p2"));
}

TEST_F(IocRuleManagerTest, WithoutAGatewayUrlTheUrlIsRefusedAndWhenNoManifestLoadsThePolicyIsDropped)
{
    ASSERT_TRUE(m_manager.LoadManifests({Write("ok.json", ManifestText("2.0.0", "{}", kProcessRule))}));
    EXPECT_FALSE(m_manager.HasGatewayUrl());
    test::ExpectThrowText<std::runtime_error>([&] { m_manager.GetGatewayUrl(); },
                                              "EventRuleManager: Gateway URL does not exist");
    const auto held = m_manager.GetRules();
    test::LogCapture log(common::Logging::Edr());
    const std::string missing = m_dir.File("missing.json");
    EXPECT_FALSE(m_manager.LoadManifests({{missing, "ioc"}}));
    EXPECT_TRUE(log.Contains("EventRuleManager: Disabling EDR: Failed to read manifest file: " + missing));
    EXPECT_FALSE(m_manager.IsLoaded());
    EXPECT_TRUE(m_manager.GetRules()->empty());
    EXPECT_TRUE(m_manager.GetAuditRules().empty());
    EXPECT_EQ(held->size(), 1u) << "rules handed out before stay valid";

    EXPECT_FALSE(m_manager.LoadManifests({}));
    EXPECT_TRUE(log.Contains("EventRuleManager: Disabling EDR: No manifest is configured"));
}

TEST_F(IocRuleManagerTest, TheShippedSampleLoadsWithEveryRuleTypeAndTagging)
{
    ASSERT_TRUE(m_manager.LoadManifests({{CORVID_SOURCE_DIR "/config/ioc_manifest.json", "ioc"}}));
    std::vector<std::string> types;
    for (const auto& rule : *m_manager.GetRules())
    {
        types.push_back(rule->GetRuleType());
    }
    std::sort(types.begin(), types.end());
    EXPECT_THAT(types, ElementsAre("Directory", "EDR", "File", "Network", "Network", "Process"));
    EXPECT_TRUE(m_manager.IsTaggingEnabled());
    EXPECT_TRUE(m_manager.HasGatewayUrl());
    EXPECT_EQ(m_manager.GetAuditRules().size(), 5u) << "the whitelist needs no kernel rule";
}
