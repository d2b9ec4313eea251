#include "ioc/SnapshotSqlDataFormatter.h"
#include "tests/src/ioc/SnapshotDatabase.h"
#include "tests/support/ExpectThrowText.h"
#include "tests/support/TempDir.h"

#include "common/SqlDataFormatterException.h"
#include "common/SqlRowIterator.h"
#include "common/SqlStorage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iterator>
#include <sstream>

using namespace vantor;
using ioc::internal::SnapshotSqlDataFormatter;
using ioc::test::SnapshotDatabase;
using testing::ElementsAre;

namespace
{

std::vector<std::string> Words(const std::string& text)
{
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), {}};
}

const std::vector<std::string> kTtlColumns =
    Words("ProcessID Arguments Auid Children CreationTime Cwd Euid ImageDeviceID ImageFileAttributes "
          "ImageFileInode ImageFilePath ImageOwnerGid ImageOwnerGroup ImageOwnerName ImageOwnerUid "
          "ImageFileFSAttributes Parent Score SecondaryImageDeviceID SecondaryImageFileAttributes "
          "SecondaryImageFileInode SecondaryImageFilePath SecondaryImageOwnerGid SecondaryImageOwnerGroup "
          "SecondaryImageOwnerName SecondaryImageOwnerUid SecondaryImageFileFSAttributes Tags Uid");

class SnapshotSqlDataFormatterTest : public testing::Test
{
protected:
    std::unique_ptr<common::SqlStorage> Open()
    {
        return std::make_unique<common::SqlStorage>(m_dir.Path(), "SnapshotEdr.db",
                                                    std::make_unique<SnapshotSqlDataFormatter>(), false);
    }
    SnapshotDatabase Raw() { return SnapshotDatabase(m_dir.File("SnapshotEdr.db")); }
    // The version, tables and the columns every version-5 file has alike.
    static void ExpectVersion5(SnapshotDatabase& db)
    {
        EXPECT_EQ(db.Version(), "5");
        EXPECT_THAT(db.Tables(), ElementsAre("ClientInformation", "Directory", "File", "TtlProcesses"));
        EXPECT_THAT(db.ColumnsOf("Directory"), ElementsAre("RowID", "Path", "CreationTime", "LastWriteTime",
                                                           "LastAccessTime", "LastChangeTime"));
        EXPECT_EQ(db.ColumnsOf("TtlProcesses"), kTtlColumns);
    }

    test::TempDir m_dir;
};

TEST_F(SnapshotSqlDataFormatterTest, ANewDatabaseHasEveryTableInColumnOrderAtVersion5)
{
    Open();
    auto db = Raw();
    ExpectVersion5(db);
    EXPECT_THAT(db.ColumnsOf("ClientInformation"), ElementsAre("Name", "Value"));
    EXPECT_THAT(db.ColumnsOf("File"),
                ElementsAre("RowID", "ParentId", "Size", "CreationTime", "LastWriteTime", "LastAccessTime",
                            "LastChangeTime", "MD5Hash", "SHA1", "SHA256"));
}

TEST_F(SnapshotSqlDataFormatterTest, AVersion1DatabaseIsUpgradedInOnePassWithTheHashesMovedIntoFile)
{
    {
        auto db = Raw();
        db.Run("CREATE TABLE [ClientInformation]([Name] TEXT UNIQUE, [Value] TEXT);"
               "INSERT INTO ClientInformation VALUES ('SequenceNumber', '41');"
               "CREATE TABLE Actor(x); CREATE TABLE Network(x); CREATE TABLE LoadedModule(x);"
               "CREATE TABLE SecuritySettings(x); CREATE TABLE Process(x);"
               "CREATE TABLE [File]([RowID] TEXT PRIMARY KEY, [EventAction] INTEGER, [TimeStamp] BIGINT, "
               "[DeviceId] TEXT, [Name] TEXT, [Inode] INTEGER, [Type] INTEGER, [Extension] TEXT, "
               "[SecuritySettings] TEXT, [FileAttribute] INTEGER, [ScanQualifier] INTEGER, "
               "[FoundEntryDuringScan] INTEGER, [PayloadHash] TEXT, [ParentId] TEXT, [Size] INTEGER, "
               "[CreationTime] BIGINT, [LastWriteTime] BIGINT, [LastAccessTime] BIGINT, [LastChangeTime] "
               "BIGINT);"
               "INSERT INTO File (RowID, Name, Size) VALUES ('f1', 'a', 10), ('f2', 'b', 20);"
               "CREATE TABLE Hash([RowID] TEXT PRIMARY KEY, [MD5Hash] TEXT, [SHA1] TEXT, [SHA256] TEXT);"
               "INSERT INTO Hash VALUES ('f1', 'm1', 's1', 'h1');"
               "CREATE TABLE [Directory]([RowID] TEXT PRIMARY KEY, [Path] TEXT, [EventAction] INTEGER, "
               "[TimeStamp] BIGINT, [Inode] INTEGER, [DeviceId] TEXT, [SecuritySettings] TEXT, "
               "[FileAttribute] INTEGER, [ScanQualifier] INTEGER, [FoundEntryDuringScan] INTEGER, "
               "[PayloadHash] TEXT, [CreationTime] BIGINT, [LastWriteTime] BIGINT, [LastAccessTime] BIGINT, "
               "[LastChangeTime] BIGINT);"
               "INSERT INTO Directory (RowID, Path) VALUES ('d1', '/etc');"
               "PRAGMA user_version = 1;");
    }
    Open();
    auto db = Raw();
    ExpectVersion5(db);
    EXPECT_THAT(db.ColumnsOf("File"),
                ElementsAre("RowID", "ParentId", "Size", "CreationTime", "LastWriteTime", "LastAccessTime",
                            "LastChangeTime", "Md5Hash", "SHA1", "SHA256"));
    EXPECT_THAT(
        db.Column("SELECT RowID || ':' || Size || ':' || IFNULL(MD5Hash, '-') || ':' || IFNULL(SHA1, '-') "
                  "|| ':' || IFNULL(SHA256, '-') FROM File ORDER BY RowID"),
        ElementsAre("f1:10:m1:s1:h1", "f2:20:-:-:-"));
    EXPECT_THAT(db.Column("SELECT Path FROM Directory"), ElementsAre("/etc"));
    EXPECT_THAT(db.Column("SELECT Value FROM ClientInformation WHERE Name = 'SequenceNumber'"),
                ElementsAre("41"));
}

