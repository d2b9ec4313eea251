#include "fim/BaselineEventSqlDataFormatter.h"
#include "fim/FileState.h"

#include "common/Serializer.h"
#include "common/SqlDataFormatterException.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using vantor::common::SqlDataFormatterException;
using vantor::fim::BaselineEventSqlDataFormatter;

TEST(BaselineEventSqlDataFormatterTest, StatementTexts)
{
    BaselineEventSqlDataFormatter formatter;
    EXPECT_EQ(formatter.GetCreateStatements(),
              (std::vector<std::string>{
                  "CREATE TABLE [BaselineEvents]([FilePath] TEXT PRIMARY KEY, [ContentStatus] TEXT)"}));
    EXPECT_EQ(formatter.GetDeleteAllStatement(), "Delete from BaselineEvents");
    EXPECT_EQ(formatter.GetInsertStatement("BaselineEvents",
                                           formatter.FormatRecord("/etc/hosts", "READ_SUCCESSFUL")),
              "INSERT or REPLACE INTO BaselineEvents VALUES ('/etc/hosts','READ_SUCCESSFUL')");
    EXPECT_EQ(formatter.GetSelectStatement("BaselineEvents", "/etc/hosts"),
              "SELECT * from BaselineEvents WHERE FilePath = '/etc/hosts'");
    EXPECT_EQ(formatter.GetDeleteStatement("BaselineEvents", "/etc/hosts"),
              "DELETE from BaselineEvents WHERE FilePath = '/etc/hosts'");
    // The state table comes with the first schema upgrade, for old stores
    // and new ones alike.
    EXPECT_EQ(formatter.GetSchemaVersionQuery(), "PRAGMA user_version");
    EXPECT_EQ(formatter.GetUpgradeStatements(0),
              (std::vector<std::string>{"CREATE TABLE IF NOT EXISTS [FileState]([FilePath] TEXT PRIMARY KEY, "
                                        "[Size] INTEGER, [Mode] INTEGER, [Owner] INTEGER, [Group] INTEGER, "
                                        "[ModificationTime] INTEGER, [ContentHash] TEXT)",
                                        "PRAGMA user_version = 1"}));
    EXPECT_TRUE(formatter.GetUpgradeStatements(1).empty());
    vantor::fim::FileState state{12, 0100644, 1000, 100, -5, "ab"};
    EXPECT_EQ(formatter.GetInsertStatement("FileState", formatter.FormatState("/etc/o'hosts", state)),
              "INSERT or REPLACE INTO FileState VALUES ('/etc/o''hosts',12,33188,1000,100,-5,'ab')");
    const auto parsed = BaselineEventSqlDataFormatter::ParseState(formatter.FormatState("/x", state));
    EXPECT_EQ(parsed.size, 12u);
    EXPECT_EQ(parsed.mode, 0100644u);
    EXPECT_EQ(parsed.uid, 1000u);
    EXPECT_EQ(parsed.gid, 100u);
    EXPECT_EQ(parsed.modificationTimeNs, -5);
    EXPECT_EQ(parsed.sha256, "ab");
}

TEST(BaselineEventSqlDataFormatterTest, QuotesStayInsideTheLiteral)
{
    BaselineEventSqlDataFormatter formatter;
    EXPECT_EQ(formatter.GetSelectStatement("BaselineEvents", "a' OR '1'='1"),
              "SELECT * from BaselineEvents WHERE FilePath = 'a'' OR ''1''=''1'");
    EXPECT_EQ(
        formatter.GetInsertStatement("BaselineEvents", formatter.FormatRecord("x'); DROP TABLE t; --", "'")),
        "INSERT or REPLACE INTO BaselineEvents VALUES ('x''); DROP TABLE t; --','''')");
    EXPECT_THROW(formatter.GetSelectStatement("BaselineEvents", std::string("a\0b", 3)),
                 SqlDataFormatterException);
}

TEST(BaselineEventSqlDataFormatterTest, MisuseIsRefused)
{
    BaselineEventSqlDataFormatter formatter;
    EXPECT_THAT([&] { formatter.Clear("BaselineEvents"); },
                testing::ThrowsMessage<SqlDataFormatterException>(testing::StrEq(
                    "Clear(tablename) is not implemented for BaselineEventSqlDataFormatter.")));

    formatter.Start();
    formatter.AppendString("/half/built");
    EXPECT_THAT([&] { formatter.Start(); },
                testing::ThrowsMessage<SqlDataFormatterException>(
                    testing::StrEq("SqlDataFormatter::Start: A transaction is already in progress")));
    EXPECT_FALSE(formatter.TakeBuffer().empty());
    EXPECT_TRUE(formatter.TakeBuffer().empty());
    formatter.Start();

    EXPECT_THROW(formatter.GetSelectStatement("Other; DROP TABLE BaselineEvents", "k"),
                 SqlDataFormatterException);
    // A truncated record cannot be turned into a statement.
    const std::string record = formatter.FormatRecord("/etc/hosts", "READ_FAILURE");
    EXPECT_THROW(formatter.GetInsertStatement("BaselineEvents", record.substr(0, record.size() - 2)),
                 std::out_of_range);
}
