#include "common/SqlStorage.h"

#include "common/Serializer.h"
#include "common/SqlRowIterator.h"
#include "common/StorageException.h"
#include "fim/BaselineEventSqlDataFormatter.h"

#include "common/Logging.h"
#include "tests/support/ExpectThrowText.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

using vantor::common::Serializer;
using vantor::common::SqlDataFormatter;
using vantor::common::SqlRowIterator;
using vantor::common::SqlStorage;
using vantor::common::StorageException;
using vantor::common::StorageResult;
using vantor::fim::BaselineEventSqlDataFormatter;
using vantor::test::TempDir;

using vantor::test::ExpectThrowText;

namespace
{

constexpr const char* kBaseline = "BaselineEvents";
using Rows = std::vector<std::pair<std::string, std::string>>;

// A keyed table of integers whose schema version the test chooses; counts the
// schema work it is asked for.
class ItemsFormatter : public SqlDataFormatter
{
public:
    struct Calls
    {
        int creates = 0;
        std::vector<int64_t> upgradesFrom;
    };

    ItemsFormatter(int targetVersion, Calls& calls,
                   std::string upgradeStatement = "ALTER TABLE Items ADD COLUMN Extra TEXT")
        : m_targetVersion(targetVersion)
        , m_calls(calls)
        , m_upgradeStatement(std::move(upgradeStatement))
    {
    }

    static std::string Record(const std::string& key, int64_t value)
    {
        std::string record;
        Serializer::AppendString(record, key);
        Serializer::AppendInt64(record, value);
        return record;
    }

    std::string GetDeleteAllStatement() const override { return "DELETE FROM Items"; }
    std::string Clear(const std::string& table) const override { return "DELETE FROM " + table; }
    std::vector<std::string> GetCreateStatements() const override
    {
        ++m_calls.creates;
        return {"CREATE TABLE Items([Key] TEXT PRIMARY KEY, [Value] INTEGER)", "PRAGMA user_version = 1;"};
    }
    // The storage takes the bound queries below (and keeps their
    // statements); the plain text forms are unused.
    std::string GetDeleteStatement(const std::string&, const std::string&) const override { return {}; }
    std::string GetInsertStatement(const std::string&, std::string_view) const override { return {}; }
    std::string GetSelectStatement(const std::string&, const std::string&) const override { return {}; }
    vantor::common::SqlQuery GetDeleteQuery(const std::string& table, const std::string& key) const override
    {
        vantor::common::SqlQuery query("DELETE FROM " + table + " WHERE Key = ?");
        query.Bind(key);
        return query;
    }
    vantor::common::SqlQuery GetInsertQuery(const std::string& table, std::string_view record) const override
    {
        Serializer reader(record);
        // Plain INSERT: a duplicate key fails inside the transaction.
        vantor::common::SqlQuery query("INSERT INTO " + table + " ([Key], [Value]) VALUES (?, ?)");
        query.Bind(reader.GetString());
        query.Bind(reader.GetInt64());
        return query;
    }
    vantor::common::SqlQuery GetSelectQuery(const std::string& table, const std::string& key) const override
    {
        vantor::common::SqlQuery query("SELECT [Key], [Value] FROM " + table + " WHERE Key = ?");
        query.Bind(key);
        return query;
    }
    std::string GetSchemaVersionQuery() const override { return "PRAGMA user_version"; }
    std::vector<std::string> GetUpgradeStatements(int64_t currentVersion) const override
    {
        m_calls.upgradesFrom.push_back(currentVersion);
        if (currentVersion >= m_targetVersion)
        {
            return {};
        }
        return {m_upgradeStatement, "PRAGMA user_version = " + std::to_string(m_targetVersion) + ";"};
    }

private:
    int m_targetVersion;
    Calls& m_calls;
    std::string m_upgradeStatement;
};

std::unique_ptr<SqlStorage> OpenBaseline(const TempDir& dir, bool async = false, size_t cacheBytes = 0)
{
    return std::make_unique<SqlStorage>(dir.Path(), "BaselineEvents.db",
                                        std::make_unique<BaselineEventSqlDataFormatter>(), async, cacheBytes);
}

SqlStorage::Record BaselineRecord(const std::string& path, const std::string& status)
{
    BaselineEventSqlDataFormatter formatter;
    return {path, formatter.FormatRecord(path, status)};
}

// The (path, status) rows stored under a key, as a fresh storage sees them.
Rows ReadBaseline(SqlStorage& storage, const std::string& key)
{
    const StorageResult result = storage.Read(kBaseline, key);
    EXPECT_TRUE(result.success) << result.error;
    Rows rows;
    for (const auto& row : result.rows)
    {
        Serializer reader(row);
        const std::string path(reader.GetString());
        rows.emplace_back(path, std::string(reader.GetString()));
    }
    return rows;
}

// The keyed integer table in items.db, at the given schema version.
std::unique_ptr<SqlStorage> OpenItems(const TempDir& dir, ItemsFormatter::Calls& calls, int version = 1,
                                      size_t cacheBytes = 0)
{
    return std::make_unique<SqlStorage>(dir.Path(), "items.db",
                                        std::make_unique<ItemsFormatter>(version, calls), false, cacheBytes);
}

size_t CountBaselineRows(const TempDir& dir)
{
    // Counted through a storage of its own, i.e. from the file.
    auto storage = OpenBaseline(dir);
    size_t rows = 0;
    for (const char* key : {"/a", "/b", "/c", "/d"})
    {
        rows += storage->Read(kBaseline, key).rows.size();
    }
    return rows;
}

} // namespace

