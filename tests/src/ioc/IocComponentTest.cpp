#include "ioc/ClientInformation.h"
#include "ioc/Component.h"
#include "ioc/Config.h"
#include "ioc/EventRuleManager.h"
#include "ioc/SequenceNumber.h"
#include "ioc/SnapshotSqlDataFormatter.h"
#include "ioc/TtlProcessTree.h"
#include "ioc/protobuf/IocEvents.pb.h"
#include "tests/src/ioc/IocTestEvent.h"
#include "tests/src/ioc/IocTestJson.h"
#include "tests/src/ioc/RecordingRuleEngine.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include "common/HttpService.h"
#include "common/HttpUploader.h"
#include "common/Logging.h"
#include "common/Scheduler.h"
#include "common/SqlStorage.h"
#include "common/util/Json.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <optional>
#include <thread>

#include <unistd.h>

using namespace vantor;
using ioc::test::Json;
using namespace std::chrono_literals;
using ioc::internal::SnapshotSqlDataFormatter;
using testing::ElementsAre;
using testing::StrEq;
using testing::ThrowsMessage;

namespace
{

constexpr uint64_t kBootTime = 1700000000;

const std::string kManifest = R"({"policyVersion": "2.0.0", "policyId": "p", "productId": "q",
    "globalSettings": {"gateway_url": "https://gw"}, "rules": [
    {"ruleId": "starts", "ruleType": "Process", "notify": ["start"],
     "inclusionFilters": [{"filterType": [{"objectType": "process", "actorProcess": ["/usr/bin/*"]}]}]},
    {"ruleId": "connects", "ruleType": "Network", "notify": ["establish"]},
    {"ruleId": "quiet", "ruleType": "EDR", "ruleClass": "WhitelistGlobal", "applyTo": ["/usr/bin/curl"],
     "exclusionFilters": [{"filterType": [{"objectType": "network", "protocol": "any", "remotePort": [{"number": 80}]}]}]}
    ]})";

TEST(IocConfigTest, ReadsTheKeysWithDefaultsForMissingOrMistypedOnes)
{
    test::LogCapture log(common::Logging::Edr());
    ioc::Ioc::Config config(
        R"({"event_file_name": "e", "event_file_path": "/p", "max_disk_size_mb": 5, "max_file_age_sec": -3,
            "max_file_size_kb": "7", "service_url": "u", "upload_interval": 9, "host_quarantined": "true",
            "manifests": [{"manifest_path": "/m1", "manifest_type": "ioc"}, {"manifest_type": "ioc"}, 4,
                          {"manifest_path": "/m2"}]})");
    EXPECT_EQ(config.EventFileName(), "e");
    EXPECT_EQ(config.EventFilePath(), "/p");
    EXPECT_EQ(config.MaxDiskSizeMb(), 5u);
    EXPECT_EQ(config.MaxFileAgeSec(), 0u);
    EXPECT_EQ(config.MaxFileSizeKb(), 0u);
    EXPECT_EQ(config.ServiceUrl(), "u");
    EXPECT_EQ(config.UploadInterval(), 9u);
    EXPECT_FALSE(config.HostQuarantined()) << "only the literal true";
    using Manifest = ioc::Ioc::Config::Manifest;
    EXPECT_THAT(config.GetManifests(), ElementsAre(Manifest{"/m1", "ioc"}, Manifest{"/m2", ""}));
    EXPECT_EQ(log.Count("Ioc::Config: Ignoring a 'manifests' entry without a 'manifest_path' string"), 2u);

    EXPECT_TRUE(config.Update(R"({"host_quarantined": true, "manifests": "none"})"));
    EXPECT_TRUE(config.HostQuarantined());
    EXPECT_TRUE(config.GetManifests().empty());
    EXPECT_EQ(config.ServiceUrl(), "") << "an update replaces every value";

    EXPECT_FALSE(config.Update(R"([{"service_url": "x"}])"));
    EXPECT_FALSE(config.Update(R"({"service_url": )"));
    EXPECT_EQ(log.Count("Ioc::Config::Update: Invalid json"), 2u);
    EXPECT_TRUE(config.HostQuarantined()) << "the previous values stay";

    for (const char* bad : {"[]", "", "nonsense", "{} {}"})
    {
        EXPECT_THAT([&] { ioc::Ioc::Config invalid{std::string_view(bad)}; },
                    ThrowsMessage<std::invalid_argument>(StrEq("Ioc::Config: Invalid json")))
            << bad;
    }
    EXPECT_THAT([&] { ioc::Ioc::Config invalid(Json("[1]")); },
                ThrowsMessage<std::invalid_argument>(StrEq("Ioc::Config: Invalid json")));
    EXPECT_EQ(ioc::Ioc::Config(Json(R"({"upload_interval": 7})")).UploadInterval(), 7u);
}

