// FIM documents of events built from captured kernel audit records (the
// fixtures of the audit tests), moved into the test's directory: the road
// from raw records to documents, for gone objects, hostile names
// and renames.

#include "audit/AuditEventBuilder.h"
#include "audit/AuparseFeed.h"
#include "edr/PathEscape.h"
#include "tests/src/fim/ProcessorFixture.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>

using vantor::edr::EventType;
using vantor::edr::PathEscape;

namespace
{

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
    auto removed = Events("rmdir");
    ASSERT_EQ(removed.size(), 1u);
    EXPECT_EQ(removed[0]->GetFileType(), static_cast<uint32_t>(S_IFDIR));
    auto created = Events("mkdir");
    ASSERT_EQ(created.size(), 1u);
    auto unlinked = Events("unlink");
    ASSERT_EQ(unlinked.size(), 1u);
    for (auto* events : {&created, &unlinked})
    {
        removed.push_back(std::move(events->front()));
    }

    const auto documents = Handle(removed, 3);
    const auto& events = documents["events"];
    EXPECT_EQ(std::string(events[0]["imagePath"].GetString()), Watched("/dir_to_remove"));
    EXPECT_STREQ(events[0]["eventAction"].GetString(), "delete");
    EXPECT_STREQ(events[0]["eventType"].GetString(), "Directory");
    EXPECT_EQ(std::string(events[1]["imagePath"].GetString()), Watched("/new_dir"));
    EXPECT_STREQ(events[1]["eventType"].GetString(), "Directory");
    EXPECT_EQ(std::string(events[2]["imagePath"].GetString()), Watched("/to_unlink.txt"));
    EXPECT_STREQ(events[2]["eventType"].GetString(), "File");
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
