// Change documents against the last known state of their object: what was
// there before, what a change of timestamps alone is, and where a rename's
// content comes from.

#include "edr/PathEscape.h"
#include "fim/AccountNames.h"
#include "tests/src/fim/ProcessorFixture.h"

#include "common/util/Sha256.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

using vantor::edr::EventType;
using vantor::fim::internal::AccountNames;
using vantor::fim::test::TestEvent;

namespace
{

std::vector<std::string> RuleIds(const rapidjson::Value& document)
{
    std::vector<std::string> ids;
    for (const auto& id : document["associatedRules"].GetArray())
    {
        ids.emplace_back(id.GetString());
    }
    return ids;
}

void SetTimes(const std::string& path, time_t seconds)
{
    const struct timespec times[2] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

class FimChangeDocumentsTest : public vantor::fim::test::ProcessorFixture
{
protected:
    // One document of the event, built now.
    rapidjson::Document One(TestEvent event)
    {
        m_processor->HandleEvent(event);
        auto documents = Documents(1);
        rapidjson::Document document;
        if (documents["events"].Size() == 1)
        {
            document.CopyFrom(documents["events"][0], document.GetAllocator());
        }
        return document;
    }

    void Nothing(TestEvent event)
    {
        m_processor->HandleEvent(event);
        Documents(0);
    }
};

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
    Nothing(TestEvent(EventType::Attribute, file));
}

} // namespace
