#include "fim/EventRuleManager.h"
#include "fim/ManifestException.h"
#include "tests/src/fim/TestEvent.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include "common/Logging.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <filesystem>

using namespace vantor::fim::internal;
using vantor::fim::test::RecordingRuleEngine;

namespace
{

std::string Manifest(const std::string& rules, const std::string& version = "1.0")
{
    return R"({"data":{"fim":{"policyVersion":")" + version + R"(","collectHashes":true,"rules":[)" + rules +
           "]}}}";
}

std::string Rule(const std::string& id, const std::string& extra,
                 const std::string& notify = R"(["create","modifyContent"])")
{
    return R"({"ruleId":")" + id + R"(","ruleType":"directory","imagePath":"/var/tmp/x","notify":)" + notify +
           (extra.empty() ? "" : "," + extra) + "}";
}

EventRuleManager::RuleSet Parse(const std::string& text)
{
    rapidjson::Document document;
    document.Parse(text.c_str());
    return EventRuleManager::ParseManifest(document, "test");
}

uint8_t Depth(const std::string& value)
{
    rapidjson::Document document;
    document.Parse(("\"" + value + "\"").c_str());
    return EventRule::ParseRecursiveDepth(document);
}

} // namespace

TEST(FimEventRuleManagerTest, RecursiveDepthIsReducedToAByteThenCapped)
{
    EXPECT_EQ(Depth("ALL"), 10);
    EXPECT_EQ(Depth("all"), 10);
    EXPECT_EQ(Depth("None"), 0);
    EXPECT_EQ(Depth("3"), 3);
    EXPECT_EQ(Depth("25"), 10);
    EXPECT_EQ(Depth("256"), 0);
    EXPECT_EQ(Depth("257"), 1);
    EXPECT_THROW(Depth("abc"), std::runtime_error);

    vantor::test::LogCapture log(vantor::common::Logging::Edr());
    const auto set =
        Parse(Manifest(Rule("bad", R"("recursiveDepth":"abc")") + "," + Rule("num", R"("recursiveDepth":7)") +
                       "," + Rule("good", R"("recursiveDepth":"ALL")")));
    ASSERT_EQ(set.rules.size(), 1u);
    EXPECT_EQ(set.rules[0]->GetRuleId(), "good");
    EXPECT_TRUE(log.Contains("Cannot convert from string 'value': abc"));
    EXPECT_TRUE(log.Contains("Recursive Depth: string is expected"));
    EXPECT_EQ(log.Count("Rule parsing failed"), 2u);
}

TEST(FimEventRuleManagerTest, RuleKindsAndActions)
{
    const auto set = Parse(Manifest(
        R"({"ruleId":"f","ruleType":"file","imagePath":"/etc/hosts/","notify":["modifyMetadata","read"]},)"
        R"({"ruleId":"F","ruleType":"File","imagePath":"/etc/hosts","notify":["read"]},)"
        R"({"ruleId":"s","ruleType":"symlink","imagePath":"/etc","notify":["rename"]},)"
        R"({"ruleId":"e","ruleType":"file","imagePath":"","notify":["read"]},)"
        R"({"ruleId":"n","ruleType":"file","imagePath":"/a","notify":[]},)"
        R"({"ruleId":"w","ruleType":"file","imagePath":"/a","notify":["write"]},)"
        R"({"ruleId":"i","ruleType":"file","imagePath":"/a","notify":[5]})"));
    ASSERT_EQ(set.rules.size(), 2u);
    EXPECT_TRUE(set.collectHashes);
    const auto& file = *set.rules[0];
    EXPECT_EQ(file.GetType(), vantor::edr::EventRule::FilePathRule);
    EXPECT_EQ(file.GetPaths(), std::vector<std::string>{"/etc/hosts"});
    EXPECT_EQ(file.GetNotifyActions(), (vantor::edr::EventRule::ActionSet{4, 6}));
    // The kernel knows metadata changes as attribute events, and as opens
    // for writing (touch sets the times through the descriptor).
    EXPECT_EQ(file.GetActions(), (vantor::edr::EventRule::ActionSet{4, 5, 7}));
    EXPECT_THROW(file.GetDirectoryActions(), std::runtime_error);
    const auto& link = *set.rules[1];
    EXPECT_EQ(link.GetKind(), EventRule::Kind::Symlink);
    EXPECT_EQ(link.GetType(), vantor::edr::EventRule::DirectoryPathRule);
    EXPECT_EQ(link.GetDirectoryActions(), (vantor::edr::EventRule::ActionSet{8}));
}

TEST(FimEventRuleManagerTest, TrackContentChangeNeedsAContentAction)
{
    vantor::test::LogCapture log(vantor::common::Logging::Edr());
    const auto set =
        Parse(Manifest(Rule("meta", R"("trackContentChange":true)", R"(["read","modifyMetadata"])") + "," +
                       Rule("content", R"("trackContentChange":true)", R"(["delete"])")));
    ASSERT_EQ(set.rules.size(), 2u);
    EXPECT_FALSE(set.rules[0]->TracksContentChange());
    EXPECT_TRUE(set.rules[1]->TracksContentChange());
    EXPECT_TRUE(log.Contains("Required actions like modifyContent, delete, rename, create are not enabled so "
                             "trackcontentchange cannot be enable for this rule: meta"));
}

