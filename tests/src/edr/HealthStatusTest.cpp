#include "edr/AHSRecordWriter.h"
#include "edr/AHSSqlDataFormatter.h"
#include "edr/AHSUploadSchedule.h"
#include "edr/daemon/HealthMonitor.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"
#include "tests/support/UploadTarget.h"

#include "common/HttpUploader.h"
#include "common/Logging.h"
#include "common/Serializer.h"
#include "common/SqlDataFormatterException.h"
#include "common/SqlStorage.h"
#include "common/util/Json.h"

#include <gtest/gtest.h>

#include <sqlite3.h>

using namespace vantor::edr;
using vantor::common::SqlStorage;
using namespace std::chrono_literals;

namespace
{

constexpr const char* kTable = AHSSqlDataFormatter::kTableName;

AHSRecord Record(const std::string& context, int64_t code, const std::string& fields = {})
{
    return AHSRecord{"2024-05-01T10:00:00Z", context, code, 1, fields};
}

// A store left by an older version: no user_version, other columns.
TEST(AHSSqlDataFormatterTest, OlderSchemaIsDroppedAndMadeAgain)
{
    vantor::test::TempDir dir;
    const std::string file = dir.File(AHSRecordWriter::kDbFileName);
    {
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
        ASSERT_EQ(sqlite3_exec(db,
                               "CREATE TABLE AgentStatus (Old TEXT); INSERT INTO AgentStatus VALUES ('x');",
                               nullptr, nullptr, nullptr),
                  SQLITE_OK);
        sqlite3_close(db);
    }
    SqlStorage store(dir.Path(), AHSRecordWriter::kDbFileName, std::make_unique<AHSSqlDataFormatter>(),
                     false);
    const auto count = store.Read(kTable, "count");
    ASSERT_TRUE(count.success);
    EXPECT_EQ(vantor::common::Serializer(count.rows.at(0)).GetInt64(), 0);
    EXPECT_TRUE(
        store
            .Write(kTable,
                   {{{}, AHSSqlDataFormatter::FormatRecord(Record("edr.config", 1000, R"({"a":"it's"})"))}})
            .success);
    const auto oldest = store.Read(kTable, "");
    ASSERT_EQ(oldest.rows.size(), 1u);
    const AHSRecord back = AHSSqlDataFormatter::ParseRecord(oldest.rows[0]);
    EXPECT_EQ(back.contextId, "edr.config");
    EXPECT_EQ(back.statusCode, 1000);
    EXPECT_EQ(back.additionalFields, R"({"a":"it's"})");
    EXPECT_THROW(AHSSqlDataFormatter::ParseRecord(oldest.rows[0].substr(0, oldest.rows[0].size() - 1)),
                 std::out_of_range);
    EXPECT_THROW(AHSSqlDataFormatter().GetSelectStatement("Other", "count"),
                 vantor::common::SqlDataFormatterException);
}

class AHSUploadScheduleTest : public testing::Test
{
protected:
    AHSUploadScheduleTest()
        : m_upload(m_dir.Path())
        , m_store(std::make_shared<SqlStorage>(m_dir.Path(), AHSRecordWriter::kDbFileName,
                                               std::make_unique<AHSSqlDataFormatter>(), false))
        , m_writer(m_store, [] { return std::chrono::system_clock::time_point(1714557600s); })
        , m_uploader(m_upload.Uploader())
        , m_schedule(m_store, m_uploader, AHSServiceSettings{m_upload.Receiver().Url("/edr/status"), 45s})
    {
    }

    int64_t Stored()
    {
        return vantor::common::Serializer(m_store->Read(kTable, "count").rows.at(0)).GetInt64();
    }

    rapidjson::Document LastStatus()
    {
        rapidjson::Document payload;
        const auto requests = m_upload.Receiver().Requests();
        EXPECT_TRUE(!requests.empty() && vantor::util::ParseJson(payload, requests.back().payload));
        return payload;
    }

    vantor::test::TempDir m_dir;
    vantor::test::UploadTarget m_upload;
    std::shared_ptr<SqlStorage> m_store;
    AHSRecordWriter m_writer;
    std::shared_ptr<vantor::common::HttpUploader> m_uploader;
    AHSUploadSchedule m_schedule;
};

TEST_F(AHSUploadScheduleTest, UploadsRecordsAsStatusJsonAndDeletesThemAfterSuccess)
{
    vantor::test::LogCapture log(vantor::common::Logging::Edr());
    ASSERT_TRUE(m_writer.Write("edr.config", AHSStatusCode::kConfigLoaded, AHSState::Ok));
    ASSERT_TRUE(m_writer.Write("audit.parser.queue", AHSStatusCode::kParserQueueDropped, AHSState::Degraded,
                               {{"buffers", uint64_t{3}}, {"reason", std::string("bad \xff byte")}}));

    m_schedule.RunOnce();
    EXPECT_EQ(Stored(), 0);
    const auto requests = m_upload.Receiver().Requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].uri, "/edr/status");
    EXPECT_EQ(requests[0].headers.Get("C-PROTOTYPE"), "status");
    EXPECT_EQ(requests[0].headers.Get("Content-Type"), "application/json");
    EXPECT_EQ(requests[0].headers.Get("Content-Encoding"), "LZMA");

    const auto payload = LastStatus();
    ASSERT_TRUE(payload.HasMember("status"));
    const auto& status = payload["status"];
    ASSERT_EQ(status.Size(), 2u);
    EXPECT_STREQ(status[0]["dateTime"].GetString(), "2024-05-01T10:00:00Z");
    EXPECT_STREQ(status[0]["contextId"].GetString(), "edr.config");
    EXPECT_EQ(status[0]["statusCode"].GetInt64(), 1000);
    EXPECT_EQ(status[0]["state"].GetInt64(), 0);
    // Empty additional fields are left out; others are embedded as JSON,
    // their texts made valid UTF-8.
    EXPECT_FALSE(status[0].HasMember("additionalFields"));
    EXPECT_EQ(status[1]["additionalFields"]["buffers"].GetUint64(), 3u);
    EXPECT_STREQ(status[1]["additionalFields"]["reason"].GetString(), "bad \xEF\xBF\xBD byte");
    EXPECT_TRUE(log.Contains("AHS: Read2 records from DB"));
    EXPECT_TRUE(log.Contains("AHSUploadSchedule: Configuration status successfully uploaded."));
    EXPECT_TRUE(log.Contains("AHSUploadSchedule: Loss status successfully uploaded."));

    m_schedule.RunOnce(); // nothing left: no request
    EXPECT_EQ(m_upload.Receiver().RequestCount(), 1u);
    EXPECT_EQ(m_uploader->GetOutcomes().succeeded, 1u);
}

TEST_F(AHSUploadScheduleTest, FailedUploadKeepsTheRecordsForTheNextRun)
{
    vantor::test::LogCapture log(vantor::common::Logging::Edr());
    ASSERT_TRUE(m_writer.Write("fim.upload", AHSStatusCode::kUploadFailed, AHSState::Degraded));
    m_upload.Receiver().FailNext(1, 503);
    m_schedule.RunOnce();
    EXPECT_EQ(Stored(), 1);
    EXPECT_TRUE(log.Contains("AHSUploadSchedule: Failed to upload data. The next upload will be tried 45 "
                             "seconds later."));
    EXPECT_EQ(m_uploader->GetOutcomes().failed, 1u);
    EXPECT_EQ(m_uploader->GetOutcomes().lastError, "HTTP status 503");

    // Written meanwhile: goes with the kept one.
    ASSERT_TRUE(m_writer.Write("edr.config", AHSStatusCode::kConfigLoaded, AHSState::Ok));
    m_schedule.RunOnce();
    EXPECT_EQ(Stored(), 0);
    EXPECT_EQ(LastStatus()["status"].Size(), 2u);
}

TEST_F(AHSUploadScheduleTest, UnknownRecordTypeStopsTheRunAndIsDropped)
{
    vantor::test::LogCapture log(vantor::common::Logging::Edr());
    ASSERT_TRUE(m_writer.Write("edr.config", AHSStatusCode::kConfigLoaded, AHSState::Ok));
    ASSERT_TRUE(m_writer.Write("from.elsewhere", 42, AHSState::Ok));
    m_schedule.RunOnce();
    EXPECT_EQ(m_upload.Receiver().RequestCount(), 0u);
    EXPECT_EQ(log.Count("Invalid AHSRecordType provided. Aborting this attempt."), 1u);

    m_schedule.RunOnce();
    ASSERT_EQ(m_upload.Receiver().StoredCount(), 1u);
    EXPECT_EQ(LastStatus()["status"].Size(), 1u);
}

TEST_F(AHSUploadScheduleTest, BacklogIsBoundedOldestFirst)
{
    const uint64_t backlog = AHSUploadSchedule::kMaxStoredRecords + 2;
    SqlStorage::Records records;
    for (uint64_t i = 0; i < backlog; ++i)
    {
        records.push_back({{}, AHSSqlDataFormatter::FormatRecord(Record("n" + std::to_string(i), 3001))});
    }
    ASSERT_TRUE(m_store->Write(kTable, records).success);

    m_schedule.RunOnce();
    EXPECT_EQ(m_schedule.EvictedRecords(), 2u);
    const auto payload = LastStatus();
    const auto status = payload["status"].GetArray();
    ASSERT_EQ(status.Size(), AHSUploadSchedule::kMaxRecordsPerRun);
    EXPECT_STREQ(status[0]["contextId"].GetString(), "n2");
    EXPECT_EQ(Stored(), static_cast<int64_t>(AHSUploadSchedule::kMaxStoredRecords -
                                             AHSUploadSchedule::kMaxRecordsPerRun));
}

class HealthMonitorTest : public testing::Test
{
protected:
    HealthMonitorTest()
        : m_store(std::make_shared<vantor::common::SqlStorage>(
              m_dir.Path(), AHSRecordWriter::kDbFileName, std::make_unique<AHSSqlDataFormatter>(), false))
        , m_monitor(std::make_shared<AHSRecordWriter>(m_store), 60s)
    {
    }

    // A source of two totals and a level, as the test sets them.
    void AddCounterSource(bool fromFirstReading = false)
    {
        HealthMonitor::Source source;
        source.contextId = "test.queue";
        source.statusCode = AHSStatusCode::kParserQueueDropped;
        source.fromFirstReading = fromFirstReading;
        source.read = [this]() -> std::optional<HealthMonitor::Reading>
        {
            if (m_unreadable)
            {
                return std::nullopt;
            }
            return HealthMonitor::Reading{{{"buffers", m_buffers}, {"bytes", m_bytes}}, {{"level", 7}}, {}};
        };
        m_monitor.AddSource(std::move(source));
    }

    // Fields of the records written so far, oldest first.
    std::vector<std::string> Records()
    {
        std::vector<std::string> fields;
        for (const auto& row : m_store->Read(AHSSqlDataFormatter::kTableName, "ORDER BY rowid").rows)
        {
            const auto record = AHSSqlDataFormatter::ParseRecord(row);
            EXPECT_EQ(record.contextId, "test.queue");
            EXPECT_EQ(record.statusCode, AHSStatusCode::kParserQueueDropped);
            EXPECT_EQ(record.state, static_cast<int64_t>(AHSState::Degraded));
            fields.push_back(record.additionalFields);
        }
        return fields;
    }

    vantor::test::TempDir m_dir;
    std::shared_ptr<vantor::common::SqlStorage> m_store;
    HealthMonitor m_monitor;
    uint64_t m_buffers = 0;
    uint64_t m_bytes = 0;
    bool m_unreadable = false;
};

TEST_F(HealthMonitorTest, WritesChangesSinceTheLastRecordNothingWhenNothingMovedAndALastOneAtClose)
{
    AddCounterSource();
    EXPECT_EQ(m_monitor.Sample(), 0u); // all zero: nothing to tell

    m_buffers = 3;
    m_bytes = 300;
    EXPECT_EQ(m_monitor.Sample(), 1u);
    EXPECT_EQ(m_monitor.Sample(), 0u); // unchanged totals

    m_buffers = 5; // one total moved: the record has both, as changes
    EXPECT_EQ(m_monitor.Sample(), 1u);

    m_unreadable = true; // a reading that fails keeps the last totals
    m_buffers = 9;
    EXPECT_EQ(m_monitor.Sample(), 0u);
    m_unreadable = false;
    EXPECT_EQ(m_monitor.Sample(), 1u);

    m_buffers = 1; // a total that went down counts from zero
    m_bytes = 310;
    EXPECT_EQ(m_monitor.Sample(), 1u);

    m_buffers = 3; // close takes a last sample and reads no more
    m_monitor.Close();
    m_buffers = 4;
    EXPECT_EQ(m_monitor.Sample(), 0u);

    EXPECT_EQ(Records(), (std::vector<std::string>{
                             R"({"buffers":3,"bytes":300,"level":7})", R"({"buffers":2,"bytes":0,"level":7})",
                             R"({"buffers":4,"bytes":0,"level":7})", R"({"buffers":1,"bytes":10,"level":7})",
                             R"({"buffers":2,"bytes":0,"level":7})"}));
}

TEST_F(HealthMonitorTest, CountersThatBeganBeforeTheDaemonStartFromTheirFirstReading)
{
    m_buffers = 1000;
    AddCounterSource(true);
    EXPECT_EQ(m_monitor.Sample(), 0u);
    m_buffers = 1004;
    EXPECT_EQ(m_monitor.Sample(), 1u);
    EXPECT_EQ(Records(), (std::vector<std::string>{R"({"buffers":4,"bytes":0,"level":7})"}));
}

} // namespace