TEST(SqlStorageTest, ConstructorAndAsyncArgumentsAreChecked)
{
    TempDir dir;
    ExpectThrowText<StorageException>(
        [] { SqlStorage("", "x.db", std::make_unique<BaselineEventSqlDataFormatter>(), false); },
        "SqlStorage: 'dbFilePath' is empty");
    ExpectThrowText<StorageException>(
        [&] { SqlStorage(dir.Path(), "", std::make_unique<BaselineEventSqlDataFormatter>(), false); },
        "SqlStorage: 'dbFileName' is empty");
    ExpectThrowText<StorageException>([&] { SqlStorage(dir.Path(), "x.db", nullptr, false); },
                                      "SqlStorage: 'formatter' is null");
    ExpectThrowText<StorageException>(
        [&] {
            SqlStorage(dir.File("missing"), "x.db", std::make_unique<BaselineEventSqlDataFormatter>(), false);
        },
        "SqlStorage: Error creating DB: ");
    EXPECT_TRUE(std::filesystem::is_empty(dir.Path()));

    // The asynchronous operations need a worker, and each its callback.
    auto sync = OpenBaseline(dir);
    const std::string notAsync = "SqlStorage is not configured for Async operations";
    ExpectThrowText<StorageException>([&] { sync->WriteAsync(kBaseline, {}, [](const StorageResult&) {}); },
                                      notAsync);
    ExpectThrowText<StorageException>([&] { sync->DeleteAsync(kBaseline, "/a", [] {}); }, notAsync);
    ExpectThrowText<StorageException>([&] { sync->ReadAsync(kBaseline, "/a", [](const StorageResult&) {}); },
                                      notAsync);
    sync.reset();

    auto async = OpenBaseline(dir, true);
    ExpectThrowText<StorageException>([&] { async->WriteAsync(kBaseline, {}, nullptr); },
                                      "onWriteCallback is invalid");
    ExpectThrowText<StorageException>([&] { async->DeleteAsync(kBaseline, "/a", nullptr); },
                                      "SqlStorage: onDeleteCallback is invalid");
}

