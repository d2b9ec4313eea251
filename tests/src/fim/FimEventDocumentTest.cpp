#include "fim/AccountNames.h"
#include "fim/ContentReader.h"
#include "fim/DocumentEvent.h"
#include "fim/DocumentWriter.h"
#include "fim/EventDocument.h"
#include "tests/src/fim/TestEvent.h"
#include "tests/support/TempDir.h"

#include "common/util/Json.h"
#include "common/util/Sha256.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <stdexcept>

using namespace vantor::fim::internal;
using vantor::edr::EventType;
using vantor::fim::test::TestEvent;

namespace
{

rapidjson::Document Parse(const std::string& text)
{
    rapidjson::Document document;
    EXPECT_TRUE(vantor::util::ParseJson(document, text)) << text;
    return document;
}

EventRule Rule(const std::string& notify, bool trackContent = false)
{
    rapidjson::Document json;
    json.Parse((R"({"ruleId":"r","ruleType":"file","imagePath":"/x","notify":[)" + notify +
                R"(],"trackContentChange":)" + (trackContent ? "true" : "false") + "}")
                   .c_str());
    return EventRule(json);
}

EventDocument::Input MakeInput(const std::string& path, bool isDirectory, std::vector<const EventRule*> rules,
                               bool collectHashes, const std::string& action)
{
    EventDocument::Input input;
    input.path = path;
    input.isDirectory = isDirectory;
    input.rules = std::move(rules);
    input.collectHashes = collectHashes;
    input.action = action;
    return input;
}

std::string Valid(std::string_view text)
{
    std::string scratch;
    return DocumentWriter::ValidUtf8(text, scratch);
}

TEST(FimDocumentWriterTest, InvalidBytesBecomeReplacementCharacters)
{
    const std::string fffd = "\xEF\xBF\xBD";
    EXPECT_EQ(Valid("plain/path"), "plain/path");
    EXPECT_EQ(Valid(std::string_view("a\0b", 3)), std::string("a\0b", 3));
    EXPECT_EQ(Valid("\xc3\xa9\xf0\x9f\x98\x80"), "\xc3\xa9\xf0\x9f\x98\x80");
    EXPECT_EQ(Valid("end\xc3"), "end" + fffd);
    EXPECT_EQ(Valid("\xf0\x9f\x98x"), fffd + fffd + fffd + "x"); // cut four-byte sequence
    EXPECT_EQ(Valid("\xc0\xaf"), fffd + fffd);                   // overlong '/'
    EXPECT_EQ(Valid("\xed\xa0\x80"), fffd + fffd + fffd);        // surrogate
}

TEST(FimDocumentWriterTest, ValuesTheEventCannotTellAreUnknown)
{
    DocumentWriter w;
    w.StartObject();
    w.NumberOrUnknown("signed", [] { return -1; });
    w.NumberOrUnknown("unsigned", [] { return 4294967295u; });
    w.NumberOrUnknown("lost", []() -> int { throw std::runtime_error("no"); });
    w.StringOrUnknown("name", [] { return std::string("bad\xff"); });
    w.StringOrUnknown("gone", []() -> std::string { throw std::runtime_error("no"); });
    w.EndObject();
    const auto doc = Parse(w.Take());
    EXPECT_EQ(doc["signed"].GetInt64(), -1);
    EXPECT_EQ(doc["unsigned"].GetUint64(), 4294967295u);
    EXPECT_STREQ(doc["lost"].GetString(), "Unknown");
    EXPECT_STREQ(doc["name"].GetString(), "bad\xEF\xBF\xBD");
    EXPECT_STREQ(doc["gone"].GetString(), "Unknown");

    // The writer goes on with a document of its own; only paths that need it
    // are escaped.
    w.StartObject();
    w.PathMember("escaped", "a\\b");
    w.PathMember("plain", "/d/\xc3\xa9");
    w.EndObject();
    EXPECT_EQ(w.Take(), std::string(R"({"escaped":"a\\\\b","plain":"/d/)") + "\xc3\xa9\"}");
}

TEST(FimAccountNamesTest, NamesOrTheNumber)
{
    EXPECT_EQ(AccountNames::UserName(0), "root");
    EXPECT_EQ(AccountNames::GroupName(0), "root");
    EXPECT_EQ(AccountNames::UserName(3999999999u), "3999999999");
    EXPECT_EQ(AccountNames::GroupName(3999999999u), "3999999999");
    EXPECT_EQ(AccountNames::UserName(0), "root"); // kept per id
}

TEST(FimEventDocumentTest, ActionWordFollowsTheRulesForAttributes)
{
    const auto metadata = Rule(R"("modifyMetadata")");
    const auto security = Rule(R"("modifySecuritySettings")");
    EXPECT_EQ(EventDocument::ActionWord(EventType::Attribute, {&metadata}), "modifyMetadata");
    EXPECT_EQ(EventDocument::ActionWord(EventType::Attribute, {&metadata, &security}),
              "modifySecuritySettings");
    EXPECT_EQ(EventDocument::ActionWord(EventType::Write, {&metadata}), "modifyContent");
    EXPECT_EQ(EventDocument::ActionWord(EventType::Exit, {&metadata}), "Unknown");
}

TEST(FimEventDocumentTest, UnreadableFieldsAndFilesAreUnknownButAMissingIdDropsTheDocument)
{
    TestEvent event(EventType::Delete, "/nowhere/gone");
    event.unreadable = {"user"};
    const auto rule = Rule(R"("delete")", true);
    const auto input = MakeInput(event.file, false, {&rule}, true, "delete");
    const auto doc = Parse(EventDocument::Build(event, input));
    EXPECT_STREQ(doc["fileContentHash"].GetString(), "Unknown");
    EXPECT_STREQ(doc["fileContent"].GetString(), "");
    EXPECT_STREQ(doc["contentStatus"].GetString(), "READ_FAILURE");
    EXPECT_STREQ(doc["operation"]["old"]["size"].GetString(), "Unknown");
    EXPECT_STREQ(doc["operation"]["new"]["size"].GetString(), "Unknown");
    EXPECT_FALSE(doc.HasMember("securitySettings"));
    EXPECT_STREQ(doc["actor"]["userName"].GetString(), "Unknown");
    EXPECT_EQ(doc["actor"]["processID"].GetInt(), 4242);

    // A file gone before its event was made has no size, whatever the
    // getter would answer.
    TestEvent gone(EventType::Write, "/nowhere/gone");
    gone.hasStat = false;
    const auto write = Rule(R"("modifyContent")");
    const auto written =
        Parse(EventDocument::Build(gone, MakeInput(gone.file, false, {&write}, false, "write")));
    EXPECT_STREQ(written["operation"]["new"]["size"].GetString(), "Unknown");

    // Without its mandatory id the document is dropped.
    TestEvent noId(EventType::Create, "/x");
    noId.unreadable = {"id"};
    const auto create = Rule(R"("create")");
    EXPECT_THROW(EventDocument::Build(noId, MakeInput("/x", false, {&create}, false, "create")),
                 std::runtime_error);
}

// A waiting document keeps only what its document reads of the event.
TEST(FimEventDocumentTest, TheKeptPartOfAnEventWritesTheSameDocument)
{
    TestEvent imageOnly(EventType::Create, "/x");
    TestEvent withCommandLine = imageOnly, noImage = imageOnly, noTime = imageOnly;
    withCommandLine.commandLine = "vim /x";
    withCommandLine.unreadable = {"login"};
    noImage.unreadable = {"image", "size"};
    noTime.unreadable = {"time"};
    const auto rule = Rule(R"("create")");
    const auto input = MakeInput("/x", false, {&rule}, false, "create");
    for (const TestEvent* event : {&imageOnly, &withCommandLine, &noImage})
    {
        EXPECT_EQ(EventDocument::Build(DocumentEvent(*event), input), EventDocument::Build(*event, input));
    }

    const DocumentEvent kept(noTime);
    EXPECT_EQ(kept.GetEventId(), 77u);
    EXPECT_THAT([&] { EventDocument::Build(kept, input); },
                testing::ThrowsMessage<std::exception>(testing::StrEq("no time")))
        << "a document without time";
}

TEST(FimEventDocumentTest, GivenContentIsUsedAndDirectoriesAreNotRead)
{
    vantor::test::TempDir dir;
    const auto rule = Rule(R"("create")", true);
    TestEvent event(EventType::Create, dir.Write("f", "on disk"));
    ContentReader::Content given{ContentReader::ContentStatus::ReadSuccessful, 5, "given", "ab12"};
    auto input = MakeInput(event.file, false, {&rule}, true, "create");
    input.content = &given;
    auto doc = Parse(EventDocument::Build(event, input));
    EXPECT_STREQ(doc["fileContent"].GetString(), "given");
    EXPECT_STREQ(doc["fileContentHash"].GetString(), "ab12");
    EXPECT_EQ(doc["operation"]["new"]["size"].GetUint(), 5u);

    TestEvent folder(EventType::Create, dir.Path());
    folder.directory = true;
    input = MakeInput(folder.file, true, {&rule}, false, "create");
    input.content = &given;
    doc = Parse(EventDocument::Build(folder, input));
    EXPECT_STREQ(doc["eventType"].GetString(), "Directory");
    EXPECT_STREQ(doc["contentStatus"].GetString(), "READ_FAILURE");
    EXPECT_EQ(doc["operation"]["new"]["size"].GetUint(), 7u); // the event's own size
}

// Settings before and after are checked on real files with the processor.
TEST(FimEventDocumentTest, ARenameShowsItsTwoPathsWithoutSizes)
{
    const auto rule = Rule(R"("rename")");
    TestEvent event(EventType::Rename, "/w/f");
    auto input = MakeInput("/w/f", false, {&rule}, false, "rename");
    input.before = vantor::fim::FileState{10, 0100644, 0, 0, 1, ""};
    input.after = vantor::fim::FileState{12, 0100600, 0, 0, 2, ""};
    input.oldPath = "/w/old\\name";
    input.newPath = "/w/f";
    const auto doc = Parse(EventDocument::Build(event, input));
    EXPECT_STREQ(doc["operation"]["old"]["path"].GetString(), "/w/old\\\\name");
    EXPECT_STREQ(doc["operation"]["new"]["path"].GetString(), "/w/f");
    EXPECT_FALSE(doc["operation"]["old"].HasMember("size"));
    EXPECT_FALSE(doc.HasMember("securitySettings"));
}

using Status = ContentReader::ContentStatus;

constexpr const char* kSha256Empty = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
constexpr const char* kSha256Abc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

// The content limit is inclusive; the data and the hash are read only when
// asked for.
TEST(FimContentReaderTest, ReadsOnlyWhatIsAskedForUpToAnInclusiveLimit)
{
    vantor::test::TempDir dir;
    const std::string exact(51200, 'a');
    const std::string over(51201, 'a');
    struct Case
    {
        std::string content;
        bool data, hash;
        Status status;
        std::string expectedData, sha256;
    };
    for (const auto& c :
         {Case{exact, true, true, Status::ReadSuccessful, exact, vantor::util::Sha256Hex(exact)},
          Case{over, true, true, Status::MaxSizeLimitReached, "", vantor::util::Sha256Hex(over)},
          Case{"abc", false, true, Status::ReadSuccessful, "", kSha256Abc},
          Case{"abc", true, false, Status::ReadSuccessful, "abc", ""},
          Case{"", true, true, Status::ReadSuccessful, "", kSha256Empty}})
    {
        SCOPED_TRACE(c.content.substr(0, 8) + " size " + std::to_string(c.content.size()) + " data " +
                     std::to_string(c.data) + " hash " + std::to_string(c.hash));
        const auto content = ContentReader::Read(dir.Write("f", c.content), c.data, c.hash);
        EXPECT_EQ(content.status, c.status);
        EXPECT_EQ(content.size, c.content.size());
        EXPECT_EQ(content.data, c.expectedData);
        EXPECT_EQ(content.sha256, c.sha256);
    }

    // Without a hash the read stops past the limit; the status still tells.
    const auto content = ContentReader::Read(dir.Write("big", std::string(300000, 'b')), true, false);
    EXPECT_EQ(content.status, Status::MaxSizeLimitReached);
    EXPECT_GT(content.size, ContentReader::kMaxContentSize);
    EXPECT_TRUE(content.data.empty());
}

TEST(FimContentReaderTest, AnythingButARegularFileIsAReadFailure)
{
    vantor::test::TempDir dir;
    const std::string file = dir.Write("file", "x");
    std::filesystem::create_symlink(file, dir.File("link"));
    ASSERT_EQ(::mkfifo(dir.File("fifo").c_str(), 0600), 0);
    // Neither the FIFO (no writer) nor the link may be waited on or followed.
    for (const auto& path : {dir.File("missing"), dir.File("link"), dir.File("fifo"), dir.Path()})
    {
        const auto content = ContentReader::Read(path, true, true);
        EXPECT_EQ(content.status, Status::ReadFailure) << path;
        EXPECT_TRUE(content.sha256.empty()) << path;
    }
}

} // namespace