class IocComponentTest : public testing::Test
{
protected:
    void SetUp() override
    {
        m_manifest = m_dir.Write("ioc_manifest.json", kManifest);
        m_snapshotDir = m_dir.Path() + ioc::Component::kSnapshotDirectory;
    }

    std::string ConfigText(const std::vector<std::string>& manifests, std::string spoolPath = "") const
    {
        spoolPath = spoolPath.empty() ? m_dir.Path() : spoolPath;
        std::string list;
        for (const auto& path : manifests)
        {
            list += std::string(list.empty() ? "" : ",") + R"({"manifest_path": ")" + path +
                    R"(", "manifest_type": "ioc"})";
        }
        return R"({"event_file_name": "batches", "event_file_path": ")" + spoolPath +
               R"(", "service_url": "https://127.0.0.1:1/ioc", "upload_interval": 3600, "manifests": [)" +
               list + "]}";
    }

    std::unique_ptr<ioc::Component> Make(const std::vector<std::string>& manifests)
    {
        return std::make_unique<ioc::Component>(
            kBootTime, std::make_unique<ioc::Ioc::Config>(ConfigText(manifests)), nullptr, m_scheduler,
            m_uploader, m_engine, 30, 10, ioc::Component::BlackoutCheck{}, m_dir.Path());
    }

    // Applies an update and waits for it; answers whether IOC is enabled.
    bool Update(ioc::Component& component, const std::string& json)
    {
        std::promise<bool> done;
        component.UpdateConfig(Json(json), [&](bool enabled) { done.set_value(enabled); });
        auto future = done.get_future();
        EXPECT_EQ(future.wait_for(10s), std::future_status::ready);
        return future.get();
    }

    // Starts /usr/bin/curl (pid 4321), whose start is itself reported, and
    // waits for that report; answers a connection of that process.
    ioc::test::IocTestEvent ConnectionOfAReportedProcess(ioc::Component& component, uint16_t port)
    {
        auto start = ioc::test::ProcessEvent(edr::EventType::Running, "/usr/bin/curl");
        start.pid = 4321;
        m_engine.DispatchEvent({"IOC"}, start);
        EXPECT_TRUE(test::Eventually([&] { return component.GetReportedCount() == 1; }, 5s));
        auto web = ioc::test::NetworkEvent(edr::EventType::Connect, "10.0.0.8", port);
        web.pid = 4321;
        web.image = "/usr/bin/curl";
        return web;
    }

    // A "ClientInformation" value of the snapshot database, read on a
    // connection of the test's own.
    std::optional<std::string> SnapshotRow(const std::string& name)
    {
        return ioc::internal::ClientInformation::Read(*OpenSnapshot(), name);
    }

    void StoreSequenceNumber(const std::string& value)
    {
        std::filesystem::create_directories(m_snapshotDir);
        ASSERT_TRUE(ioc::internal::ClientInformation::Write(*OpenSnapshot(),
                                                            SnapshotSqlDataFormatter::kSequenceNumber, value)
                        .success);
    }

    std::unique_ptr<common::SqlStorage> OpenSnapshot() const
    {
        return std::make_unique<common::SqlStorage>(m_snapshotDir, ioc::Component::kSnapshotDbName,
                                                    std::make_unique<SnapshotSqlDataFormatter>(), false);
    }

    test::TempDir m_dir;
    std::string m_manifest;
    std::string m_snapshotDir;
    common::Scheduler m_scheduler;
    ioc::test::RecordingRuleEngine m_engine;
    std::shared_ptr<common::HttpUploader> m_uploader = std::make_shared<common::HttpUploader>(
        std::make_shared<common::HttpService>(common::HttpServiceSettings{}), 1);
};

} // namespace

