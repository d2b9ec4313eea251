#include "ioc/protobuf/DataFormatter.h"
#include "ioc/protobuf/DataFormatterException.h"
#include "tests/src/ioc/IocTestEvent.h"
#include "tests/support/ExpectThrowText.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include "common/Logging.h"
#include "common/Scheduler.h"
#include "common/SpoolRawDataFormatter.h"
#include "common/SpoolStorage.h"
#include "common/SqlStorage.h"
#include "common/util/Digest.h"
#include "edr/PathEscape.h"
#include "ioc/BatchWriter.h"
#include "ioc/ClientInformation.h"
#include "ioc/Config.h"
#include "ioc/EventRuleManager.h"
#include "ioc/SequenceNumber.h"
#include "ioc/SnapshotSqlDataFormatter.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

using namespace vantor;
using namespace vantor::ioc::internal;
using namespace vantor::ioc::internal::protobuf;
using edr::EventType;
using ioc::test::IocTestEvent;

namespace
{

constexpr int64_t kBootTime = 1700000000;

class IocDataFormatterTest : public testing::Test
{
protected:
    IocDataFormatterTest()
    {
        std::filesystem::create_directories(m_dir.File("edr"));
        std::filesystem::create_directories(m_dir.File("spool"));
        std::filesystem::create_directories(m_dir.File("files"));
        m_spool = std::make_unique<common::SpoolStorage>(m_scheduler, m_dir.File("spool"), "ioc",
                                                         std::make_unique<common::SpoolRawDataFormatter>(),
                                                         common::SpoolStorage::Settings{}, 100);
        m_snapshot = std::make_unique<common::SqlStorage>(
            m_dir.File("edr"), "SnapshotEdr.db", std::make_unique<SnapshotSqlDataFormatter>(), false);
        m_sequence = std::make_unique<SequenceNumber>(*m_snapshot);
        AgentIdentity identity;
        identity.customerId = "customer-1";
        identity.agentId = "agent-1";
        identity.computerName = "host.example";
        m_formatter = std::make_unique<DataFormatter>(
            identity,
            DataFormatter::Services{*m_snapshot, *m_sequence, *m_spool, m_config, m_rules, nullptr});
        EXPECT_TRUE(ClientInformation::Write(*m_snapshot, "BootTime", std::to_string(kBootTime)).success);
    }

    // A file event about a file of the test directory.
    IocTestEvent File(EventType type, const std::string& name, uint32_t id = 1)
    {
        auto event = ioc::test::FileEvent(type, m_dir.File("files/" + name));
        event.id = id;
        event.pid = 42;
        return event;
    }

    // The batches of the spool files, oldest first.
    std::vector<pb::IoCEvent> Batches() const
    {
        std::vector<pb::IoCEvent> batches;
        for (const auto index : m_spool->FileIndices())
        {
            std::ifstream in(m_spool->FileName(index), std::ios::binary);
            std::stringstream data;
            data << in.rdbuf();
            EXPECT_TRUE(batches.emplace_back().ParseFromString(data.str())) << m_spool->FileName(index);
        }
        return batches;
    }

    // One batch of the events; answers it as it went to the spool.
    pb::IoCEvent Batch(const std::vector<const edr::Event*>& events, const ioc::ProcessInfo* actor = nullptr)
    {
        const size_t before = m_spool->FileIndices().size();
        m_formatter->Start();
        for (const auto* event : events)
        {
            m_formatter->Append(*event, actor);
        }
        EXPECT_TRUE(m_formatter->Finish());
        const auto batches = Batches();
        EXPECT_EQ(batches.size(), before + 1);
        return batches.empty() ? pb::IoCEvent() : batches.back();
    }

