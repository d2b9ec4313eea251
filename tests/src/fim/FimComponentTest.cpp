#include "fim/Component.h"
#include "fim/Config.h"
#include "tests/src/fim/TestEvent.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include "common/HttpService.h"
#include "common/HttpUploader.h"
#include "common/Logging.h"
#include "common/Scheduler.h"
#include "common/SpoolStorage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <functional>

using namespace vantor;
using namespace std::chrono_literals;
using fim::test::RecordingRuleEngine;

namespace
{

rapidjson::Document Json(const std::string& text)
{
    rapidjson::Document document;
    document.Parse(text.c_str());
    return document;
}

class FimComponentTest : public testing::Test
{
protected:
    std::string ConfigText(const std::string& manifest) const
    {
        return R"({"event_file_name":"events","event_file_path":")" + m_dir.Path() +
               R"(","max_disk_size_mb":0,"service_url":"https://127.0.0.1:1/x","upload_interval":3600,)"
               R"("manifests":[{"a":1}],"manifest_path":")" +
               m_dir.File(manifest) + R"(","manifest_type":"fim"})";
    }

    std::unique_ptr<fim::Component> Make(const std::string& manifest,
                                         std::shared_ptr<const edr::BlackoutManager> blackout = nullptr)
    {
        return std::make_unique<fim::Component>(std::make_unique<fim::Config>(Json(ConfigText(manifest))),
                                                m_uploader, m_scheduler, m_engine, m_dir.Path(), blackout);
    }

    void WriteManifest(const std::string& name)
    {
        m_dir.Write(name,
                    R"({"data":{"fim":{"policyVersion":"1.0","rules":[{"ruleId":"w","ruleType":"directory",)"
                    R"("imagePath":")" +
                        m_dir.File("w") + R"(","notify":["create"]}]}}})");
    }

    test::TempDir m_dir;
    common::Scheduler m_scheduler;
    std::shared_ptr<RecordingRuleEngine> m_engine = std::make_shared<RecordingRuleEngine>();
    std::shared_ptr<common::HttpUploader> m_uploader = std::make_shared<common::HttpUploader>(
        std::make_shared<common::HttpService>(common::HttpServiceSettings{}), 1);
};

} // namespace

TEST(FimConfigTest, ReadsItsKeysWithDefaultsAndWritesThemBack)
{
    fim::Config config(
        Json(R"({"event_file_name":"e","event_file_path":"/p","max_disk_size_mb":5,)"
             R"("max_file_age_sec":-3,"max_file_size_kb":"7","service_url":"u","upload_interval":9,)"
             R"("manifests":[1],"manifest_path":"m","manifest_type":"t"})"));
    EXPECT_EQ(config.MaxDiskSizeMb(), 5u);
    EXPECT_EQ(config.MaxFileAgeSec(), 0u); // default of the spool
    EXPECT_EQ(config.MaxFileSizeKb(), 0u);
    EXPECT_EQ(config.UploadInterval(), 9u);
    rapidjson::Document out;
    config.ToJson(out);
    std::vector<std::string> keys;
    for (const auto& member : out.GetObject())
    {
        keys.emplace_back(member.name.GetString());
    }
    EXPECT_EQ(keys,
              (std::vector<std::string>{"event_file_name", "event_file_path", "max_disk_size_mb",
                                        "max_file_age_sec", "max_file_size_kb", "service_url",
                                        "upload_interval", "manifests", "manifest_path", "manifest_type"}));
    EXPECT_EQ(out["manifests"][0].GetInt(), 1);

    EXPECT_THAT([&] { fim::Config bad(Json("[]")); },
                testing::ThrowsMessage<std::invalid_argument>(testing::StrEq("Fim::Config: Invalid json")));
    EXPECT_THAT([&] { config.Update(Json("3")); }, testing::ThrowsMessage<std::invalid_argument>(
                                                       testing::StrEq("Fim::Config::Update: Invalid json")));
    EXPECT_EQ(config.ServiceUrl(), "u");

    // The settle time and the baseline rate are optional.
    EXPECT_EQ(config.ContentSettleTimeMs(), 1000u);
    EXPECT_EQ(config.BaselineFilesPerSec(), 0u);
    config.Update(Json(R"({"content_settle_time_ms":0,"baseline_files_per_sec":50})"));
    EXPECT_EQ(config.ContentSettleTimeMs(), 0u);
    EXPECT_EQ(config.BaselineFilesPerSec(), 50u);
    config.Update(Json(R"({"content_settle_time_ms":-1})"));
    EXPECT_EQ(config.ContentSettleTimeMs(), 1000u);
}

