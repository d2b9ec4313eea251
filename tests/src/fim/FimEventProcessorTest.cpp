#include "edr/PathEscape.h"
#include "fim/PostProcessor.h"
#include "tests/src/fim/ProcessorFixture.h"

#include "common/util/Json.h"
#include "common/util/Sha256.h"

#include <gtest/gtest.h>

#include <filesystem>

using namespace vantor::fim::internal;
using vantor::edr::EventType;
using vantor::edr::PathEscape;
using vantor::fim::test::TestEvent;

namespace
{

std::vector<std::string> MemberNames(const rapidjson::Value& object)
{
    std::vector<std::string> names;
    for (const auto& member : object.GetObject())
    {
        names.emplace_back(member.name.GetString());
    }
    return names;
}

using FimEventProcessorTest = vantor::fim::test::ProcessorFixture;

} // namespace

TEST(FimPostProcessorTest, DepthCountsDirectoriesBelowTheRule)
{
    EXPECT_EQ(PostProcessor::PathDepth("/a/b", "/a/b"), -1);
    EXPECT_EQ(PostProcessor::PathDepth("/a/b", "/a/bc/d"), -1);
    EXPECT_EQ(PostProcessor::PathDepth("/a/b", "/a/b/f"), 0);
    EXPECT_EQ(PostProcessor::PathDepth("/a/b", "/a/b/c//d/f"), 2);
    EXPECT_EQ(PostProcessor::PathDepth("/", "/etc/hosts"), 1);
}

TEST_F(FimEventProcessorTest, DocumentMembersInOrderWithContentAndHash)
{
    Load(R"({"ruleId":"r1","ruleType":"directory","imagePath":")" + Watched() +
             R"(","recursiveDepth":"all","trackContentChange":true,"notify":["modifyContent"]})",
         true);
    m_dir.Write("watched/a.txt", "hello\n");
    TestEvent event(EventType::Write, Watched("/a.txt"));
    m_processor->HandleEvent(event);
    const auto document = Documents(1);
    const auto& doc = document["events"][0];
    EXPECT_EQ(MemberNames(doc),
              (std::vector<std::string>{"successStatus", "timestamp", "eventId", "eventAction", "eventClass",
                                        "eventType", "imagePath", "fileContentHash", "fileContent",
                                        "contentStatus", "operation", "associatedRules", "actor"}));
    EXPECT_STREQ(doc["successStatus"].GetString(), "yes");
    EXPECT_STREQ(doc["timestamp"].GetString(), "2024-05-01T12:00:00Z");
    EXPECT_EQ(doc["eventId"].GetUint(), 77u);
    EXPECT_STREQ(doc["eventAction"].GetString(), "modifyContent");
    EXPECT_STREQ(doc["eventClass"].GetString(), "Disk");
    EXPECT_STREQ(doc["eventType"].GetString(), "File");
    EXPECT_EQ(doc["fileContentHash"].GetString(), vantor::util::Sha256Hex("hello\n"));
    EXPECT_STREQ(doc["fileContent"].GetString(), "hello\n");
    EXPECT_STREQ(doc["contentStatus"].GetString(), "READ_SUCCESSFUL");
    EXPECT_EQ(doc["operation"]["new"]["size"].GetUint(), 6u);
    EXPECT_STREQ(doc["associatedRules"][0].GetString(), "r1");
    EXPECT_EQ(MemberNames(doc["actor"]),
              (std::vector<std::string>{"processID", "userName", "userID", "auditUserName", "auditUserID",
                                        "procTitle"}));
    EXPECT_STREQ(doc["actor"]["procTitle"].GetString(), "/usr/bin/vim");
}

