#include "edr/Trie.h"

#include "common/Logging.h"
#include "tests/support/ExpectThrowText.h"
#include "tests/support/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>

using testing::UnorderedElementsAre;
using vantor::edr::Trie;
using vantor::test::ExpectThrowText;

TEST(TrieTest, LookupIsTheUnionOverAllPrefixes)
{
    Trie trie;
    trie.Insert("/", "root");
    trie.Insert("/var/log", "logs");
    trie.Insert("/var/log/messages", "file");
    trie.Insert("/var/lib", "lib");

    EXPECT_THAT(trie.GetValues("/var/log/messages"), UnorderedElementsAre("root", "logs", "file"));
    EXPECT_THAT(trie.GetValues("/var/log/syslog"), UnorderedElementsAre("root", "logs"));
    // A tag on a file does not cover its siblings or a name it is a prefix of.
    EXPECT_THAT(trie.GetValues("/var/log/messages.1"), UnorderedElementsAre("root", "logs"));
    EXPECT_THAT(trie.GetValues("/var/logs"), UnorderedElementsAre("root"));
    EXPECT_THAT(trie.GetValues("/etc/passwd"), UnorderedElementsAre("root"));
    EXPECT_THAT(trie.GetValues("/"), UnorderedElementsAre("root"));
}

TEST(TrieTest, HasValuesAnswersWhetherALookupFindsAnyTag)
{
    Trie trie;
    trie.Insert("/var/log", "logs");
    trie.Insert("/etc/shadow", "file");
    for (const char* path : {"/var/log", "/var//log/", "/var/log/a/b/c", "/etc/shadow", "/etc/shadow/x",
                             "/var", "/var/logs", "/etc", "/etc/shadow.bak", "/", "/usr/bin/ls"})
    {
        EXPECT_EQ(trie.HasValues(path), !trie.GetValues(path).empty()) << path;
    }
    EXPECT_TRUE(trie.HasValues("/var/log/syslog"));
    EXPECT_FALSE(trie.HasValues("/var/lib"));
    trie.Insert("/", "root");
    EXPECT_TRUE(trie.HasValues("/usr/bin/ls"));
    ExpectThrowText<std::runtime_error>([&] { trie.HasValues("var/log"); },
                                        "Trie::HasValues: path is empty or invalid");
}

TEST(TrieTest, EmptyComponentsVanish)
{
    Trie trie;
    trie.Insert("//var///log/", "logs");
    EXPECT_THAT(trie.GetValues("/var/log"), UnorderedElementsAre("logs"));
    EXPECT_THAT(trie.GetValues("/var//log"), UnorderedElementsAre("logs"));
    EXPECT_THAT(trie.GetValues("/var/log//x"), UnorderedElementsAre("logs"));
    EXPECT_TRUE(trie.GetValues("/var").empty());
    EXPECT_EQ(trie.GetNodeCount(), 2U);
}

TEST(TrieTest, SeveralTagsOnOnePath)
{
    Trie trie;
    trie.Insert("/etc", "fim");
    trie.Insert("/etc", "ioc");
    trie.Insert("/etc", "fim");
    EXPECT_THAT(trie.GetValues("/etc/hosts"), UnorderedElementsAre("fim", "ioc"));

    EXPECT_TRUE(trie.Delete("/etc", "fim"));
    EXPECT_THAT(trie.GetValues("/etc/hosts"), UnorderedElementsAre("ioc"));
    EXPECT_EQ(trie.GetNodeCount(), 1U);
}

TEST(TrieTest, InvalidArgumentsAreRejected)
{
    Trie trie;
    const std::pair<std::function<void()>, const char*> cases[] = {
        {[&] { trie.GetValues("var/log"); }, "Trie::GetValues: path is empty or invalid"},
        {[&] { trie.GetValues(""); }, "Trie::GetValues: path is empty or invalid"},
        {[&] { trie.Insert("", "t"); }, "Trie::Insert: path is empty or invalid"},
        {[&] { trie.Insert("etc", "t"); }, "Trie::Insert: path is empty or invalid"},
        {[&] { trie.Insert("/etc", ""); }, "Trie::Insert: value is empty"},
        {[&] { trie.Delete("", "t"); }, "Trie::Delete: path is empty or invalid"},
        {[&] { trie.Delete("/etc", ""); }, "Trie::Delete: value is empty"},
    };
    for (const auto& [call, text] : cases)
    {
        ExpectThrowText<std::runtime_error>(call, text);
    }
    EXPECT_EQ(trie.GetNodeCount(), 0U);
}

TEST(TrieTest, DeletePrunesEmptiedNodesAndLogsAFailedDeleteChangesNothing)
{
    vantor::test::LogCapture log(vantor::common::Logging::Edr());
    Trie trie;
    trie.Insert("/var", "var");
    trie.Insert("/var/log/audit/audit.log", "audit");
    ASSERT_EQ(trie.GetNodeCount(), 4U);

    EXPECT_TRUE(trie.Delete("/var/log/audit/audit.log", "audit"));
    EXPECT_TRUE(log.Contains("Trie::Delete: Deleted tag 'audit' from /var/log/audit/audit.log"));
    EXPECT_TRUE(log.Contains("Trie::Delete: Deleted node at /var/log/audit/audit.log"));
    EXPECT_TRUE(log.Contains("Trie::Delete: Deleted node at /var/log/audit"));
    EXPECT_TRUE(log.Contains("Trie::Delete: Deleted node at /var/log"));
    EXPECT_EQ(log.Count("Trie::Delete: Deleted node at "), 3U);
    EXPECT_EQ(trie.GetNodeCount(), 1U);
    EXPECT_THAT(trie.GetValues("/var/log/audit/audit.log"), UnorderedElementsAre("var"));

    EXPECT_TRUE(trie.Delete("/var", "var"));
    EXPECT_EQ(trie.GetNodeCount(), 0U);
    EXPECT_TRUE(trie.GetValues("/var").empty());

    // Deleting what is not there only logs, and prunes nothing.
    trie.Insert("/var/log", "logs");

    EXPECT_FALSE(trie.Delete("/var/tmp", "logs"));
    EXPECT_TRUE(log.Contains("Trie::Delete: Failed to find the value 'logs' in path: /var/tmp"));

    EXPECT_FALSE(trie.Delete("/var/log", "other"));
    EXPECT_TRUE(log.Contains("Trie::Delete: Failed to find value 'other' with tag: other"));

    // An intermediate node without the tag is not pruned by a failed delete.
    EXPECT_FALSE(trie.Delete("/var", "logs"));
    EXPECT_EQ(trie.GetNodeCount(), 2U);
    EXPECT_THAT(trie.GetValues("/var/log"), UnorderedElementsAre("logs"));
}

TEST(TrieTest, DeepPathsDoNotExhaustTheStack)
{
    std::string path;
    for (int i = 0; i < 200000; ++i)
    {
        path += "/d";
    }
    Trie trie;
    trie.Insert(path, "deep");
    EXPECT_THAT(trie.GetValues(path + "/file"), UnorderedElementsAre("deep"));
    EXPECT_EQ(trie.GetNodeCount(), 200000U);
}