    test::TempDir m_dir;
    common::Scheduler m_scheduler;
    ioc::Ioc::Config m_config{R"({"host_quarantined": true})"};
    EventRuleManager m_rules;
    std::unique_ptr<common::SpoolStorage> m_spool;
    std::unique_ptr<common::SqlStorage> m_snapshot;
    std::unique_ptr<SequenceNumber> m_sequence;
    std::unique_ptr<DataFormatter> m_formatter;
};

TEST_F(IocDataFormatterTest, RenameGoesFromTheOldPathToTheNewAndMovesTheFileRow)
{
    const std::string oldPath = m_dir.File("files/old.txt");
    const std::string newPath = m_dir.Write("files/new.txt", "abc");
    auto create = File(EventType::Create, "old.txt", 1);
    auto rename = File(EventType::Rename, "old.txt", 2);
    rename.newFile = newPath;

    const auto batch = Batch({&create, &rename});
    ASSERT_EQ(batch.fileevent_size(), 2);
    const auto& moved = batch.fileevent(1);
    EXPECT_EQ(moved.eventaction(), pb::RENAME);
    EXPECT_EQ(moved.fullpath(), newPath);
    EXPECT_EQ(moved.oldpath(), oldPath);
    EXPECT_EQ(moved.filename(), "new.txt");
    EXPECT_EQ(moved.extension(), "txt");
    EXPECT_EQ(moved.uniqueid(), "2");
    EXPECT_EQ(moved.md5(), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(moved.type(), "regularfile");
    EXPECT_EQ(moved.actor().processid(), 42);
    // The file keeps the creation time its create reported.
    EXPECT_EQ(moved.creationtime(), static_cast<int64_t>(create.timestamp));
    EXPECT_EQ(batch.fileevent(0).oldpath(), "");

    // The parent id names the directory's row, which the snapshot now holds.
    SnapshotFiles files(*m_snapshot);
    EXPECT_EQ(moved.parentdirectoryid(), SnapshotFiles::RowIdOf(m_dir.File("files")));
    ASSERT_TRUE(files.ReadDirectory(moved.parentdirectoryid()));
    EXPECT_EQ(files.ReadDirectory(moved.parentdirectoryid())->path, m_dir.File("files"));
    EXPECT_FALSE(files.ReadFile(SnapshotFiles::RowIdOf(oldPath)));
    ASSERT_TRUE(files.ReadFile(SnapshotFiles::RowIdOf(newPath)));
    EXPECT_EQ(files.ReadFile(SnapshotFiles::RowIdOf(newPath))->sha1, moved.sha1());

    EXPECT_EQ(batch.sequenceno(), 1u);
    EXPECT_EQ(batch.agent().platform(), "LINUX");
    EXPECT_EQ(batch.agent().customerid(), "customer-1");
    EXPECT_EQ(batch.agent().computername(), "host.example");
    EXPECT_EQ(batch.agent().boottime(), kBootTime);
    EXPECT_TRUE(batch.agent().isquarantine());
}

TEST_F(IocDataFormatterTest, DeletesNeedAReportedFileAndSnapshotRowsAreStoredWhenTheBatchFinishes)
{
    test::LogCapture log(common::Logging::Edr());
    const std::string path = m_dir.Write("files/kept", "data");
    const std::string rowId = SnapshotFiles::RowIdOf(path);
    const std::string parentId = SnapshotFiles::RowIdOf(m_dir.File("files"));
    const auto stored = [&] { return SnapshotFiles(*m_snapshot).ReadFile(rowId).has_value(); };
    auto write = File(EventType::Write, "kept", 1);
    auto remove = File(EventType::Delete, "kept", 2);

    m_formatter->Start();
    EXPECT_FALSE(m_formatter->Append(remove));
    EXPECT_TRUE(log.Contains("Dropping delete event for unreported file: " + path));
    EXPECT_EQ(m_formatter->EventCount(), 0u);
    EXPECT_TRUE(m_formatter->Append(write));
    EXPECT_FALSE(stored());
    EXPECT_FALSE(SnapshotFiles(*m_snapshot).ReadDirectory(parentId));
    EXPECT_TRUE(m_formatter->Finish());
    EXPECT_TRUE(stored());
    EXPECT_TRUE(SnapshotFiles(*m_snapshot).ReadDirectory(parentId));

    // The rows read or written as stored are remembered; a cleared snapshot
    // needs the parent's row written again and knows the file no more (its
    // delete is dropped as unreported).
    for (const bool cleared : {false, true})
    {
        m_formatter->Start();
        if (cleared)
        {
            EXPECT_FALSE(m_formatter->Append(remove));
        }
        else
        {
            std::filesystem::remove(path);
            EXPECT_TRUE(m_formatter->Append(remove));
            EXPECT_FALSE(m_formatter->Append(remove)) << "the row went with the reported delete";
            m_dir.Write("files/kept", "rewritten");
        }
        EXPECT_TRUE(m_formatter->Append(write));
        EXPECT_TRUE(m_formatter->Finish());
        EXPECT_TRUE(SnapshotFiles(*m_snapshot).ReadDirectory(parentId)) << cleared;
        if (!cleared)
        {
            ASSERT_TRUE(m_snapshot->Clear("Directory").success);
            ASSERT_TRUE(m_snapshot->Clear("File").success);
            m_formatter->SnapshotCleared();
        }
    }
    // A deleted file is reported with what its remembered row held.
    EXPECT_EQ(Batches().at(1).fileevent(0).eventaction(), pb::DELETE);
    EXPECT_EQ(Batches().at(1).fileevent(0).sha256(),
              util::Digest::HexOf(util::Digest::Algorithm::Sha256, "data"));
    EXPECT_TRUE(log.Contains("Ignoring content hash for event with ID 2"));

    m_formatter->Start();
    EXPECT_TRUE(m_formatter->Append(remove));
    EXPECT_TRUE(stored());
    m_formatter.reset();
    // The formatter's end stores what its open batch held.
    EXPECT_FALSE(stored());
}

TEST_F(IocDataFormatterTest, DirectoriesAreReportedWithTheirRowsLikeFiles)
{
    test::LogCapture log(common::Logging::Edr());
    auto directory = [&](EventType type, const std::string& name, uint32_t id)
    {
        auto event = File(type, name, id);
        event.fileType = S_IFDIR;
        return event;
    };
    auto create = directory(EventType::Create, "made", 1);
    auto rename = directory(EventType::Rename, "made", 2);
    rename.newFile = m_dir.File("files/moved");
    auto removeOld = directory(EventType::Delete, "made", 3);
    auto removeNew = directory(EventType::Delete, "moved", 4);
    auto noPath = directory(EventType::Write, "", 5);
    noPath.file.clear();

    m_formatter->Start();
    EXPECT_TRUE(m_formatter->Append(create));
    EXPECT_TRUE(m_formatter->Append(rename));
    EXPECT_FALSE(m_formatter->Append(removeOld));
    EXPECT_TRUE(log.Contains("Dropping delete event for unreported directory: " + m_dir.File("files/made")));
    EXPECT_TRUE(m_formatter->Append(removeNew));
    EXPECT_FALSE(m_formatter->Append(noPath));
    EXPECT_TRUE(log.Contains("Skip adding directory event: in protobuf"));
    EXPECT_TRUE(m_formatter->Finish());

    const auto batch = Batches().at(0);
    EXPECT_EQ(batch.fileevent_size(), 0);
    ASSERT_EQ(batch.directoryevent_size(), 3);
    EXPECT_EQ(batch.directoryevent(1).eventaction(), pb::RENAME);
    EXPECT_EQ(batch.directoryevent(1).path(), m_dir.File("files/moved"));
    EXPECT_FALSE(SnapshotFiles(*m_snapshot).ReadDirectory(SnapshotFiles::RowIdOf(m_dir.File("files/moved"))));
}

TEST_F(IocDataFormatterTest, CallsOutOfOrderThrowTheirTexts)
{
    const auto event = File(EventType::Write, "x");
    const auto expect = [](const std::function<void()>& call, const std::string& text)
    { test::ExpectThrowText<DataFormatterException>(call, text); };
    expect([&] { m_formatter->Append(event); }, "DataFormatter::Append: Invalid state.");
    expect([&] { m_formatter->AppendLoadedModules(event, ioc::ProcessInfo()); },
           "DataFormatter::Append: Invalid state.");
    expect([&] { m_formatter->Finish(); }, "DataFormatter::Finish: Invalid state.");
    m_formatter->Start();
    expect([&] { m_formatter->Start(); }, "DataFormatter::Start: Invalid state.");
    EXPECT_TRUE(m_formatter->Append(event));
    EXPECT_TRUE(m_formatter->Finish());
    expect([&] { m_formatter->Finish(); }, "DataFormatter::Finish: Invalid state.");
    expect([&] { DataFormatter::Serialize(pb::Agent()); },
           "DataFormatter::Serialize: Unknown protobuf message type.");

    // A boot time that cannot be read opens no batch.
    const std::vector<std::pair<std::string, std::string>> bootTimes{
        {"soon", "Protobuf::DataFormatterException: Error in reading boottime from snapshot"},
        {"99999999999999999999", "Protobuf::DataFormatterException: boottime number out of range."}};
    for (const auto& [value, text] : bootTimes)
    {
        ASSERT_TRUE(ClientInformation::Write(*m_snapshot, "BootTime", value).success);
        expect([&] { m_formatter->Start(); }, text);
        EXPECT_FALSE(m_formatter->InBatch());
    }
}

TEST_F(IocDataFormatterTest, HostBytesThatAreNotUtf8SurviveTheWire)
{
    const std::string name = "bad\xff\xfe\\name";
    m_dir.Write("files/" + name, "x");
    auto write = File(EventType::Write, name);
    ioc::ProcessInfo actor;
    actor.pid = 42;
    actor.image.path = "/usr/bin/\xc3(";
    actor.arguments = "run \xe2\x82 now";
    auto running = ioc::test::ProcessEvent(EventType::Running, actor.image.path);

    const auto batch = Batch({&write, &running}, &actor);
    ASSERT_EQ(batch.fileevent_size(), 1);
    ASSERT_EQ(batch.processevent_size(), 1);
    EXPECT_EQ(edr::PathEscape::Unescape(batch.fileevent(0).fullpath()), m_dir.File("files/" + name));
    EXPECT_EQ(edr::PathEscape::Unescape(batch.fileevent(0).filename()), name);
    EXPECT_EQ(edr::PathEscape::Unescape(batch.processevent(0).arguments()), actor.arguments);
    EXPECT_EQ(edr::PathEscape::Unescape(batch.processevent(0).actor().imagepath()), actor.image.path);
}

TEST_F(IocDataFormatterTest, ActionsMapToTheirNumbersAndReadIsWrittenNone)
{
    const std::vector<std::tuple<EventType, pb::EventAction, std::string>> cases{
        {EventType::Create, pb::CREATE, "CREATE"},
        {EventType::Read, pb::READ, "NONE"},
        {EventType::Write, pb::WRITE, "WRITE"},
        {EventType::Attribute, pb::CHANGE, "CHANGE"},
        {EventType::Clone, pb::RUNNING, "RUNNING"},
        {EventType::Exit, pb::TERMINATED, "TERMINATED"},
        {EventType::AbnormalEnd, pb::TERMINATED, "TERMINATED"},
        {EventType::Accept, pb::ESTABLISHED, "ESTABLISHED"}};
    for (const auto& [type, action, text] : cases)
    {
        SCOPED_TRACE(text);
        EXPECT_EQ(EventActions::ActionOf(type), action);
        EXPECT_EQ(EventActions::Text(action), text);
    }
    EXPECT_EQ(std::string(EventActions::Text(pb::LOAD)), "LOAD");
    EXPECT_EQ(std::string(EventActions::Text(pb::OPEN)), "NONE");
    test::ExpectThrowText<DataFormatterException>([] { EventActions::ActionOf(static_cast<EventType>(6)); },
                                                  "Cannot convert unsupported action to protobuf");

    // On the wire a read keeps its number.
    m_dir.Write("files/read", "r");
    const auto read = File(EventType::Read, "read");
    const auto batch = Batch({&read});
    ASSERT_EQ(batch.fileevent_size(), 1);
    EXPECT_EQ(static_cast<int>(batch.fileevent(0).eventaction()), 4);
}

TEST_F(IocDataFormatterTest, ProcessNetworkAndModuleMessagesCarryTheActorAndThePolicy)
{
    test::LogCapture log(common::Logging::Edr());
    ASSERT_TRUE(m_rules.LoadManifests({{m_dir.Write("manifest.json", R"({"policyVersion": "2.0.0",
        "policyId": "policy-7", "productId": "q", "rules": [],
        "globalSettings": {"maxFileSizeToProcess": 4, "sendMetadata": true}})"),
                                        "edr"}}));
    ioc::ProcessInfo actor;
    actor.pid = 42;
    actor.parentPid = 1;
    actor.creationTime = 5000;
    actor.euid = 0;
    actor.uid = 1000;
    actor.image.path = "/usr/bin/bash";
    actor.libraries = {"/lib/libc.so.6", "/lib/libtinfo.so.6"};
    actor.tags = {{"T1059", 3}, {"Reported", 0}};
    actor.verdicts = {{"hash", 5}};
    auto running = ioc::test::ProcessEvent(EventType::Running, actor.image.path);
    auto bind = ioc::test::NetworkEvent(EventType::Bind, "0.0.0.0", 8080);
    auto connect = ioc::test::NetworkEvent(EventType::Connect, "10.0.0.9", 443);
    m_dir.Write("files/big", "12345");
    auto big = File(EventType::Write, "big");
    auto unknown = File(EventType::Write, "odd");
    unknown.type = static_cast<EventType>(6);

    m_formatter->Start();
    for (const edr::Event* event : std::vector<const edr::Event*>{&running, &bind, &connect, &big})
    {
        EXPECT_TRUE(m_formatter->Append(*event, &actor));
    }
    EXPECT_TRUE(m_formatter->AppendLoadedModules(running, actor));
    EXPECT_FALSE(m_formatter->Append(unknown, &actor));
    EXPECT_TRUE(log.Contains("DataFormatter::Append: Ignoring unknown type of event."));
    EXPECT_EQ(m_formatter->EventCount(), 6u);
    const size_t estimate = m_formatter->ByteSizeEstimate();
    EXPECT_TRUE(m_formatter->Finish());
    const auto batch = Batches().at(0);
    EXPECT_NEAR(static_cast<double>(estimate), static_cast<double>(batch.ByteSizeLong()), 16.0);
    EXPECT_EQ(batch.protofileid(), "policy-7");

    ASSERT_EQ(batch.processevent_size(), 1);
    const auto& process = batch.processevent(0);
    EXPECT_EQ(process.eventaction(), pb::RUNNING);
    EXPECT_EQ(process.processname(), "bash");
    EXPECT_EQ(process.parentprocessid(), 1);
    EXPECT_TRUE(process.elevated());
    EXPECT_EQ(process.actor().uniqueprocessid(), "42-5000");
    EXPECT_EQ(process.actor().userid(), "1000");
    EXPECT_EQ(process.agentmetadata(), R"({"tags":{"T1059":3},"verdicts":{"hash":5}})");

    ASSERT_EQ(batch.networkevent_size(), 2);
    EXPECT_EQ(batch.networkevent(0).eventaction(), pb::LISTEN);
    EXPECT_EQ(batch.networkevent(0).localaddress(), "0.0.0.0");
    EXPECT_EQ(batch.networkevent(0).localport(), 8080);
    EXPECT_EQ(batch.networkevent(1).eventaction(), pb::ESTABLISHED);
    EXPECT_EQ(batch.networkevent(1).remoteaddress(), "10.0.0.9");
    EXPECT_EQ(batch.networkevent(1).remoteport(), 443);
    EXPECT_EQ(batch.networkevent(1).processid(), 42);

    ASSERT_EQ(batch.loadedmodule_size(), 2);
    EXPECT_EQ(batch.loadedmodule(1).eventaction(), pb::LOAD);
    EXPECT_EQ(batch.loadedmodule(1).modulename(), "/lib/libtinfo.so.6");

    // Larger than the policy allows: neither hashed nor typed.
    ASSERT_EQ(batch.fileevent_size(), 1);
    EXPECT_EQ(batch.fileevent(0).md5(), "");
    EXPECT_TRUE(log.Contains("File size being truncated for file " + m_dir.File("files/big")));

    // The next batch fills the same messages again: nothing of this actor
    // stays with an event that has none.
    const auto next = Batch({&running});
    ASSERT_EQ(next.processevent_size(), 1);
    EXPECT_EQ(next.processevent(0).actor().uniqueprocessid(), "");
    EXPECT_EQ(next.processevent(0).actor().creationtime(), 0);
}

} // namespace