TEST_F(IocComponentTest, RefusesMissingParts)
{
    const auto make =
        [&](std::unique_ptr<ioc::Ioc::Config> config, std::shared_ptr<common::HttpUploader> uploader)
    {
        ioc::Component(kBootTime, std::move(config), nullptr, m_scheduler, uploader, m_engine, 30, 10, {},
                       m_dir.Path());
    };
    EXPECT_THAT([&] { make(nullptr, m_uploader); },
                ThrowsMessage<std::runtime_error>(StrEq("ioc::Component: 'config' cannot be null")));
    EXPECT_THAT([&] { make(std::make_unique<ioc::Ioc::Config>(ConfigText({m_manifest})), nullptr); },
                ThrowsMessage<std::runtime_error>(StrEq("ioc::Component: 'uploader' cannot be null")));
    EXPECT_FALSE(m_engine.HasEventHandlers(ioc::Component::kTag));
    EXPECT_TRUE(m_engine.TakeCalls().empty());
}

TEST_F(IocComponentTest, TheSequenceNumberGoesOnAfterARestartAndABadOneStartsAgainOrStops)
{
    EXPECT_EQ(Make({m_manifest})->GetSequenceNumber(), 0u);
    EXPECT_EQ(SnapshotRow(SnapshotSqlDataFormatter::kSequenceNumber), "0") << "the row is written at once";
    {
        const auto storage = OpenSnapshot();
        ioc::internal::SequenceNumber number(*storage);
        EXPECT_EQ(number.Next(), 1u);
        EXPECT_EQ(number.Next(), 2u);
    }
    EXPECT_EQ(Make({m_manifest})->GetSequenceNumber(), 2u);
    StoreSequenceNumber("18446744073709551615");
    EXPECT_EQ(Make({m_manifest})->GetSequenceNumber(), 18446744073709551615u);

    for (const char* value : {"-1", "12abc", ""})
    {
        StoreSequenceNumber(value);
        test::LogCapture log(common::Logging::Edr());
        EXPECT_EQ(Make({m_manifest})->GetSequenceNumber(), 0u) << value;
        EXPECT_TRUE(log.Contains("Error in reading sequence number")) << value;
    }

    StoreSequenceNumber("18446744073709551616"); // 2^64
    m_engine.TakeCalls();
    EXPECT_THAT([&] { Make({m_manifest}); },
                ThrowsMessage<std::runtime_error>(StrEq("ioc::component: sequence number out of range.")));
    EXPECT_FALSE(m_engine.HasEventHandlers(ioc::Component::kTag)) << "nothing was registered";
}

TEST_F(IocComponentTest, NumberingGoesOnFromTheNewestSpooledBatchWhenACrashLeftItAheadOfTheStoredNumber)
{
    // Spool files oldest first; the newest is torn and passed over.
    std::filesystem::create_directories(m_dir.Path() + "/ioc");
    const std::string torn{'\x0a', '\x05', 'a', 'b'};
    for (const auto& [name, number] :
         {std::pair{"batches.0001", 3}, {"batches.0002", 4}, {"batches.0003", 0}})
    {
        com::corvid::ioc::model::proto::event::IoCEvent batch;
        batch.set_sequenceno(static_cast<uint64_t>(number));
        m_dir.Write(std::string("ioc/") + name, number > 0 ? batch.SerializeAsString() : torn);
    }
    const struct
    {
        const char* stored;
        uint64_t expected;
    } cases[] = {{"2", 4}, {"3", 4}, {"9", 9}};
    for (const auto& c : cases)
    {
        StoreSequenceNumber(c.stored);
        EXPECT_EQ(Make({m_manifest})->GetSequenceNumber(), c.expected) << c.stored;
        EXPECT_EQ(SnapshotRow(SnapshotSqlDataFormatter::kSequenceNumber), std::to_string(c.expected))
            << c.stored;
    }
}

