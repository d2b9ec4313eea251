#include "fim/Config.h"
#include "fim/JsonDataFormatter.h"
#include "fim/UploadSchedule.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"
#include "tests/support/UploadTarget.h"

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

namespace
{

class FimUploadScheduleTest : public testing::Test
{
protected:
    void SetUp() override
    {
        std::filesystem::create_directories(m_dir.File("spool"));
        m_target = std::make_unique<vantor::test::UploadTarget>(m_dir.Path());
        m_receiver = &m_target->Receiver();
        rapidjson::Document json;
        json.Parse(
            ("{\"service_url\":\"" + m_receiver->Url("/upload/fim") + "\",\"upload_interval\":30}").c_str());
        m_config = std::make_unique<vantor::fim::Config>(json);
        m_spool = std::make_unique<SpoolStorage>(m_scheduler, m_dir.File("spool"), "fim",
                                                 std::make_unique<JsonDataFormatter>(),
                                                 SpoolStorage::Settings{}, 1000);
        m_schedule = std::make_shared<UploadSchedule>(
            *m_config, *m_spool, m_target->Uploader(),
            [this] { return m_blackout || ++m_blackoutChecks > m_blackoutAfter; });
    }

    // One spool file holding one event document.
    void Spool(const std::string& name)
    {
        ASSERT_TRUE(m_spool->Write(R"({"imagePath":")" + name + R"("})").Succeeded());
        ASSERT_TRUE(m_spool->FlushDataCache());
    }

    std::string LastPayload() const { return m_receiver->Requests().back().payload; }

    // The image paths of the stored uploads, in arrival order.
    std::vector<std::string> UploadedPaths() const
    {
        std::vector<std::string> paths;
        for (const auto& request : m_receiver->Requests())
        {
            rapidjson::Document payload;
            if (request.status == 200 && vantor::util::ParseJson(payload, request.payload))
            {
                for (const auto& event : payload["events"].GetArray())
                {
                    paths.emplace_back(event["imagePath"].GetString());
                }
            }
        }
        return paths;
    }

    vantor::test::TempDir m_dir;
    Scheduler m_scheduler;
    std::unique_ptr<vantor::test::UploadTarget> m_target;
    TestReceiver* m_receiver = nullptr;
    std::unique_ptr<vantor::fim::Config> m_config;
    std::unique_ptr<SpoolStorage> m_spool;
    std::shared_ptr<UploadSchedule> m_schedule;
    bool m_blackout = false;
    // A blackout that begins after this many checks.
    std::size_t m_blackoutChecks = 0;
    std::size_t m_blackoutAfter = SIZE_MAX;
};

} // namespace

TEST_F(FimUploadScheduleTest, OldestFirstDeletedOnlyAfterSuccess)
{
    vantor::test::LogCapture log(Logging::Edr());
    Spool("/first");
    Spool("/second");
    ASSERT_EQ(m_spool->FileIndices().size(), 2u);

    // A failure ends the run: the second file is not tried after it.
    m_receiver->FailNext(1, 503);
    m_schedule->RunOnce();
    EXPECT_EQ(m_receiver->RequestCount(), 1u);
    EXPECT_EQ(m_spool->FileIndices().size(), 2u);
    EXPECT_TRUE(log.Contains(
        "UploadSchedule: Failed to upload data. The next upload will be tried 30 seconds later."));

    // The next run sends both, oldest first, one payload each.
    m_schedule->RunOnce();
    ASSERT_EQ(m_receiver->StoredCount(), 2u);
    EXPECT_EQ(UploadedPaths(), (std::vector<std::string>{"/first", "/second"}));
    rapidjson::Document payload;
    ASSERT_TRUE(vantor::util::ParseJson(payload, LastPayload()));
    ASSERT_EQ(payload["events"].Size(), 1u);
    EXPECT_EQ(std::string(payload["timestamp"].GetString()).size(), 20u);
    EXPECT_TRUE(log.Contains("UploadSchedule: Events successfully uploaded."));
    EXPECT_TRUE(m_spool->FileIndices().empty());

    m_schedule->RunOnce(); // nothing left: no request
    EXPECT_EQ(m_receiver->RequestCount(), 3u);
}

