#include "audit/AuditEventBuilder.h"
#include "audit/AuparseFeed.h"
#include "edr/PathEscape.h"
#include "fim/AccountNames.h"
#include "fim/PostProcessor.h"
#include "tests/src/fim/ProcessorFixture.h"

#include "common/util/Json.h"
#include "common/util/Sha256.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

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
using FimChangeDocumentsTest = vantor::fim::test::ProcessorFixture;

void SetTimes(const std::string& path, time_t seconds)
{
    const struct timespec times[2] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

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
    Load(WatchedRule("r1", R"("modifyContent")", R"("recursiveDepth":"all","trackContentChange":true)"),
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
    Load(WatchedRule("all", R"("create","rename")", R"("recursiveDepth":"all")") + "," +
         WatchedRule(
             "logs", R"("create")",
             R"("recursiveDepth":"all","inclusionFilters":[{"objectType":"file","patterns":["*.log"]}],)"
             R"("exclusionFilters":[{"objectType":"file","patterns":["*/secret.log"]}])") +
         "," +
         WatchedRule("night", R"("create")",
                     R"("inclusionFilters":[{"objectType":"file","patterns":["*"],)"
                     R"("timespanStart":"00:00:00","timespanEnd":"06:00:00"}])"));
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
    const auto rules = [&](rapidjson::SizeType i) { return RuleIds(document["events"][i]); };
    EXPECT_EQ(rules(0), std::vector<std::string>{"all"});
    EXPECT_EQ(rules(1), (std::vector<std::string>{"all", "logs"}));
    EXPECT_EQ(rules(2), std::vector<std::string>{"all"});
    EXPECT_STREQ(document["events"][3]["imagePath"].GetString(), tenDown.file.c_str());
    // "night" (depth none) holds only entries directly in the directory.
    EXPECT_EQ(rules(4), (std::vector<std::string>{"all", "night"}));
}

TEST_F(FimEventProcessorTest, HostileNamesKeepEveryDocumentValid)
{
    Load(WatchedRule(R"(r\"1)", R"("rename","modifySecuritySettings")"));
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
    Load(WatchedRule("b", R"("create")", R"("recursiveDepth":"1","trackContentChange":true)"));
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

// Change documents against the last known state of their object: what was
// there before, what a change of timestamps alone is, and where a rename's
// content comes from.
TEST_F(FimChangeDocumentsTest, TouchOfAnUnchangedFileIsAMetadataChange)
{
    Load(WatchedRule("meta", R"("modifyMetadata")") + "," + WatchedRule("content", R"("modifyContent")"));
    const std::string file = m_dir.Write("watched/f", "abc");
    ::chmod(file.c_str(), 0644);
    ASSERT_NO_FATAL_FAILURE(Baseline({Watched()}));
    EXPECT_EQ(RuleIds(Documents(1)["events"][0]), (std::vector<std::string>{"meta", "content"}));

    // touch: opened for writing, times set, content as it was.
    SetTimes(file, 1000000000);
    auto doc = One(TestEvent(EventType::Write, file));
    EXPECT_STREQ(doc["eventAction"].GetString(), "modifyMetadata");
    EXPECT_EQ(RuleIds(doc), std::vector<std::string>{"meta"});
    EXPECT_STREQ(doc["securitySettings"]["old"]["permission"].GetString(), "0644");
    EXPECT_STREQ(doc["securitySettings"]["new"]["permission"].GetString(), "0644");
    EXPECT_EQ(doc["operation"]["old"]["size"].GetUint(), 3u);

    // A real write is a content change, with the size before and after.
    std::ofstream(file) << "abcd";
    doc = One(TestEvent(EventType::Write, file));
    EXPECT_STREQ(doc["eventAction"].GetString(), "modifyContent");
    EXPECT_EQ(RuleIds(doc), std::vector<std::string>{"content"});
    EXPECT_EQ(doc["operation"]["old"]["size"].GetUint(), 3u);
    EXPECT_EQ(doc["operation"]["new"]["size"].GetUint(), 4u);
    EXPECT_FALSE(doc.HasMember("securitySettings"));

    // Writing the same bytes again changes the times alone.
    std::ofstream(file) << "abcd";
    doc = One(TestEvent(EventType::Write, file));
    EXPECT_STREQ(doc["eventAction"].GetString(), "modifyMetadata");
}

TEST_F(FimChangeDocumentsTest, AWriteIsAContentChangeWhenNothingIsKnownBefore)
{
    Load(WatchedRule("both", R"("create","modifyContent","modifyMetadata")"));
    const std::string file = Watched("/new.txt");
    // Created empty and written within one settle time: the write's before
    // is the file as the create left it, not the settled content.
    std::ofstream(file) << "";
    TestEvent create(EventType::Create, file);
    m_processor->HandleEvent(create);
    std::ofstream(file) << "content\n";
    TestEvent write(EventType::Write, file);
    m_processor->HandleEvent(write);
    const auto documents = Documents(2);
    EXPECT_STREQ(documents["events"][0]["eventAction"].GetString(), "create");
    EXPECT_STREQ(documents["events"][0]["operation"]["old"]["size"].GetString(), "Unknown");
    EXPECT_STREQ(documents["events"][1]["eventAction"].GetString(), "modifyContent");
    EXPECT_EQ(documents["events"][1]["operation"]["new"]["size"].GetUint(), 8u);
}

TEST_F(FimChangeDocumentsTest, AttributeChangesShowTheSettingsBeforeAndAfter)
{
    Load(WatchedRule("attr", R"("modifySecuritySettings","modifyMetadata","delete")"));
    const std::string file = m_dir.Write("watched/f", "abc");
    ::chmod(file.c_str(), 0644);
    ASSERT_EQ(::chown(file.c_str(), 0, 0), 0);
    ASSERT_NO_FATAL_FAILURE(Baseline({Watched()}));
    Documents(1);

    ::chmod(file.c_str(), 0600);
    auto doc = One(TestEvent(EventType::Attribute, file));
    EXPECT_STREQ(doc["eventAction"].GetString(), "modifySecuritySettings");
    EXPECT_STREQ(doc["securitySettings"]["old"]["permission"].GetString(), "0644");
    EXPECT_STREQ(doc["securitySettings"]["new"]["permission"].GetString(), "0600");

    ASSERT_EQ(::chown(file.c_str(), 1, 1), 0);
    doc = One(TestEvent(EventType::Attribute, file));
    EXPECT_STREQ(doc["securitySettings"]["old"]["owner"].GetString(), "root");
    EXPECT_EQ(doc["securitySettings"]["new"]["owner"].GetString(), AccountNames::UserName(1));
    EXPECT_EQ(doc["securitySettings"]["new"]["group"].GetString(), AccountNames::GroupName(1));
    EXPECT_STREQ(doc["securitySettings"]["old"]["permission"].GetString(), "0600");

    // utimensat: only the times moved.
    SetTimes(file, 1000000000);
    doc = One(TestEvent(EventType::Attribute, file));
    EXPECT_STREQ(doc["eventAction"].GetString(), "modifyMetadata");

    std::remove(file.c_str());
    doc = One(TestEvent(EventType::Delete, file));
    EXPECT_STREQ(doc["eventAction"].GetString(), "delete");
    EXPECT_EQ(doc["operation"]["old"]["size"].GetUint(), 3u);
    EXPECT_FALSE(StoredState(file));
}

TEST_F(FimChangeDocumentsTest, RenameReadsTheDestinationAndMovesTheKnownState)
{
    const std::string inside = Watched("/in");
    std::filesystem::create_directories(inside);
    Load(R"({"ruleId":"in","ruleType":"directory","imagePath":")" + inside +
             R"(","trackContentChange":true,"notify":["rename"]})",
         true);
    const std::string source = m_dir.Write("watched/in/a.txt", "data\n");
    ASSERT_NO_FATAL_FAILURE(Baseline({inside}));
    Documents(1);

    // Within the tree: reported under the source, content from the destination.
    ASSERT_EQ(std::rename(source.c_str(), (inside + "/b.txt").c_str()), 0);
    TestEvent within(EventType::Rename, source);
    within.newFile = inside + "/b.txt";
    auto doc = One(within);
    EXPECT_EQ(std::string(doc["imagePath"].GetString()), source);
    EXPECT_STREQ(doc["contentStatus"].GetString(), "READ_SUCCESSFUL");
    EXPECT_STREQ(doc["fileContent"].GetString(), "data\n");
    EXPECT_EQ(doc["fileContentHash"].GetString(), vantor::util::Sha256Hex("data\n"));
    EXPECT_EQ(std::string(doc["operation"]["old"]["path"].GetString()), source);
    EXPECT_EQ(std::string(doc["operation"]["new"]["path"].GetString()), inside + "/b.txt");
    EXPECT_FALSE(StoredState(source));
    EXPECT_TRUE(StoredState(inside + "/b.txt"));

    // Gone by the time it settled.
    TestEvent lost(EventType::Rename, inside + "/b.txt");
    lost.newFile = inside + "/never.txt";
    doc = One(lost);
    EXPECT_STREQ(doc["contentStatus"].GetString(), "READ_FAILURE");
    // Only the content that could not be read is counted as such.
    EXPECT_EQ(m_processor->GetUnreadableCount(), 1u);
    EXPECT_EQ(m_processor->GetFailedCount(), 0u);
}