TEST(FimEventRuleManagerTest, FilterErrorsDropOnlyTheirRule)
{
    vantor::test::LogCapture log(vantor::common::Logging::Edr());
    const auto set = Parse(Manifest(
        Rule("obj", R"("inclusionFilters":[{"objectType":"socket","patterns":["*"]}])") + "," +
        Rule("span", R"("exclusionFilters":[{"objectType":"file","patterns":["*"],)"
                     R"("timespanStart":"22:00:00","timespanEnd":"06:00:00"}])") +
        "," +
        Rule("start", R"("exclusionFilter":{"objectType":"file","patterns":["*"],)"
                      R"("timespanStart":"8:00","timespanEnd":"09:00:00"})") +
        "," +
        Rule("user", R"("inclusionFilters":[{"objectType":"file","patterns":["*"],"actorUsername":[""]}])") +
        "," + Rule("notarray", R"("inclusionFilters":"x")") + "," +
        Rule("ok",
             R"("inclusionFilter":{"objectType":"directory","patterns":["/var/tmp/x/logs/"]},)"
             R"("exclusionFilters":[{"objectType":"file","patterns":["*.swp"],"actorProcess":["vim"]}])")));
    ASSERT_EQ(set.rules.size(), 1u);
    EXPECT_EQ(set.rules[0]->GetRuleId(), "ok");
    EXPECT_EQ(set.rules[0]->GetInclusionFilters().at(0).GetPatterns(),
              std::vector<std::string>{"/var/tmp/x/logs"});
    EXPECT_EQ(set.rules[0]->GetExclusionFilters().at(0).GetPatterns(), std::vector<std::string>{"*/*.swp"});
    EXPECT_TRUE(log.Contains("Failed to parse inclusion filters: Unknown object type"));
    EXPECT_TRUE(log.Contains("Failed to parse exclusion filters: StartTime cannot be later than EndTime"));
    EXPECT_TRUE(log.Contains("Failed to parse exclusion filters: Invalid startTime "));
    EXPECT_TRUE(log.Contains("Failed to parse inclusion filters:  Invalid actor user name"));
    EXPECT_TRUE(log.Contains("Failed to parse inclusion filters: Filters not array"));
}

TEST(FimEventRuleManagerTest, EnvelopeErrors)
{
    auto expect = [](const std::string& text, const std::string& message)
    {
        EXPECT_THAT([&] { Parse(text); }, testing::ThrowsMessage<ManifestException>(testing::StrEq(message)))
            << text;
    };
    expect(R"({"x":1})", "Missing mandatory element: data");
    expect(R"({"data":{}})", "Missing mandatory element: fim");
    expect(R"({"data":{"fim":{"rules":[]}}})", "Missing mandatory element: policyVersion");
    expect(R"({"data":{"fim":{"policyVersion":"1.0"}}})", "Missing mandatory element: rules");
    expect(R"({"data":{"fim":{"policyVersion":"1.0","rules":{}}}})",
           "Parsing failed. 'rules' section is not an array.");
    expect(Manifest(Rule("a", ""), "2.0"), "Unknown version [2.0] of FIM manifest. Skipping.");
    expect(Manifest(Rule("a", ""), "1"), "Unknown version [1] of FIM manifest. Skipping.");
}

TEST(FimEventRuleManagerTest, LoadRegistersUnderTheTagOrReportsWhyFimStops)
{
    vantor::test::TempDir dir;
    RecordingRuleEngine engine;
    EventRuleManager manager(engine, "FIM");
    vantor::test::LogCapture log(vantor::common::Logging::Edr());

    EXPECT_EQ(manager.LoadManifest(dir.Write("m.json", Manifest(Rule("a", "") + "," + Rule("b", "")))),
              std::nullopt);
    EXPECT_EQ(engine.added, (std::vector<std::string>{"FIM:a", "FIM:b"}));
    EXPECT_EQ(manager.GetRules()->rules.size(), 2u);

    engine.added.clear();
    EXPECT_EQ(manager.LoadManifest(dir.Write("empty.json", Manifest(""))), std::nullopt);
    EXPECT_TRUE(engine.added.empty());
    EXPECT_TRUE(log.Contains("EventRuleManager: No rules to be added."));

    const auto broken = manager.LoadManifest(dir.Write("broken.json", R"({"data":{"fim":)"));
    ASSERT_TRUE(broken);
    EXPECT_EQ(*broken, "Invalid manifest json format for: " + dir.File("broken.json"));
    EXPECT_TRUE(log.Contains("Failed to parse manifest: "));
    EXPECT_TRUE(log.Contains("EventRuleManager: Disabling FIM: Invalid manifest json format for: "));

    const auto missing = manager.LoadManifest(dir.File("none.json"));
    ASSERT_TRUE(missing);
    EXPECT_TRUE(log.Contains("Failed to read manifest: " + dir.File("none.json")));
}

TEST(FimEventRuleManagerTest, SymlinkRulesWatchTheirTargets)
{
    vantor::test::TempDir dir;
    std::filesystem::create_directories(dir.File("links"));
    std::filesystem::create_directories(dir.File("real"));
    std::filesystem::create_symlink(dir.File("real"), dir.File("links/to-real"));
    std::filesystem::create_symlink(dir.File("gone"), dir.File("links/dangling"));
    RecordingRuleEngine engine;
    EventRuleManager manager(engine, "FIM");
    const std::string manifest = Manifest(R"({"ruleId":"s","ruleType":"symlink","imagePath":")" +
                                          dir.File("links") + R"(","notify":["create"]})");
    ASSERT_EQ(manager.LoadManifest(dir.Write("m.json", manifest)), std::nullopt);
    const auto rules = manager.GetRules()->rules;
    ASSERT_EQ(rules.size(), 2u);
    EXPECT_EQ(rules[1]->GetPath(), std::filesystem::canonical(dir.File("real")).string());
    EXPECT_EQ(rules[1]->GetRuleId(), "s");
    EXPECT_NE(rules[1]->GetId(), rules[0]->GetId()); // both can be installed
}