TEST(SqlStorageTest, UnusableFilesGiveClearErrors)
{
    TempDir dir;
    std::ofstream(dir.File("junk.db")) << "this is not a database, just some text that is long enough......";
    ExpectThrowText<StorageException>(
        [&] { SqlStorage(dir.Path(), "junk.db", std::make_unique<BaselineEventSqlDataFormatter>(), false); },
        "SqlStorage: Error opening DB: file is not a database");

    // An existing (empty) file is opened as it is: no table appears.
    std::ofstream(dir.File("empty.db")).close();
    EXPECT_FALSE(SqlStorage(dir.Path(), "empty.db", std::make_unique<BaselineEventSqlDataFormatter>(), false)
                     .Read(kBaseline, "/etc/hosts")
                     .success);

    // A schema that cannot be created leaves no half-made file behind.
    ItemsFormatter::Calls calls;
    class BrokenSchema : public ItemsFormatter
    {
    public:
        using ItemsFormatter::ItemsFormatter;
        std::vector<std::string> GetCreateStatements() const override { return {"CREATE TABLE Items(", "x"}; }
    };
    ExpectThrowText<StorageException>(
        [&] { SqlStorage(dir.Path(), "broken.db", std::make_unique<BrokenSchema>(1, calls), false); },
        "SqlStorage: Error setting up DB: Failed to compile query");
    EXPECT_FALSE(std::filesystem::exists(dir.File("broken.db")));
}

TEST(SqlStorageTest, ExecuteRunsExactlyOneStatementAndDeleteAllEmptiesTheTable)
{
    TempDir dir;
    auto storage = OpenBaseline(dir);
    ASSERT_TRUE(storage
                    ->Write(kBaseline,
                            {BaselineRecord("/a", "READ_SUCCESSFUL"), BaselineRecord("/b", "READ_FAILURE")})
                    .success);
    vantor::test::LogCapture log(vantor::common::Logging::Edr());

    const std::string twoDeletes =
        "DELETE FROM BaselineEvents WHERE FilePath = '/a'; DELETE FROM BaselineEvents";
    const std::pair<std::string, std::string> refused[] = {
        {twoDeletes, "'query' has multiple statements"},
        {std::string("DELETE FROM BaselineEvents\0; DROP TABLE x", 42), "'query' has multiple statements"},
        {"SELECT * FROM BaselineEvents", "SqlStorage::Execute: Unsupported query type"},
        {"PRAGMA user_version", "SqlStorage::Execute: Unsupported query type"},
        {"DELEET FROM BaselineEvents", "Failed to compile query"},
        {"   ", "Failed to compile query"},
        {"INSERT INTO BaselineEvents VALUES ('/a', 'dup')", "Failed to execute query"}};
    for (const auto& refusal : refused)
    {
        SCOPED_TRACE(refusal.first);
        ExpectThrowText<StorageException>([&] { storage->Execute(refusal.first); }, refusal.second);
    }
    EXPECT_TRUE(log.Contains("SqlStorage: Multiple sql statements in query '" + twoDeletes + "'"));
    EXPECT_TRUE(log.Contains("SqlStorage: Failed to compile 'DELEET FROM BaselineEvents': "));
    EXPECT_TRUE(
        log.Contains("SqlStorage: Failed to execute 'INSERT INTO BaselineEvents VALUES ('/a', 'dup')': "));
    EXPECT_EQ(CountBaselineRows(dir), 2U);

    // One statement with a trailing semicolon and white space is fine, and the
    // storage is still usable after the failures.
    storage->Execute("DELETE FROM BaselineEvents WHERE FilePath = '/a';  \n");
    EXPECT_EQ(CountBaselineRows(dir), 1U);

    // DeleteAll takes every row; Clear is not this formatter's to offer.
    ASSERT_TRUE(storage->Write(kBaseline, {BaselineRecord("/c", "R")}).success);
    const auto clear = storage->Clear(kBaseline);
    EXPECT_FALSE(clear.success);
    EXPECT_EQ(clear.error, "Clear(tablename) is not implemented for BaselineEventSqlDataFormatter.");
    EXPECT_TRUE(storage->DeleteAll().success);
    EXPECT_EQ(CountBaselineRows(dir), 0U);
}

