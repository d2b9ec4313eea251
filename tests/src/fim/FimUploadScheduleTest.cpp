#include "fim/Config.h"
#include "fim/JsonDataFormatter.h"
#include "fim/UploadSchedule.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include "common/HmacRequestSigner.h"
#include "common/HttpService.h"
#include "common/HttpUploader.h"
#include "common/Logging.h"
#include "common/Scheduler.h"
#include "common/SpoolStorage.h"
#include "common/util/Json.h"
#include "tools/TestReceiver.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

using namespace vantor::common;
using namespace vantor::fim::internal;
using vantor::tools::TestReceiver;
using namespace std::chrono_literals;

namespace
{

class FimUploadScheduleTest : public testing::Test
{
protected:
    void SetUp() override
    {
        std::filesystem::create_directories(m_dir.File("out"));
        std::filesystem::create_directories(m_dir.File("spool"));
        std::ofstream(m_dir.File("hmac.key")) << "fim-test-key\n";
        TestReceiver::Options options;
        options.outputDir = m_dir.File("out");
        options.certDir = m_dir.Path();
        options.hmacKey = "fim-test-key";
        m_receiver = std::make_unique<TestReceiver>(options);
        m_receiver->Start();

        HttpServiceSettings settings;
        settings.connectionTimeout = 2s;
        settings.requestTimeout = 3s;
        settings.caCertPath = m_receiver->Certificate().certPath;
        settings.useSystemProxy = false;
        settings.retryAttempts = 0;
        settings.customerId = "cust";
        settings.agentId = "agent";
        m_service = std::make_shared<HttpService>(
            settings, std::make_shared<HmacRequestSigner>(m_dir.File("hmac.key")));
        m_service->Start();

        rapidjson::Document json;
        json.Parse(
            ("{\"service_url\":\"" + m_receiver->Url("/upload/fim") + "\",\"upload_interval\":30}").c_str());
        m_config = std::make_unique<vantor::fim::Config>(json);
        m_spool = std::make_unique<SpoolStorage>(m_scheduler, m_dir.File("spool"), "fim",
                                                 std::make_unique<JsonDataFormatter>(),
                                                 SpoolStorage::Settings{}, 100);
        m_schedule = std::make_shared<UploadSchedule>(
            *m_config, *m_spool, std::make_shared<HttpUploader>(m_service, 1), [this] { return m_blackout; });
    }

    void TearDown() override
    {
        m_schedule.reset();
        m_spool.reset();
        m_service->Stop();
        m_receiver.reset();
    }

    // One spool file holding one event document.
    void Spool(const std::string& name)
    {
        ASSERT_TRUE(m_spool->Write(R"({"imagePath":")" + name + R"("})").Succeeded());
        ASSERT_TRUE(m_spool->FlushDataCache());
    }

    std::string LastPayload() const { return m_receiver->Requests().back().payload; }

    vantor::test::TempDir m_dir;
    Scheduler m_scheduler;
    std::unique_ptr<TestReceiver> m_receiver;
    std::shared_ptr<HttpService> m_service;
    std::unique_ptr<vantor::fim::Config> m_config;
    std::unique_ptr<SpoolStorage> m_spool;
    std::shared_ptr<UploadSchedule> m_schedule;
    bool m_blackout = false;
};

} // namespace

TEST_F(FimUploadScheduleTest, OldestFirstDeletedOnlyAfterSuccess)
{
    vantor::test::LogCapture log(Logging::Edr());
    Spool("/first");
    Spool("/second");
    ASSERT_EQ(m_spool->FileIndices().size(), 2u);

    m_receiver->FailNext(1, 503);
    m_schedule->RunOnce();
    EXPECT_EQ(m_spool->FileIndices().size(), 2u);
    EXPECT_TRUE(log.Contains(
        "UploadSchedule: Failed to upload data. The next upload will be tried 30 seconds later."));

    m_schedule->RunOnce();
    ASSERT_EQ(m_receiver->StoredCount(), 1u);
    rapidjson::Document payload;
    ASSERT_TRUE(vantor::util::ParseJson(payload, LastPayload()));
    ASSERT_EQ(payload["events"].Size(), 1u);
    EXPECT_STREQ(payload["events"][0]["imagePath"].GetString(), "/first");
    EXPECT_EQ(std::string(payload["timestamp"].GetString()).size(), 20u);
    EXPECT_TRUE(log.Contains("UploadSchedule: Events successfully uploaded."));
    EXPECT_EQ(m_spool->FileIndices().size(), 1u);

    m_blackout = true;
    m_schedule->RunOnce();
    EXPECT_EQ(m_receiver->RequestCount(), 2u);
    m_blackout = false;

    m_schedule->RunOnce();
    ASSERT_TRUE(vantor::util::ParseJson(payload, LastPayload()));
    EXPECT_STREQ(payload["events"][0]["imagePath"].GetString(), "/second");
    EXPECT_TRUE(m_spool->FileIndices().empty());

    m_schedule->RunOnce(); // nothing left: no request
    EXPECT_EQ(m_receiver->RequestCount(), 3u);
}

TEST_F(FimUploadScheduleTest, CorruptFileIsDeletedAndTheNextOneGoes)
{
    vantor::test::LogCapture log(Logging::Edr());
    Spool("/will-be-corrupt");
    Spool("/good");
    const std::string corrupt = m_spool->FileName(m_spool->FileIndices().front());
    std::ofstream(corrupt, std::ios::trunc) << R"({"events":[{"a":)";

    m_schedule->RunOnce();
    EXPECT_EQ(m_receiver->RequestCount(), 0u);
    EXPECT_FALSE(std::filesystem::exists(corrupt));
    EXPECT_TRUE(log.Contains("UploadSchedule: Failed to parse file: " + corrupt));
    EXPECT_TRUE(log.Contains("(offset: "));
    EXPECT_TRUE(log.Contains("UploadSchedule: Deleting corrupt file: " + corrupt));

    m_schedule->RunOnce();
    ASSERT_EQ(m_receiver->StoredCount(), 1u);
    EXPECT_NE(LastPayload().find("/good"), std::string::npos);
}

TEST_F(FimUploadScheduleTest, SchedulerRunsTheFirstUploadAtOnce)
{
    Spool("/scheduled");
    m_scheduler.Start();
    m_scheduler.RegisterSchedule(m_schedule);
    EXPECT_TRUE(m_receiver->WaitForRequests(1, 10s));
    for (int i = 0; i < 200 && !m_spool->FileIndices().empty(); ++i)
    {
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_TRUE(m_spool->FileIndices().empty());
    m_scheduler.Stop();
}