TEST_F(IocComponentTest, TheRulesOfTheManifestsGoToTheEngineUnderTheTagAndTheirEventsReachTheHandler)
{
    test::LogCapture log(common::Logging::Edr());
    auto component = Make({m_manifest});
    EXPECT_TRUE(component->IsEnabled());
    EXPECT_TRUE(log.Contains("Component initialized."));
    EXPECT_THAT(m_engine.TakeCalls(), ElementsAre("delete IOC", "add IOC:connects", "add IOC:starts"));
    ASSERT_TRUE(m_engine.HasEventHandlers("IOC"));
    EXPECT_EQ(SnapshotRow(SnapshotSqlDataFormatter::kBootTime), std::to_string(kBootTime));
    EXPECT_TRUE(std::filesystem::is_directory(m_dir.File("ioc")));

    // The verdict chain reports what it has not seen before when the rules
    // ask for it; the whitelist spares only processes not reported yet.
    auto web = ioc::test::NetworkEvent(edr::EventType::Connect, "10.0.0.8", 80);
    web.pid = 4321;
    web.id = 16;
    web.image = "/usr/bin/curl";
    m_engine.DispatchEvent({"IOC"}, web);
    // Events run on the processing thread, not the handler's.
    EXPECT_TRUE(
        test::Eventually([&] { return log.Contains("WhitelistGlobal exclusion filter matched"); }, 5s));
    EXPECT_EQ(component->GetReportedCount(), 0u);

    auto start = ioc::test::ProcessEvent(edr::EventType::Running, "/usr/bin/curl");
    start.pid = 4321;
    start.id = 17;
    m_engine.DispatchEvent({"IOC"}, start);
    EXPECT_TRUE(test::Eventually([&] { return component->GetReportedCount() == 1u; }, 5s));
    EXPECT_TRUE(log.Contains("Ioc::Component: Reported Test event 17 of process 4321 (/usr/bin/curl)"));
    web.id = 18;
    m_engine.DispatchEvent({"IOC"}, web);
    EXPECT_TRUE(test::Eventually([&] { return component->GetReportedCount() == 2u; }, 5s));

    // The kernel lost the rules: they are submitted again.
    m_engine.InvalidateEventHandlers();
    EXPECT_THAT(m_engine.TakeCalls(), ElementsAre("add IOC:connects", "add IOC:starts"));

    component.reset();
    EXPECT_FALSE(m_engine.HasEventHandlers("IOC"));
    EXPECT_THAT(m_engine.TakeCalls(), ElementsAre("delete IOC"));
    EXPECT_TRUE(log.Contains("Ioc component destroyed."));
}

TEST_F(IocComponentTest, AnEmptyManifestListDisablesIocAndClearsTheSnapshotUntilManifestsReturn)
{
    auto component = Make({m_manifest});
    m_engine.TakeCalls();
    test::LogCapture log(common::Logging::Edr());
    EXPECT_FALSE(Update(*component, ConfigText({})));
    EXPECT_FALSE(component->IsEnabled());
    EXPECT_TRUE(log.Contains("Disabling IOC"));
    EXPECT_TRUE(log.Contains("Successfully cleared sql storage"));
    EXPECT_FALSE(SnapshotRow(SnapshotSqlDataFormatter::kBootTime));
    EXPECT_EQ(SnapshotRow(SnapshotSqlDataFormatter::kSequenceNumber), "0") << "numbering goes on";
    EXPECT_FALSE(m_engine.HasEventHandlers("IOC"));
    EXPECT_THAT(m_engine.TakeCalls(), ElementsAre("delete IOC"));

    EXPECT_TRUE(Update(*component, ConfigText({m_manifest})));
    EXPECT_TRUE(component->IsEnabled());
    EXPECT_TRUE(m_engine.HasEventHandlers("IOC"));
    EXPECT_THAT(m_engine.TakeCalls(), ElementsAre("delete IOC", "add IOC:connects", "add IOC:starts"));
    EXPECT_EQ(SnapshotRow(SnapshotSqlDataFormatter::kBootTime), std::to_string(kBootTime));
}