TEST_F(IocDataFormatterTest, BatchesCloseWhenTheyHoldTheirMostEventsOrReachTheirAgeAndNeverEmpty)
{
    std::chrono::steady_clock::time_point now{};
    BatchWriter writer(*m_formatter, [&] { return now; });
    auto connect = ioc::test::NetworkEvent(EventType::Connect, "10.0.0.9", 443);
    writer.FinishIfDue(true);
    EXPECT_TRUE(m_spool->FileIndices().empty()) << "nothing to close";

    // Appends until a batch closes by itself: by count, or earlier by the
    // size a spool file can hold.
    uint32_t appended = 0;
    while (m_spool->FileIndices().empty() && appended <= BatchWriter::kMaxEvents)
    {
        connect.id = ++appended;
        writer.Append(connect, nullptr);
    }
    ASSERT_EQ(Batches().size(), 1u);
    EXPECT_EQ(Batches()[0].networkevent_size(), static_cast<int>(appended));
    EXPECT_LE(std::filesystem::file_size(m_spool->FileName(m_spool->FileIndices()[0])),
              m_formatter->BatchByteLimit());
    connect.id = ++appended;
    writer.Append(connect, nullptr);

    now += BatchWriter::kMaxAge - std::chrono::milliseconds(1);
    writer.FinishIfDue(false);
    EXPECT_EQ(Batches().size(), 1u);
    now += std::chrono::milliseconds(1);
    writer.FinishIfDue(false);
    const auto batches = Batches();
    ASSERT_EQ(batches.size(), 2u);
    EXPECT_EQ(batches[1].networkevent_size(), 1);
    EXPECT_EQ(batches[1].sequenceno(), batches[0].sequenceno() + 1);
    EXPECT_EQ(writer.LostEvents(), 0u);
}