TEST(SqlStorageTest, FailedTransactionLeavesTheDatabaseUnchanged)
{
    TempDir dir;
    ItemsFormatter::Calls calls;
    auto storage = OpenItems(dir, calls);
    ASSERT_TRUE(storage->Write("Items", {{"k", ItemsFormatter::Record("k", 1)}}).success);

    // The third insert fails in SQL (duplicate key): the first two go as well.
    const auto failed = storage->Write("Items", {{"x", ItemsFormatter::Record("x", 2)},
                                                 {"y", ItemsFormatter::Record("y", 3)},
                                                 {"k", ItemsFormatter::Record("k", 4)}});
    EXPECT_FALSE(failed.success);
    EXPECT_EQ(failed.error, "Failed to execute query");
    EXPECT_TRUE(storage->Read("Items", "x").rows.empty());
    EXPECT_TRUE(storage->Read("Items", "y").rows.empty());

    // A record the formatter cannot read fails before anything runs.
    const auto truncated = storage->Write("Items", {{"z", ItemsFormatter::Record("z", 5)}, {"w", "\x01"}});
    EXPECT_FALSE(truncated.success);
    EXPECT_EQ(truncated.error, "Serializer: Insufficient bytes to get data");
    EXPECT_TRUE(storage->Read("Items", "z").rows.empty());

    // The transaction machinery is not left half-open.
    EXPECT_TRUE(storage->Write("Items", {{"x", ItemsFormatter::Record("x", 6)}}).success);
    SqlRowIterator rows({SqlRowIterator::ColumnType::Text, SqlRowIterator::ColumnType::Integer});
    rows.Add(storage->Read("Items", "k").rows.at(0));
    EXPECT_EQ(std::get<int64_t>(rows.Next()[1]), 1);
}

// A run of operations commits together; a failure inside it takes back
// what came before (also from the cache) and refuses what comes after.
TEST(SqlStorageTest, OperationsInOneTransactionCommitOrRollBackTogether)
{
    TempDir dir;
    ItemsFormatter::Calls calls;
    auto storage = OpenItems(dir, calls, 1, 4096);
    const auto item = [](const std::string& key, int64_t value) {
        return SqlStorage::Records{{key, ItemsFormatter::Record(key, value)}};
    };
    ASSERT_TRUE(storage->Write("Items", item("k", 1)).success);

    StorageResult afterFailure;
    const auto failed = storage->RunInTransaction(
        [&]
        {
            EXPECT_TRUE(storage->Write("Items", item("a", 2)).success);
            EXPECT_EQ(storage->Read("Items", "a").rows.size(), 1u);
            EXPECT_TRUE(storage->Delete("Items", "k").success);
            EXPECT_FALSE(storage->Write("Items", item("a", 3)).success); // duplicate key
            afterFailure = storage->Read("Items", "k");
        });
    EXPECT_FALSE(failed.success);
    EXPECT_FALSE(afterFailure.success);
    EXPECT_NE(afterFailure.error.find("rolled back"), std::string::npos) << afterFailure.error;
    EXPECT_TRUE(storage->Read("Items", "a").rows.empty());
    EXPECT_EQ(storage->Read("Items", "k").rows.size(), 1u);

    const auto committed = storage->RunInTransaction(
        [&]
        {
            EXPECT_TRUE(storage->Write("Items", item("b", 4)).success);
            EXPECT_TRUE(storage->Delete("Items", "k").success);
        });
    EXPECT_TRUE(committed.success) << committed.error;
    auto other = OpenItems(dir, calls);
    EXPECT_EQ(other->Read("Items", "b").rows.size(), 1u);
    EXPECT_TRUE(other->Read("Items", "k").rows.empty());
}