TEST_F(FimComponentTest, RefusesMissingParts)
{
    const auto config = [&] { return std::make_unique<fim::Config>(Json(ConfigText("m.json"))); };
    const std::vector<std::pair<std::function<void()>, std::string>> cases{
        {[&] { fim::Component(nullptr, m_uploader, m_scheduler, m_engine, m_dir.Path()); }, "config"},
        {[&] { fim::Component(config(), nullptr, m_scheduler, m_engine, m_dir.Path()); }, "uploader"},
        {[&] { fim::Component(config(), m_uploader, m_scheduler, nullptr, m_dir.Path()); }, "ruleEngine"}};
    for (const auto& [make, part] : cases)
    {
        EXPECT_THAT(make, testing::ThrowsMessage<std::runtime_error>(
                              testing::StrEq("FimComponent: '" + part + "' cannot be null")));
    }
}

TEST_F(FimComponentTest, LifecycleFromBadManifestToEnabledToDestroyed)
{
    test::LogCapture log(common::Logging::Edr());
    m_dir.Write("bad.json", "{not json");
    auto component = Make("bad.json");
    EXPECT_FALSE(component->IsEnabled());
    EXPECT_TRUE(log.Contains("Successfully cleared spool storage"));
    EXPECT_TRUE(log.Contains("Component initialized."));
    EXPECT_FALSE(m_engine->HasEventHandlers("FIM"));
    EXPECT_TRUE(std::filesystem::is_directory(m_dir.File("fim")));
    EXPECT_TRUE(std::filesystem::exists(m_dir.File("BaselineEvents.db")));

    // A later "config" with a usable manifest turns FIM on.
    WriteManifest("good.json");
    bool reported = false;
    EXPECT_THROW(component->UpdateConfig(Json("[]"), [&](bool ok) { reported = !ok; }),
                 std::invalid_argument);
    EXPECT_TRUE(reported);
    component->UpdateConfig(Json(ConfigText("good.json")), [&](bool ok) { reported = ok; });
    EXPECT_TRUE(reported);
    EXPECT_TRUE(log.Contains("Component::UpdateConfig: Configuration updated"));
    EXPECT_TRUE(component->IsEnabled());
    EXPECT_EQ(m_engine->added, std::vector<std::string>{"FIM:w"});
    ASSERT_TRUE(m_engine->HasEventHandlers("FIM"));

    // Lost kernel rules are added again.
    m_engine->added.clear();
    m_engine->Invalidate();
    EXPECT_EQ(m_engine->added, std::vector<std::string>{"FIM:w"});

    // Events routed to the tag land in the spool.
    fim::test::TestEvent event(edr::EventType::Create, m_dir.File("w/new"));
    m_engine->Deliver("FIM", event);
    EXPECT_TRUE(test::Eventually([&] { return component->GetSpool().CacheSize() > 0; }, 2s));

    component->Disable();
    EXPECT_FALSE(component->IsEnabled());
    EXPECT_FALSE(m_engine->HasEventHandlers("FIM"));
    EXPECT_EQ(component->GetSpool().CacheSize(), 0u);
    EXPECT_EQ(m_engine->deleted.back(), "FIM");

    component.reset();
    EXPECT_TRUE(log.Contains("Component destroyed."));
}

