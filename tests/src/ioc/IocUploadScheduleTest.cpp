#include "ioc/Config.h"
#include "ioc/UploadSchedule.h"
#include "ioc/protobuf/IocEvents.pb.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"
#include "tests/support/UploadTarget.h"

#include "common/Logging.h"
#include "common/Scheduler.h"
#include "common/SpoolRawDataFormatter.h"
#include "common/SpoolStorage.h"
#include "tools/TestReceiver.h"

#include <gtest/gtest.h>

#include <filesystem>

using namespace vantor;
using tools::TestReceiver;
namespace pb = ::com::corvid::ioc::model::proto::event;

namespace
{

const std::string kRoute = "/linuxagentevent/v1/customer/cust/agent/agent";

class IocUploadScheduleTest : public testing::Test
{
protected:
    void SetUp() override
    {
        std::filesystem::create_directories(m_dir.File("spool"));
        m_target = std::make_unique<test::UploadTarget>(m_dir.Path());
        m_receiver = &m_target->Receiver();
        m_config = std::make_unique<ioc::Ioc::Config>(R"({"service_url":")" + m_receiver->Url("/service") +
                                                      R"(","upload_interval":30})");
        m_spool = std::make_unique<common::SpoolStorage>(m_scheduler, m_dir.File("spool"), "ioc",
                                                         std::make_unique<common::SpoolRawDataFormatter>(),
                                                         common::SpoolStorage::Settings{}, 1000);
        m_schedule = std::make_shared<ioc::internal::UploadSchedule>(
            *m_config, test::UploadTarget::kCustomerId, test::UploadTarget::kAgentId, *m_spool,
            m_target->Uploader());
    }

    void TearDown() override
    {
        m_schedule.reset();
        m_spool.reset();
        m_target.reset();
    }

    // One spool file holding one batch.
    void Spool(uint64_t sequenceNo, const std::string& path)
    {
        pb::IoCEvent batch;
        batch.set_sequenceno(sequenceNo);
        batch.mutable_agent()->set_agentid("agent");
        auto& event = *batch.add_fileevent();
        event.set_eventaction(pb::WRITE);
        event.set_fullpath(path);
        ASSERT_TRUE(m_spool->Write(batch.SerializeAsString()).Succeeded());
        ASSERT_TRUE(m_spool->FlushDataCache());
    }

    test::TempDir m_dir;
    common::Scheduler m_scheduler;
    std::unique_ptr<test::UploadTarget> m_target;
    TestReceiver* m_receiver = nullptr;
    std::unique_ptr<ioc::Ioc::Config> m_config;
    std::unique_ptr<common::SpoolStorage> m_spool;
    std::shared_ptr<ioc::internal::UploadSchedule> m_schedule;
};

} // namespace

TEST_F(IocUploadScheduleTest, BatchesGoToTheGatewayOrWithoutOneToTheServiceUrlWithTheSamePath)
{
    test::LogCapture log(common::Logging::Edr());
    m_schedule->SetGatewayUrlPrefix("");
    Spool(1, "/first");
    m_schedule->RunOnce();

    const std::string gateway = m_receiver->Url("/gateway");
    m_schedule->SetGatewayUrlPrefix(gateway);
    EXPECT_TRUE(log.Contains("Setting gateway url prefix to '" + gateway + "'"));
    Spool(2, "/second");
    // A number that does not rise is noticed by the receiver.
    Spool(2, "/again");
    m_schedule->RunOnce();

    const auto requests = m_receiver->Requests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0].uri, "/service" + kRoute);
    EXPECT_EQ(requests[1].uri, "/gateway" + kRoute);
    for (const auto& request : requests)
    {
        EXPECT_EQ(request.status, 200) << request.rejection;
        EXPECT_EQ(request.headers.Get("Content-Type"), "application/octet-stream");
        EXPECT_EQ(request.headers.Get("C-PROTOTYPE"), "ioc");
    }
    ASSERT_EQ(requests[0].iocLines.size(), 2u);
    EXPECT_EQ(requests[0].iocLines[1], "fileEvent WRITE pid 0 () /first type ");
    EXPECT_EQ(requests[2].iocWarning, "sequence number 2 after 2");
    EXPECT_EQ(m_receiver->IocSequenceErrors(), 1u);
    EXPECT_TRUE(m_spool->FileIndices().empty());
}

TEST_F(IocUploadScheduleTest, AFileThatIsNoBatchIsDeletedAndAFailedUploadKeepsTheBatchForTheNextRun)
{
    test::LogCapture log(common::Logging::Edr());
    ASSERT_TRUE(m_spool->Write(std::string("\xff\xff\xff", 3)).Succeeded());
    ASSERT_TRUE(m_spool->FlushDataCache());
    const std::string corrupt = m_spool->FileName(m_spool->FileIndices().front());
    Spool(7, "/kept");
    m_schedule->RunOnce();
    EXPECT_EQ(m_receiver->RequestCount(), 0u);
    EXPECT_TRUE(log.Contains("UploadSchedule: Deleting corrupt file: " + corrupt));

    m_receiver->FailNext(1, 503);
    m_schedule->RunOnce();
    EXPECT_EQ(m_receiver->StoredCount(), 0u);
    EXPECT_EQ(m_spool->FileIndices().size(), 1u);
    EXPECT_TRUE(log.Contains(
        "UploadSchedule: Failed to upload data. The next upload will be tried 30 seconds later."));

    m_schedule->RunOnce();
    ASSERT_EQ(m_receiver->StoredCount(), 1u);
    EXPECT_TRUE(log.Contains("UploadSchedule: Events successfully uploaded."));
    EXPECT_TRUE(m_spool->FileIndices().empty());
    pb::IoCEvent sent;
    ASSERT_TRUE(sent.ParseFromString(m_receiver->Requests().back().payload));
    EXPECT_EQ(sent.sequenceno(), 7u);
    // The retry of a batch the receiver did not take is no repeat.
    EXPECT_EQ(m_receiver->IocSequenceErrors(), 0u);
}