TEST_F(IocComponentTest, AManifestErrorIsLoggedWithItsTextAndLosesNoSpooledBatch)
{
    auto component = Make({m_manifest});
    const std::string spooled = m_dir.File("ioc/batches.0001");
    std::ofstream(spooled) << "a batch waiting for upload";
    m_engine.TakeCalls();

    const std::vector<std::pair<std::string, std::string>> cases{
        {R"({"policyVersion": "2.-1", "policyId": "p", "productId": "q", "globalSettings": {}, "rules": []})",
         "Parsing failed. Unsupported manifest version provided"},
        {"{\"policyVersion\": ", "Parsing failed. Manifest is not a JSON object"}};
    for (const auto& [text, error] : cases)
    {
        SCOPED_TRACE(error);
        test::LogCapture log(common::Logging::Edr());
        const std::string bad = m_dir.Write("bad.json", text);
        EXPECT_FALSE(Update(*component, ConfigText({bad})));
        EXPECT_TRUE(log.Contains("EventRuleManager: Disabling EDR: " + error))
            << testing::PrintToString(log.Lines());
        EXPECT_FALSE(log.Contains("Disabling IOC")) << "the snapshot is kept for a usable manifest";
        EXPECT_FALSE(m_engine.HasEventHandlers("IOC"));
        EXPECT_TRUE(std::filesystem::exists(spooled));
        EXPECT_TRUE(Update(*component, ConfigText({m_manifest})));
    }
    std::string content;
    ASSERT_TRUE(util::ReadFile(spooled, content));
    EXPECT_EQ(content, "a batch waiting for upload");

    // A bad manifest beside a good one only costs its own rules.
    const std::string bad = m_dir.Write("bad.json", "[]");
    EXPECT_TRUE(Update(*component, ConfigText({bad, m_manifest})));
}

TEST_F(IocComponentTest, UpdatesRunInOrderOffTheCallersThreadAndABadOneChangesNothing)
{
    auto component = Make({m_manifest});
    m_engine.TakeCalls();
    const auto caller = std::this_thread::get_id();
    std::mutex mutex;
    std::vector<std::string> seen;
    std::promise<void> last;
    const auto record = [&](const std::string& name)
    {
        return [&, name](bool enabled)
        {
            std::lock_guard lock(mutex);
            seen.push_back(name + (enabled ? " on" : " off") +
                           (std::this_thread::get_id() == caller ? " caller" : ""));
        };
    };
    test::LogCapture log(common::Logging::Edr());
    component->UpdateConfig(Json(ConfigText({})), record("first"));
    component->UpdateConfig(Json("[1, 2]"), record("invalid"));
    component->UpdateConfig(Json(ConfigText({m_manifest})), record("second"));
    component->UpdateConfig(Json(ConfigText({m_manifest})),
                            [&](bool enabled)
                            {
                                record("third")(enabled);
                                last.set_value();
                            });
    ASSERT_EQ(last.get_future().wait_for(10s), std::future_status::ready);
    EXPECT_THAT(seen, ElementsAre("first off", "invalid off", "second on", "third on"));
    EXPECT_TRUE(log.Contains("Ioc::Config::Update: Invalid json"));
    EXPECT_TRUE(component->IsEnabled());

    // An invalid configuration leaves the rules and the state as they are.
    m_engine.TakeCalls();
    EXPECT_FALSE(Update(*component, R"(["manifests"])"));
    EXPECT_TRUE(m_engine.TakeCalls().empty());
    EXPECT_TRUE(component->IsEnabled());
    EXPECT_EQ(component->GetConfig().ServiceUrl(), "https://127.0.0.1:1/ioc");
}