TEST_F(SnapshotSqlDataFormatterTest, AnUnversionedDatabaseKeepsItsSequenceNumberAndGetsTheWholeSchema)
{
    {
        auto db = Raw();
        db.Run("CREATE TABLE [ClientInformation]([Name] TEXT UNIQUE, [Value] TEXT);"
               "INSERT INTO ClientInformation VALUES ('SequenceNumber', '7'), ('BootTime', '99');");
    }
    Open();
    {
        auto db = Raw();
        ExpectVersion5(db);
        EXPECT_THAT(db.Column("SELECT Name || '=' || Value FROM ClientInformation"),
                    ElementsAre("SequenceNumber=7"));
        EXPECT_EQ(db.ColumnsOf("File").size(), 10u);
    }
    // Opening again runs nothing: the version stamp holds.
    {
        auto db = Raw();
        db.Run("INSERT INTO ClientInformation VALUES ('BootTime', '5')");
    }
    Open();
    EXPECT_THAT(Raw().Column("SELECT Value FROM ClientInformation ORDER BY Name"), ElementsAre("5", "7"));
}

TEST_F(SnapshotSqlDataFormatterTest, StatementsNameTheKeyColumnOfEachTableAndQuoteValues)
{
    const SnapshotSqlDataFormatter formatter;
    EXPECT_EQ(formatter.GetSelectStatement("TtlProcesses", "12"),
              "SELECT * from TtlProcesses WHERE ProcessID = '12';");
    EXPECT_EQ(formatter.GetSelectStatement("TtlProcesses", ""), "SELECT * from TtlProcesses");
    EXPECT_EQ(formatter.GetDeleteStatement("File", "a'b"), "DELETE from File WHERE RowID = 'a''b';");
    EXPECT_EQ(formatter.Clear("TtlProcesses"), "DELETE from TtlProcesses;");
    EXPECT_THROW(formatter.Clear("Hash"), common::SqlDataFormatterException) << "no longer in use";
    EXPECT_THROW(formatter.GetSelectStatement("Actor", "1"), common::SqlDataFormatterException);

    SnapshotSqlDataFormatter writer;
    writer.Start();
    writer.AppendString("Name");
    EXPECT_THROW(writer.FormatRecord("A", "b"), common::SqlDataFormatterException) << "a record is untaken";
    writer.TakeBuffer();
    EXPECT_EQ(formatter.GetInsertStatement("ClientInformation", writer.FormatRecord("A", "it's")),
              "INSERT or REPLACE INTO ClientInformation VALUES ('A', 'it''s')");
}

TEST_F(SnapshotSqlDataFormatterTest, AProcessRowTravelsInColumnOrderAndAShortRecordIsRefused)
{
    const auto types = SnapshotSqlDataFormatter::GetColumnTypes("TtlProcesses");
    ASSERT_EQ(types.size(), kTtlColumns.size());
    SnapshotSqlDataFormatter formatter;
    formatter.Start();
    for (size_t i = 0; i < types.size(); ++i)
    {
        if (types[i] == common::SqlRowIterator::ColumnType::Integer)
        {
            formatter.AppendInt64(static_cast<int64_t>(i) + 40);
        }
        else
        {
            formatter.AppendString(kTtlColumns[i]);
        }
    }
    const std::string record = formatter.TakeBuffer();
    auto storage = Open();
    ASSERT_TRUE(storage->Write("TtlProcesses", {{"40", record}}).success);
    const auto read = storage->Read("TtlProcesses", "40");
    ASSERT_TRUE(read.success);
    ASSERT_EQ(read.rows.size(), 1u);
    EXPECT_EQ(read.rows.front(), record);
    EXPECT_THAT(Raw().Column("SELECT Tags || '/' || Uid || '/' || Parent FROM TtlProcesses"),
                ElementsAre("Tags/68/56"));

    test::ExpectThrowText<std::out_of_range>(
        [&] { formatter.GetInsertStatement("TtlProcesses", record.substr(0, record.size() - 4)); },
        "Serializer: Insufficient bytes to get data");
    const auto refused = storage->Write("TtlProcesses", {{"41", record.substr(0, 20)}});
    EXPECT_FALSE(refused.success);
    EXPECT_EQ(refused.error, "Serializer: Insufficient bytes to get string");
}

} // namespace