TEST_F(FimComponentTest, UploadsWaitOutTheBlackoutPeriodsItIsHanded)
{
    test::LogCapture log(common::Logging::Edr());
    WriteManifest("good.json");
    const auto now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    auto blackout = std::make_shared<const edr::BlackoutManager>(
        edr::BlackoutManager::kKind,
        "[{\"start\": " + std::to_string(now - 60) + ", \"end\": " + std::to_string(now + 3600) + "}]");
    auto component = Make("good.json", blackout);
    EXPECT_EQ(component->GetBlackout(), blackout);
    // The first run is due at once; in the blackout it sends nothing.
    m_scheduler.Start();
    EXPECT_TRUE(test::Eventually(
        [&] { return log.Contains("UploadSchedule: Blackout period, upload postponed."); }, 5s));
    EXPECT_FALSE(log.Contains("UploadSchedule: Nothing to upload."));
    component.reset();
    m_scheduler.Stop();
}

TEST_F(FimComponentTest, BaselineRunsForTheRulesEachManifestAddsAndLeavesOurOwnFilesOut)
{
    test::LogCapture log(common::Logging::Edr());
    std::filesystem::create_directories(m_dir.File("w"));
    std::filesystem::create_directories(m_dir.File("v"));
    m_dir.Write("w/a", "a");
    m_dir.Write("w/b", "bb");
    m_dir.Write("v/c", "ccc");
    m_dir.Write("top.txt", "t");
    const auto rule = [&](const std::string& id, const std::string& path)
    {
        return R"({"ruleId":")" + id + R"(","ruleType":"directory","recursiveDepth":"all","imagePath":")" +
               path + R"(","notify":["create"]})";
    };
    const auto manifest = [&](const std::string& rules)
    { m_dir.Write("m.json", R"({"data":{"fim":{"policyVersion":"1.0","rules":[)" + rules + "]}}}"); };
    // Read beside the component's own connection, without writing.
    auto stored = [&](const std::string& name)
    {
        sqlite3* db = nullptr;
        sqlite3_stmt* statement = nullptr;
        bool found = false;
        if (sqlite3_open_v2(m_dir.File("BaselineEvents.db").c_str(), &db, SQLITE_OPEN_READONLY, nullptr) ==
                SQLITE_OK &&
            sqlite3_prepare_v2(db, "SELECT 1 FROM BaselineEvents WHERE FilePath = ?", -1, &statement,
                               nullptr) == SQLITE_OK)
        {
            const std::string path = m_dir.File(name);
            sqlite3_bind_text(statement, 1, path.c_str(), static_cast<int>(path.size()), SQLITE_TRANSIENT);
            found = sqlite3_step(statement) == SQLITE_ROW;
        }
        sqlite3_finalize(statement);
        sqlite3_close(db);
        return found;
    };

    manifest(rule("w", m_dir.File("w")));
    auto component = Make("m.json");
    ASSERT_TRUE(component->IsEnabled());
    EXPECT_TRUE(test::Eventually([&] { return stored("w/a") && stored("w/b"); }, 5s));
    EXPECT_TRUE(test::Eventually([&] { return component->GetSpool().CacheSize() > 0; }, 5s));
    EXPECT_EQ(log.Count("FimComponent: Baseline pass over 1 watched paths"), 1u);

    // The same manifest again adds nothing; a new rule gets its pass.
    component->UpdateConfig(Json(ConfigText("m.json")));
    EXPECT_EQ(log.Count("Baseline pass over"), 1u);
    manifest(rule("w", m_dir.File("w")) + "," + rule("v", m_dir.File("v")));
    component->UpdateConfig(Json(ConfigText("m.json")));
    EXPECT_EQ(log.Count("FimComponent: Baseline pass over 1 watched paths"), 2u);
    EXPECT_TRUE(test::Eventually([&] { return stored("v/c"); }, 5s));

    // Watching the directory that holds the spool and the store: those are
    // the daemon's own files.
    manifest(rule("all", m_dir.Path()));
    component->UpdateConfig(Json(ConfigText("m.json")));
    EXPECT_TRUE(test::Eventually([&] { return stored("top.txt"); }, 5s));
    component->FlushDocuments();
    component.reset();
    EXPECT_FALSE(stored("BaselineEvents.db"));
    for (const auto& entry : std::filesystem::directory_iterator(m_dir.File("fim")))
    {
        EXPECT_FALSE(stored("fim/" + entry.path().filename().string())) << entry.path();
    }
}