TEST_F(FimUploadScheduleTest, BlackoutHoldsUploadsBackEvenInTheMiddleOfARun)
{
    vantor::test::LogCapture log(Logging::Edr());
    for (const char* name : {"/a", "/b", "/c"})
    {
        Spool(name);
    }
    m_blackout = true;
    m_schedule->RunOnce();
    EXPECT_EQ(m_receiver->RequestCount(), 0u);
    EXPECT_TRUE(log.Contains("UploadSchedule: Blackout period, upload postponed."));

    // The blackout begins after the first file of the run.
    m_blackout = false;
    m_blackoutAfter = 1;
    m_schedule->RunOnce();
    EXPECT_EQ(UploadedPaths(), (std::vector<std::string>{"/a"}));
    EXPECT_EQ(m_spool->FileIndices().size(), 2u);

    m_blackoutAfter = SIZE_MAX;
    m_schedule->RunOnce();
    EXPECT_EQ(UploadedPaths(), (std::vector<std::string>{"/a", "/b", "/c"}));
}

TEST_F(FimUploadScheduleTest, BacklogDrainsInBoundedRuns)
{
    vantor::test::LogCapture log(Logging::Edr());
    const std::size_t backlog = UploadSchedule::kMaxFilesPerRun + 3;
    for (std::size_t i = 0; i < backlog; ++i)
    {
        Spool("/backlog/" + std::to_string(i));
    }
    m_schedule->RunOnce();
    EXPECT_EQ(m_receiver->StoredCount(), UploadSchedule::kMaxFilesPerRun);
    EXPECT_EQ(m_spool->FileIndices().size(), 3u);
    EXPECT_TRUE(
        log.Contains("UploadSchedule: Uploaded 100 files in this run; the rest goes with the next run."));

    m_schedule->RunOnce();
    EXPECT_TRUE(m_spool->FileIndices().empty());
    const auto paths = UploadedPaths();
    ASSERT_EQ(paths.size(), backlog);
    for (std::size_t i = 0; i < backlog; ++i)
    {
        EXPECT_EQ(paths[i], "/backlog/" + std::to_string(i));
    }
}

TEST_F(FimUploadScheduleTest, UnreadableFileIsDeletedAndTheNextOneGoes)
{
    const auto nested = [](std::size_t depth)
    { return R"({"events":[)" + std::string(depth, '[') + std::string(depth, ']') + "]}"; };
    struct Case
    {
        std::string text;
        std::string why;
    };
    // Too deep: it would overflow the stack if it were written out again.
    for (const auto& [text, why] : {Case{R"({"events":[{"a":)", " (offset: "},
                                    Case{nested(1'000'000), " 'events' nest deeper than 64 levels"}})
    {
        SCOPED_TRACE(why);
        vantor::test::LogCapture log(Logging::Edr());
        const auto requests = m_receiver->RequestCount();
        Spool("/will-be-unreadable");
        Spool("/will-be-at-the-bound");
        const std::string bad = m_spool->FileName(m_spool->FileIndices().front());
        std::ofstream(bad, std::ios::trunc) << text;
        // One at the bound of nesting still goes.
        std::ofstream(m_spool->FileName(m_spool->FileIndices().back()), std::ios::trunc)
            << nested(UploadSchedule::kMaxNesting);

        m_schedule->RunOnce();
        EXPECT_EQ(m_receiver->RequestCount(), requests);
        EXPECT_FALSE(std::filesystem::exists(bad));
        EXPECT_TRUE(log.Contains("UploadSchedule: Failed to parse file: " + bad + " "));
        EXPECT_TRUE(log.Contains(why));
        EXPECT_TRUE(log.Contains("UploadSchedule: Deleting corrupt file: " + bad));

        m_schedule->RunOnce();
        ASSERT_EQ(m_receiver->RequestCount(), requests + 1);
        rapidjson::Document payload;
        ASSERT_TRUE(vantor::util::ParseJson(payload, LastPayload()));
        EXPECT_TRUE(vantor::util::NestsWithin(payload["events"], UploadSchedule::kMaxNesting));
        EXPECT_FALSE(vantor::util::NestsWithin(payload["events"], UploadSchedule::kMaxNesting - 1));
    }
}
