#include "fim/BaselineEventSqlDataFormatter.h"
#include "fim/FileStateStore.h"
#include "tests/support/TempDir.h"

#include "common/SqlDataFormatterException.h"
#include "common/SqlStorage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <memory>
#include <string>

using vantor::common::SqlDataFormatterException;
using vantor::fim::BaselineEventSqlDataFormatter;
using vantor::fim::FileState;
using vantor::fim::internal::FileStateStore;

namespace
{

std::unique_ptr<vantor::common::SqlStorage> Open(const vantor::test::TempDir& dir)
{
    return std::make_unique<vantor::common::SqlStorage>(
        dir.Path(), "BaselineEvents.db", std::make_unique<BaselineEventSqlDataFormatter>(), true);
}

TEST(FimFileStateStoreTest, StatesOfAnyPathAreKeptAcrossRestarts)
{
    vantor::test::TempDir dir;
    const std::string hostile = "/w/it's \xff\xfe name";
    {
        auto storage = Open(dir);
        FileStateStore store(storage.get());
        EXPECT_FALSE(store.Get(hostile));
        store.Put(hostile, FileState{42, 0100640, 1000, 100, -1700000000123456789, "ab12"}); // before 1970
        store.Put("/w/other", FileState{1, 040755, 0, 0, 0, ""});
        store.PutContentStatus(hostile, "READ_SUCCESSFUL");
        store.Remove("/w/other");
        store.Remove("/w/never-there");
    }
    auto storage = Open(dir);
    FileStateStore store(storage.get());
    const auto state = store.Get(hostile);
    ASSERT_TRUE(state);
    EXPECT_EQ(state->size, 42u);
    EXPECT_EQ(state->mode, 0100640u);
    EXPECT_EQ(state->uid, 1000u);
    EXPECT_EQ(state->gid, 100u);
    EXPECT_EQ(state->modificationTimeNs, -1700000000123456789);
    EXPECT_EQ(state->sha256, "ab12");
    EXPECT_FALSE(store.Get("/w/other"));
    EXPECT_EQ(storage->Read("BaselineEvents", hostile).rows.size(), 1u);
}

TEST(FimFileStateStoreTest, AStoreOfTheFirstVersionGainsTheStateTableAndKeepsItsRows)
{
    vantor::test::TempDir dir;
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open((dir.Path() + "/BaselineEvents.db").c_str(), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db,
                           "CREATE TABLE [BaselineEvents]([FilePath] TEXT PRIMARY KEY, [ContentStatus] TEXT);"
                           "INSERT INTO BaselineEvents VALUES ('/etc/hosts','READ_SUCCESSFUL');",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(db);

    auto storage = Open(dir);
    EXPECT_EQ(storage->Read("BaselineEvents", "/etc/hosts").rows.size(), 1u);
    FileStateStore store(storage.get());
    store.Put("/etc/hosts", FileState{7, 0100644, 0, 0, 5, ""});
    ASSERT_TRUE(store.Get("/etc/hosts"));
    EXPECT_EQ(store.Get("/etc/hosts")->size, 7u);
}

// A path found missing or removed is remembered as absent: a later state
// of it must still be stored and found, also past the bound of that memory.
TEST(FimFileStateStoreTest, APathOnceAbsentIsStoredAgain)
{
    vantor::test::TempDir dir;
    auto storage = Open(dir);
    FileStateStore store(storage.get());
    const FileState first{1, 0100644, 0, 0, 1, ""};
    const FileState second{2, 0100600, 0, 0, 2, "cd"};
    EXPECT_FALSE(store.Get("/w/a"));
    store.Remove("/w/a");
    store.Put("/w/a", first);
    ASSERT_TRUE(store.Get("/w/a"));
    EXPECT_EQ(store.Get("/w/a")->size, 1u);
    store.Remove("/w/a");
    EXPECT_FALSE(store.Get("/w/a"));
    for (size_t i = 0; i <= FileStateStore::kMaxAbsent; ++i)
    {
        store.Remove("/w/gone" + std::to_string(i));
    }
    store.Put("/w/a", second);
    store.Put("/w/gone0", first);
    EXPECT_EQ(store.Get("/w/a")->sha256, "cd");
    EXPECT_EQ(store.Get("/w/gone0")->size, 1u);
    EXPECT_EQ(storage->Read("FileState", "/w/a").rows.size(), 1u);
}

// A removal undone by a failed transaction must not be remembered.
TEST(FimFileStateStoreTest, AFailedTransactionForgetsWhatItsCallsRemembered)
{
    vantor::test::TempDir dir;
    auto storage = Open(dir);
    FileStateStore store(storage.get());
    store.Put("/w/kept", FileState{5, 0100644, 0, 0, 5, ""});
    store.RunInTransaction(
        [&]
        {
            store.Remove("/w/kept");
            EXPECT_THROW(storage->Execute("INSERT INTO Nowhere VALUES (1)"), std::exception);
            EXPECT_FALSE(store.Get("/w/kept"));
        });
    ASSERT_TRUE(store.Get("/w/kept"));
    EXPECT_EQ(store.Get("/w/kept")->size, 5u);
    store.RunInTransaction([&] { store.Remove("/w/kept"); });
    EXPECT_FALSE(store.Get("/w/kept"));
    EXPECT_TRUE(Open(dir)->Read("FileState", "/w/kept").rows.empty());
}

TEST(FimFileStateStoreTest, WithoutAStoreNothingIsKnown)
{
    FileStateStore store(nullptr);
    store.Put("/x", FileState{});
    EXPECT_FALSE(store.Get("/x"));
}

TEST(BaselineEventSqlDataFormatterTest, MisuseIsRefusedAndQuotesStayInsideTheLiteral)
{
    BaselineEventSqlDataFormatter formatter;
    EXPECT_EQ(formatter.GetSelectStatement("BaselineEvents", "a' OR '1'='1"),
              "SELECT * from BaselineEvents WHERE FilePath = 'a'' OR ''1''=''1'");
    EXPECT_EQ(
        formatter.GetInsertStatement("BaselineEvents", formatter.FormatRecord("x'); DROP TABLE t; --", "'")),
        "INSERT or REPLACE INTO BaselineEvents VALUES ('x''); DROP TABLE t; --','''')");
    EXPECT_THROW(formatter.GetSelectStatement("BaselineEvents", std::string("a\0b", 3)),
                 SqlDataFormatterException);
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

} // namespace