TEST_F(FimChangeDocumentsTest, ARuleWithoutTheActionGetsNoDocument)
{
    Load(WatchedRule("content", R"("modifyContent")") + "," +
         WatchedRule("sec", R"("modifySecuritySettings")"));
    const std::string file = m_dir.Write("watched/f", "abc");
    // Without a metadata rule nothing is hashed: every write counts as a
    // content change, as before.
    ASSERT_NO_FATAL_FAILURE(Baseline({Watched()}));
    Documents(1);
    SetTimes(file, 1000000000);
    auto doc = One(TestEvent(EventType::Write, file));
    EXPECT_STREQ(doc["eventAction"].GetString(), "modifyContent");
    EXPECT_EQ(RuleIds(doc), std::vector<std::string>{"content"});
    // A change of times alone is not a security-setting change.
    SetTimes(file, 1100000000);
    TestEvent attribute(EventType::Attribute, file);
    m_processor->HandleEvent(attribute);
    Documents(0);
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

namespace
{

// FIM documents of events built from captured kernel audit records (the
// fixtures of the audit tests), moved into the test's directory: the road
// from raw records to documents, for gone objects, hostile names
// and renames.

const std::string kCaptureData = "/tmp/corvid-audit-capture/data";

std::string Fixture(const std::string& name)
{
    std::ifstream in(std::string(CORVID_SOURCE_DIR) + "/tests/fixtures/audit/" + name + ".log",
                     std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_FALSE(text.str().empty()) << name;
    return text.str();
}

void ReplaceAll(std::string& text, const std::string& from, const std::string& to)
{
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    {
        text.replace(at, from.size(), to);
    }
}

class FimCapturedRecordsTest : public vantor::fim::test::ProcessorFixture
{
protected:
    // The file events of a fixture whose data directory is now Watched();
    // objects named in identities are the real files of the test (their
    // captured inode and device replaced by the real ones).
    std::vector<std::unique_ptr<vantor::edr::Event>>
    Events(const std::string& name, const std::map<std::string, std::string>& identities = {})
    {
        std::string text = Fixture(name);
        for (const auto& [capturedInode, path] : identities)
        {
            struct stat info
            {
            };
            EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
            char device[32];
            std::snprintf(device, sizeof device, "%02x:%02x", major(info.st_dev), minor(info.st_dev));
            ReplaceAll(text, "inode=" + capturedInode + " dev=fe:00",
                       "inode=" + std::to_string(info.st_ino) + " dev=" + device);
        }
        ReplaceAll(text, kCaptureData, Watched());
        vantor::audit::AuditEventBuilder builder(
            std::make_shared<const vantor::edr::LibMagicWrapper>("/usr/share/misc/magic.mgc"));
        vantor::audit::AuparseFeed feed(builder);
        auto events = feed.Feed(reinterpret_cast<const uint8_t*>(text.data()), text.size());
        for (auto& event : feed.Flush())
        {
            events.push_back(std::move(event));
        }
        std::vector<std::unique_ptr<vantor::edr::Event>> files;
        for (auto& event : events)
        {
            if (event->GetCategory() == static_cast<uint32_t>(vantor::edr::EventCategory::File))
            {
                files.push_back(std::move(event));
            }
        }
        return files;
    }

    rapidjson::Document Handle(const std::vector<std::unique_ptr<vantor::edr::Event>>& events,
                               size_t expected)
    {
        for (const auto& event : events)
        {
            m_processor->HandleEvent(*event);
        }
        return Documents(expected);
    }
};

TEST_F(FimCapturedRecordsTest, GoneObjectsKeepTheTypeTheKernelRecorded)
{
    Load(WatchedRule("w", R"("create","delete")"));
    struct Case
    {
        std::string fixture, path, action, type;
    };
    for (const auto& c : {Case{"rmdir", "/dir_to_remove", "delete", "Directory"},
                          Case{"mkdir", "/new_dir", "create", "Directory"},
                          Case{"unlink", "/to_unlink.txt", "delete", "File"}})
    {
        SCOPED_TRACE(c.fixture);
        const auto events = Events(c.fixture);
        ASSERT_EQ(events.size(), 1u);
        const auto documents = Handle(events, 1);
        ASSERT_EQ(documents["events"].Size(), 1u);
        const auto& doc = documents["events"][0];
        EXPECT_EQ(std::string(doc["imagePath"].GetString()), Watched(c.path));
        EXPECT_EQ(doc["eventAction"].GetString(), c.action);
        EXPECT_EQ(doc["eventType"].GetString(), c.type);
    }
}

TEST_F(FimCapturedRecordsTest, ARenameIsReadAtItsDestinationAndReportedWhereItIsWatched)
{
    const std::string source = Watched("/rename_src.txt");
    const std::string destination = m_dir.Write("watched/rename_dst.txt", "renamed\n");
    const auto identities = std::map<std::string, std::string>{{"10953700", destination}};
    for (const auto& [rule, reportedAt] : std::vector<std::pair<std::string, std::string>>{
             {R"("ruleType":"directory","imagePath":")" + Watched() + "\"", source},
             {R"("ruleType":"file","imagePath":")" + destination + "\"", destination}, // into the tree
             {R"("ruleType":"file","imagePath":")" + source + "\"", source}})          // out of the tree
    {
        SCOPED_TRACE(rule);
        Load(R"({"ruleId":"r",)" + rule + R"(,"trackContentChange":true,"notify":["rename"]})", true);
        const auto documents = Handle(Events("rename", identities), 1);
        const auto& doc = documents["events"][0];
        EXPECT_STREQ(doc["eventAction"].GetString(), "rename");
        EXPECT_EQ(std::string(doc["imagePath"].GetString()), reportedAt);
        EXPECT_STREQ(doc["contentStatus"].GetString(), "READ_SUCCESSFUL");
        EXPECT_STREQ(doc["fileContent"].GetString(), "renamed\n");
        EXPECT_STRNE(doc["fileContentHash"].GetString(), "Unknown");
        EXPECT_EQ(std::string(doc["operation"]["old"]["path"].GetString()), source);
        EXPECT_EQ(std::string(doc["operation"]["new"]["path"].GetString()), destination);
    }
}

TEST_F(FimCapturedRecordsTest, HostileNamesComeBackByteForByte)
{
    Load(WatchedRule("w", R"("create")"));
    const auto documents = Handle(Events("hostile"), 4);
    std::vector<std::string> names;
    for (const auto& doc : documents["events"].GetArray())
    {
        const auto path = PathEscape::Unescape(doc["imagePath"].GetString());
        ASSERT_TRUE(path) << doc["imagePath"].GetString();
        names.push_back(path->substr(Watched().size()));
    }
    EXPECT_EQ(names, (std::vector<std::string>{"/quote\"name.txt", "/name with spaces.txt",
                                               "/bad\xff\xfe.txt", "/new\nline.txt"}));
    EXPECT_EQ(std::string(documents["events"][2]["imagePath"].GetString()), Watched("/bad\\xFF\\xFE.txt"));
}

} // namespace