// A new file gets the schema; an existing one is never created again, and
// upgraded only once.
TEST(SqlStorageTest, SchemaIsCreatedOnceAndUpgradedOnce)
{
    TempDir dir;
    ItemsFormatter::Calls calls;
    ASSERT_TRUE(OpenItems(dir, calls)->Write("Items", {{"a", ItemsFormatter::Record("a", 1)}}).success);
    // A failing upgrade keeps the old database as it was.
    ExpectThrowText<StorageException>(
        [&]
        {
            SqlStorage(dir.Path(), "items.db",
                       std::make_unique<ItemsFormatter>(2, calls, "ALTER TABLE Nope ADD x"), false);
        },
        "SqlStorage: Error upgrading DB: ");

    // Adding the column twice would fail, so a second open proves that the
    // upgrade did not run again.
    for (int open = 0; open < 2; ++open)
    {
        auto storage = OpenItems(dir, calls, 2);
        storage->Execute("UPDATE Items SET Extra = 'x' WHERE Key = 'a'");
        EXPECT_EQ(storage->Read("Items", "a").rows.size(), 1U);
    }
    EXPECT_EQ(calls.upgradesFrom, (std::vector<int64_t>{1, 1, 1, 2}));
    EXPECT_EQ(calls.creates, 1);
}

TEST(SqlStorageTest, HostileKeysNeverRunASecondStatementOrTouchOtherRows)
{
    TempDir dir;
    auto storage = OpenBaseline(dir);
    const std::string drop = "x'); DROP TABLE BaselineEvents; --";
    const std::string orTrue = "a' OR '1'='1";
    const std::string notUtf8 = "/tmp/\xff\xfe'\x80";
    ASSERT_TRUE(
        storage
            ->Write(kBaseline,
                    {BaselineRecord("/a", "READ_SUCCESSFUL"), BaselineRecord(drop, "READ_FAILURE"),
                     BaselineRecord(orTrue, "MAX_SIZE_LIMIT_REACHED"), BaselineRecord(notUtf8, "it's")})
            .success);

    EXPECT_EQ(ReadBaseline(*storage, drop), (Rows{{drop, "READ_FAILURE"}}));
    EXPECT_EQ(ReadBaseline(*storage, orTrue), (Rows{{orTrue, "MAX_SIZE_LIMIT_REACHED"}}));
    EXPECT_EQ(ReadBaseline(*storage, notUtf8), (Rows{{notUtf8, "it's"}}));

    ASSERT_TRUE(storage->Delete(kBaseline, orTrue).success);
    EXPECT_TRUE(ReadBaseline(*storage, orTrue).empty());
    EXPECT_EQ(ReadBaseline(*storage, "/a").size(), 1U);
    EXPECT_EQ(ReadBaseline(*storage, drop).size(), 1U);

    // A NUL byte cannot be written into a statement: the whole write is
    // refused and nothing of it is stored.
    const auto refused = storage->Write(kBaseline, {BaselineRecord("/b", "READ_SUCCESSFUL"),
                                                    BaselineRecord(std::string("/c\0'; DROP", 10), "x")});
    EXPECT_FALSE(refused.success);
    EXPECT_TRUE(ReadBaseline(*storage, "/b").empty());

    // The table and its other rows survived everything.
    storage.reset();
    storage = OpenBaseline(dir);
    EXPECT_EQ(ReadBaseline(*storage, "/a"), (Rows{{"/a", "READ_SUCCESSFUL"}}));
}