TEST_F(IocComponentTest, TheProcessTreeIsSavedAtShutdownAndLoadedAtTheNextStart)
{
    {
        auto component = Make({m_manifest});
        auto start = ioc::test::ProcessEvent(edr::EventType::Running, "/usr/bin/tool");
        start.pid = getpid();
        start.ppid = getppid();
        m_engine.DispatchEvent({"IOC"}, start);
        ASSERT_TRUE(test::Eventually([&] { return component->GetProcessTree().Contains(getpid()); }, 5s));
        ASSERT_TRUE(component->GetProcessTree().AddTag(getpid(), "Execution", 10));

        // An exit of a process the tree does not know changes nothing.
        auto exit = ioc::test::ProcessEvent(edr::EventType::Exit, "/usr/bin/other");
        exit.pid = 0x7ffffff0;
        m_engine.DispatchEvent({"IOC"}, exit);
    }
    {
        auto component = Make({m_manifest});
        auto& tree = component->GetProcessTree();
        ASSERT_TRUE(tree.Contains(getpid()));
        EXPECT_EQ(tree.GetProcessInfo(getpid()).tags.at("Execution"), 10);
        EXPECT_FALSE(tree.HasTag(getpid(), ioc::TtlProcessTree::kTerminated))
            << "the test process still runs";
        EXPECT_TRUE(tree.Contains(1)) << "process 1 is kept for reboot detection";

        // Disabling forgets the processes, in memory and in the database.
        EXPECT_FALSE(Update(*component, ConfigText({})));
        EXPECT_EQ(tree.Size(), 0u);
    }
    EXPECT_EQ(Make({m_manifest})->GetProcessTree().Size(), 0u);
}

TEST_F(IocComponentTest, AnUpdateGivesTheEnginesTheHeuristicsSwitchOfTheManifest)
{
    const auto withHeuristics = [&](const char* enabled)
    {
        std::string manifest = kManifest;
        manifest.insert(manifest.find('{') + 1, std::string(R"("heuristicsEnabled": )") + enabled + ", ");
        return m_dir.Write("heuristics.json", manifest);
    };
    auto component = Make({m_manifest});
    // The start must be counted before the baselines are read.
    auto web = ConnectionOfAReportedProcess(*component, 443);
    for (const char* enabled : {"true", "false"})
    {
        SCOPED_TRACE(enabled);
        ASSERT_TRUE(Update(*component, ConfigText({withHeuristics(enabled)})));
        test::LogCapture log(common::Logging::Edr());
        const uint64_t before = component->GetReportedCount();
        for (int i = 0; i < 11; ++i)
        {
            m_engine.DispatchEvent({"IOC"}, web);
        }
        const bool on = enabled == std::string("true");
        EXPECT_TRUE(
            test::Eventually([&] { return component->GetReportedCount() - before == (on ? 10u : 11u); }, 5s));
        EXPECT_EQ(on, log.Contains("based on heuristics"));
    }
}

TEST_F(IocComponentTest, EventsKeepFlowingWhileUpdatesMoveTheSpoolAndNoneIsLostUncounted)
{
    auto component = Make({m_manifest});
    // Without heuristics, such a connection is reported each time.
    auto web = ConnectionOfAReportedProcess(*component, 80);

    // The capture side goes on dispatching while each update replaces the
    // batch pipeline (a new spool place).
    std::atomic<bool> done{false};
    std::atomic<uint64_t> sent{0};
    std::thread capture(
        [&]
        {
            while (!done.load())
            {
                m_engine.DispatchEvent({"IOC"}, web);
                sent.fetch_add(1);
            }
        });
    const std::string elsewhere = m_dir.Path() + "/elsewhere";
    for (int i = 0; i < 6; ++i)
    {
        EXPECT_TRUE(Update(*component, ConfigText({m_manifest}, i % 2 == 0 ? elsewhere : m_dir.Path())));
    }
    done.store(true);
    capture.join();
    ASSERT_GT(sent.load(), 0u);
    EXPECT_TRUE(test::Eventually(
        [&] { return component->GetReportedCount() + component->GetDroppedEventCount() == 1 + sent.load(); },
        10s))
        << component->GetReportedCount() << " reported, " << component->GetDroppedEventCount()
        << " dropped of " << 1 + sent.load();
}