TEST_F(FimEventProcessorTest, PostProcessingPerRule)
{
    Load(R"({"ruleId":"all","ruleType":"directory","imagePath":")" + Watched() +
         R"(","recursiveDepth":"all","notify":["create","rename"]},)"
         R"({"ruleId":"logs","ruleType":"directory","imagePath":")" +
         Watched() +
         R"(","recursiveDepth":"all","notify":["create"],)"
         R"("inclusionFilters":[{"objectType":"file","patterns":["*.log"]}],)"
         R"("exclusionFilters":[{"objectType":"file","patterns":["*/secret.log"]}]},)"
         R"({"ruleId":"night","ruleType":"directory","imagePath":")" +
         Watched() +
         R"(","notify":["create"],)"
         R"("inclusionFilters":[{"objectType":"file","patterns":["*"],)"
         R"("timespanStart":"00:00:00","timespanEnd":"06:00:00"}]})");
    std::string deep = Watched();
    for (int i = 1; i <= 11; ++i)
    {
        deep += "/d" + std::to_string(i);
    }

    TestEvent oneRule(EventType::Create, Watched("/notes.txt"));   // only "all"
    TestEvent twoRules(EventType::Create, Watched("/app.log"));    // "all" and "logs"
    TestEvent excluded(EventType::Create, Watched("/secret.log")); // exclusion beats inclusion
    TestEvent tenDown(EventType::Create, deep.substr(0, deep.rfind('/')) + "/f");
    TestEvent elevenDown(EventType::Create, deep + "/f");
    TestEvent noAction(EventType::Delete, Watched("/app.log"));
    TestEvent outside(EventType::Create, m_dir.File("other/app.log"));
    TestEvent early(EventType::Create, Watched("/x"));
    early.timestampMs = 1714543199000; // 05:59:59 UTC
    for (auto* event : {&oneRule, &twoRules, &excluded, &tenDown, &elevenDown, &noAction, &outside, &early})
    {
        m_processor->HandleEvent(*event);
    }
    const auto document = Documents(5);
    auto rules = [&](size_t i)
    {
        std::vector<std::string> ids;
        for (const auto& id :
             document["events"][static_cast<rapidjson::SizeType>(i)]["associatedRules"].GetArray())
        {
            ids.emplace_back(id.GetString());
        }
        return ids;
    };
    EXPECT_EQ(rules(0), std::vector<std::string>{"all"});
    EXPECT_EQ(rules(1), (std::vector<std::string>{"all", "logs"}));
    EXPECT_EQ(rules(2), std::vector<std::string>{"all"});
    EXPECT_STREQ(document["events"][3]["imagePath"].GetString(), tenDown.file.c_str());
    // "night" (depth none) holds only entries directly in the directory.
    EXPECT_EQ(rules(4), (std::vector<std::string>{"all", "night"}));
}

TEST_F(FimEventProcessorTest, HostileNamesKeepEveryDocumentValid)
{
    Load(R"({"ruleId":"r\"1","ruleType":"directory","imagePath":")" + Watched() +
         R"(","notify":["rename","modifySecuritySettings"]})");
    const std::string hostile = Watched("/bad\xff\xfe\"quote\\\x01\xed\xa0\x80\xc3.txt");
    TestEvent before(EventType::Attribute, Watched("/plain"));
    TestEvent rename(EventType::Rename, hostile);
    rename.newFile = Watched("/ok-\xc3\xa9");
    rename.user = "\xc0\xaf";
    TestEvent after(EventType::Attribute, Watched("/plain2"));
    m_dir.Write("watched/plain", "x");
    for (auto* event : {&before, &rename, &after})
    {
        m_processor->HandleEvent(*event);
    }
    const auto document = Documents(3);
    const auto& doc = document["events"][1];
    // Paths keep every byte in their escaped form.
    EXPECT_EQ(std::string(doc["imagePath"].GetString()),
              Watched("/bad\\xFF\\xFE\"quote\\\\\x01\\xED\\xA0\\x80\\xC3.txt"));
    EXPECT_EQ(PathEscape::Unescape(doc["imagePath"].GetString()), hostile);
    EXPECT_EQ(std::string(doc["operation"]["old"]["path"].GetString()), doc["imagePath"].GetString());
    EXPECT_EQ(std::string(doc["operation"]["new"]["path"].GetString()), Watched("/ok-\xc3\xa9"));
    // Other text keeps the replacement character.
    EXPECT_STREQ(doc["actor"]["userName"].GetString(), "\xEF\xBF\xBD\xEF\xBF\xBD");
    EXPECT_STREQ(doc["associatedRules"][0].GetString(), "r\"1");
    EXPECT_STREQ(doc["eventAction"].GetString(), "rename");
    const auto& attr = document["events"][0];
    EXPECT_STREQ(attr["eventAction"].GetString(), "modifySecuritySettings");
    EXPECT_EQ(MemberNames(attr["securitySettings"]), (std::vector<std::string>{"new", "old"}));
    EXPECT_EQ(MemberNames(attr["securitySettings"]["new"]),
              (std::vector<std::string>{"permission", "owner", "group"}));
    EXPECT_STRNE(attr["securitySettings"]["new"]["permission"].GetString(), "Unknown");
    EXPECT_STREQ(document["events"][2]["securitySettings"]["new"]["owner"].GetString(), "Unknown");
}