TEST(SqlStorageTest, ReadCacheCountsAndStaysTrue)
{
    TempDir dir;
    vantor::test::LogCapture log(vantor::common::Logging::Edr());
    // Room for two small records only.
    auto storage = OpenBaseline(dir, false, 60);
    ASSERT_TRUE(storage->Write(kBaseline, {BaselineRecord("/a", "READ_SUCCESSFUL")}).success);
    EXPECT_TRUE(log.Contains(
        "SqlStorage Cache: Adding 33 bytes to table BaselineEvents. #Rows = 1. Total cached data "
        "size = 0 KB"));

    // Served from the cache, and equal to what the database holds.
    EXPECT_EQ(storage->Read(kBaseline, "/a").rows, OpenBaseline(dir)->Read(kBaseline, "/a").rows);
    ASSERT_TRUE(storage->Write(kBaseline, {BaselineRecord("/a", "READ_FAILURE")}).success);
    EXPECT_TRUE(log.Contains("SqlStorage Cache: Updating 30 bytes in table BaselineEvents. #Rows = 1."));
    EXPECT_EQ(ReadBaseline(*storage, "/a"), ReadBaseline(*OpenBaseline(dir), "/a"));

    EXPECT_TRUE(storage->Read(kBaseline, "/none").rows.empty());
    auto stats = storage->GetCacheStatistics();
    EXPECT_EQ(stats.hits, 2U);
    EXPECT_EQ(stats.misses, 1U);
    EXPECT_EQ(stats.notFounds, 1U);
    EXPECT_EQ(stats.writes, 2U);
    EXPECT_TRUE(log.Contains("SqlStorage Cache: hits: 2, misses: 1, writes: 2, not founds: 1"));

    // A third record pushes the least recently used one out.
    ASSERT_TRUE(storage->Write(kBaseline, {BaselineRecord("/b", "R"), BaselineRecord("/c", "R")}).success);
    stats = storage->GetCacheStatistics();
    EXPECT_EQ(stats.rows, 2U);
    EXPECT_EQ(stats.bytes, 38U);
    EXPECT_TRUE(log.Contains("SqlStorage Cache: Deleting 30 bytes from table BaselineEvents."));
    EXPECT_EQ(ReadBaseline(*storage, "/a").size(), 1U);

    // Deletes and free statements keep the cache true.
    ASSERT_TRUE(storage->Delete(kBaseline, "/a").success);
    EXPECT_TRUE(ReadBaseline(*storage, "/a").empty());
    storage->Execute("DELETE FROM BaselineEvents WHERE FilePath = '/c'");
    EXPECT_TRUE(ReadBaseline(*storage, "/c").empty());
    EXPECT_EQ(storage->GetCacheStatistics().rows, 0U);
}

TEST(SqlStorageTest, KeptStatementsStayUsableAndReleaseTheDatabase)
{
    TempDir dir;
    vantor::test::LogCapture log(vantor::common::Logging::Edr());
    auto storage = OpenBaseline(dir);
    ASSERT_TRUE(storage->Write(kBaseline, {BaselineRecord("/a", "R")}).success);
    EXPECT_EQ(ReadBaseline(*storage, "/a").size(), 1U);
    EXPECT_TRUE(
        log.Contains("SqlStorage: Executing query 'SELECT * from BaselineEvents WHERE FilePath = '/a''"));

    // A read that ends early (a column it cannot serialise) leaves no open
    // statement behind: the table can still be dropped.
    storage->Execute("INSERT INTO BaselineEvents VALUES ('/blob', x'00')");
    EXPECT_EQ(storage->Read(kBaseline, "/blob").error, "Unsupported data type in table");
    storage->Execute("DROP TABLE BaselineEvents");

    // A kept statement whose table is gone fails as a new one would, and
    // works again, with the new shape, once the table is back.
    EXPECT_EQ(storage->Read(kBaseline, "/a").error, "Failed to compile query");
    EXPECT_TRUE(log.Contains("SqlStorage: Failed to compile 'SELECT * from BaselineEvents WHERE FilePath = "
                             "'/a'': no such table: BaselineEvents"));
    storage->Execute("CREATE TABLE BaselineEvents([FilePath] TEXT PRIMARY KEY, [ContentStatus] TEXT)");
    ASSERT_TRUE(storage->Write(kBaseline, {BaselineRecord("/b", "R")}).success);
    storage->Execute("ALTER TABLE BaselineEvents ADD COLUMN [Extra] INTEGER DEFAULT 7");
    SqlRowIterator row({SqlRowIterator::ColumnType::Text, SqlRowIterator::ColumnType::Text,
                        SqlRowIterator::ColumnType::Integer});
    row.Add(storage->Read(kBaseline, "/b").rows.at(0));
    EXPECT_EQ(std::get<int64_t>(row.Next()[2]), 7);

    // More statements than are kept: the older ones go and come back.
    ItemsFormatter::Calls calls;
    auto items = OpenItems(dir, calls);
    for (int round = 0; round < 2; ++round)
    {
        for (int table = 0; table < 40; ++table)
        {
            const std::string name = "T" + std::to_string(table);
            if (round == 0)
            {
                items->Execute("CREATE TABLE " + name + "([Key] TEXT PRIMARY KEY, [Value] INTEGER)");
            }
            const std::string key = "k" + std::to_string(round);
            ASSERT_TRUE(items->Write(name, {{key, ItemsFormatter::Record(key, table)}}).success);
            EXPECT_EQ(items->Read(name, key).rows.size(), 1U);
        }
    }

    // Every statement is finalised before the file closes, which then takes
    // its write-ahead log with it.
    storage.reset();
    EXPECT_FALSE(std::filesystem::exists(dir.File("BaselineEvents.db-wal")));
}

TEST(SqlStorageTest, AsyncOperationsRunInOrderOnTheWorkerAndFinishBeforeDestruction)
{
    TempDir dir;
    std::mutex mutex;
    std::vector<std::string> order;
    std::atomic<int> onOtherThread{0};
    const auto caller = std::this_thread::get_id();
    {
        // Declared before the storage: the storage's destructor still runs
        // queued callbacks that use it.
        const auto note = [&](const std::string& what)
        {
            std::lock_guard lock(mutex);
            order.push_back(what);
            if (std::this_thread::get_id() != caller)
            {
                ++onOtherThread;
            }
        };
        auto storage = OpenBaseline(dir, true);
        storage->WriteAsync(kBaseline, {BaselineRecord("/a", "R"), BaselineRecord("/b", "R")},
                            [&](const StorageResult& r) { note(r.success ? "write" : "write failed"); });
        storage->ReadAsync(kBaseline, "/a",
                           [&](const StorageResult& r) { note("read " + std::to_string(r.rows.size())); });
        storage->DeleteAsync(kBaseline, "/a", [&] { note("delete"); });
        storage->ReadAsync(kBaseline, "/a",
                           [&](const StorageResult& r) { note("read " + std::to_string(r.rows.size())); });
        storage->WriteAsync(kBaseline, {BaselineRecord("/c", "R")},
                            [](const StorageResult&) { throw std::runtime_error("callback failed"); });
        // Many writes still queued when the storage goes away are not lost.
        for (int i = 0; i < 50; ++i)
        {
            storage->WriteAsync(kBaseline, {BaselineRecord("/d", std::to_string(i))},
                                [](const StorageResult&) {});
        }
    }
    EXPECT_EQ(order, (std::vector<std::string>{"write", "read 1", "delete", "read 0"}));
    EXPECT_EQ(onOtherThread.load(), 4);
    auto storage = OpenBaseline(dir);
    EXPECT_EQ(ReadBaseline(*storage, "/d"), (Rows{{"/d", "49"}}));
    EXPECT_EQ(ReadBaseline(*storage, "/c").size(), 1U);
}

TEST(SqlStorageTest, ConcurrentSynchronousAndAsynchronousUse)
{
    TempDir dir;
    auto storage = OpenBaseline(dir, true, 4096);
    std::atomic<int> written{0};
    const auto count = [&](const StorageResult& r) { written += r.success ? 1 : 0; };
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t)
    {
        threads.emplace_back(
            [&, t]
            {
                for (int i = 0; i < 40; ++i)
                {
                    const std::string path = "/t" + std::to_string(t) + "/" + std::to_string(i);
                    if (i % 2 == 0)
                    {
                        count(storage->Write(kBaseline, {BaselineRecord(path, "R")}));
                    }
                    else
                    {
                        storage->WriteAsync(kBaseline, {BaselineRecord(path, "R")}, count);
                    }
                    storage->Read(kBaseline, path);
                }
            });
    }
    for (auto& thread : threads)
    {
        thread.join();
    }
    storage.reset();
    EXPECT_EQ(written.load(), 120);
}