TEST_F(FimEventProcessorTest, BaselineRecordsContentStatusAndSpoolsDocuments)
{
    Load(R"({"ruleId":"b","ruleType":"directory","imagePath":")" + Watched() +
         R"(","recursiveDepth":"1","trackContentChange":true,"notify":["create"]})");
    m_dir.Write("watched/small", "abc");
    m_dir.Write("watched/big", std::string(60000, 'b'));
    std::filesystem::create_directories(Watched("/a/b"));
    m_dir.Write("watched/a/b/too-deep", "z");

    class BaselineRequest : public TestEvent
    {
    public:
        using TestEvent::TestEvent;
        uint32_t GetCategory() const override { return EventProcessor::kBaselineCategory; }
        std::string GetActionName() const override { return "Baseline"; }
    } event(EventType::Create, Watched());
    m_processor->HandleEvent(event);
    ASSERT_NO_FATAL_FAILURE(Baseline({}));
    const auto document = Documents(2);
    for (const auto& doc : document["events"].GetArray())
    {
        EXPECT_STREQ(doc["eventAction"].GetString(), "Baseline");
    }
    const auto small = m_baseline->Read("BaselineEvents", Watched("/small"));
    ASSERT_TRUE(small.success);
    ASSERT_EQ(small.rows.size(), 1u);
    EXPECT_NE(small.rows[0].find("READ_SUCCESSFUL"), std::string::npos);
    const auto big = m_baseline->Read("BaselineEvents", Watched("/big"));
    ASSERT_EQ(big.rows.size(), 1u);
    EXPECT_NE(big.rows[0].find("MAX_SIZE_LIMIT_REACHED"), std::string::npos);
    EXPECT_TRUE(m_baseline->Read("BaselineEvents", Watched("/a/b/too-deep")).rows.empty());
    // The last known state of each file is kept beside its status.
    ASSERT_TRUE(StoredState(Watched("/big")));
    EXPECT_EQ(StoredState(Watched("/big"))->size, 60000u);
}

TEST(FimJsonDataFormatterTest, CollectsObjectsIntoOneEventsArray)
{
    JsonDataFormatter formatter;
    EXPECT_EQ(formatter.Append(R"({"a":1})"), 7u);
    EXPECT_EQ(formatter.Append(R"({"b":"x"})"), 10u);
    for (const char* refused : {"[1]", "{\"a\":\"\xff\"}", "{}{}", "{} x", "{\"a\":", "", " \n"})
    {
        EXPECT_THROW(formatter.Append(refused), std::invalid_argument) << refused;
    }
    // Kept as written, without the space around it or a terminating NUL.
    EXPECT_EQ(formatter.Append(std::string(" {\"c\":[]}\n\0", 11)), 12u) << "its size and the comma";
    // The processor's own documents are taken as they are.
    EXPECT_EQ(formatter.AppendOwn(R"({"d":2})"), 8u);
    std::string out;
    formatter.Serialize(out);
    EXPECT_EQ(out, R"({"events":[{"a":1},{"b":"x"},{"c":[]},{"d":2}]})");
    rapidjson::Document parsed;
    EXPECT_TRUE(vantor::util::ParseJson(parsed, out));
    formatter.Reset();
    formatter.Serialize(out);
    EXPECT_EQ(out, R"({"events":[]})");
}
